"""What the three fake agents share: a raw terminal, an input box drawn the way the agents draw
theirs, typed input read byte by byte, and the turn of a conversation (prompt, work, a tool that
waits for approval, the answer by carriage return or ESC, the end of the turn).

Each agent module supplies a Transcript subclass that writes its own file layout under $HOME and
an InputBox that draws its own prompt. Behaviour comes from the command line, so that tests can
drive the same script through different flows:

  --model NAME         the model the transcript names
  --context N          input tokens the transcript reports at each answer
  --ask TOOL=TARGET    each prompt asks to run TOOL on TARGET and waits for approval
  --work SECONDS       how long the agent prints progress before it writes its answer
  --bell               ring the bell when asking for approval and when a turn ends
  --title TEXT         set the terminal title to TEXT at start
  --limit-at-start     print a usage-limit notice at once
  --limit-in SECONDS   the reset time of a usage-limit notice lies this far ahead (default 5)
  --exit-after SECONDS the agent ends by itself after this long (default 600), so none outlives
                       a test run that lost track of it

Typed commands: "/clear" starts a new conversation (a new file where the agent does that),
"/limit" prints the usage-limit notice, "/exit" ends the agent. Anything else is a prompt.
"""

import argparse
import datetime
import json
import os
import select
import sys
import termios
import time
import tty
import uuid

CR = b"\r"
ESC = b"\x1b"
BACKSPACE = (b"\x7f", b"\x08")


def now_iso():
    return datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%S.%f")[:-3] + "Z"


def arguments(argv):
    parser = argparse.ArgumentParser()
    parser.add_argument("--model", default=None)
    parser.add_argument("--context", type=int, default=1200)
    parser.add_argument("--ask", default=None)
    parser.add_argument("--work", type=float, default=0.5)
    parser.add_argument("--bell", action="store_true")
    parser.add_argument("--title", default=None)
    parser.add_argument("--limit-at-start", action="store_true")
    parser.add_argument("--limit-in", type=float, default=5.0)
    parser.add_argument("--exit-after", type=float, default=600.0)
    options, _ = parser.parse_known_args(argv)
    options.tool, options.target = None, None
    if options.ask:
        options.tool, _, options.target = options.ask.partition("=")
    return options


class Transcript:
    """One conversation file in the agent's own folder and layout. Appends whole lines, flushed
    at once, as the agents do, so a reader never sees half a record for long."""

    def __init__(self, options):
        self.options = options
        self.path = None

    def append(self, record):
        os.makedirs(os.path.dirname(self.path), exist_ok=True)
        with open(self.path, "a", encoding="utf-8") as out:
            out.write(json.dumps(record, separators=(",", ":")) + "\n")

    # Each agent writes these its own way.
    def start(self):
        raise NotImplementedError

    def clear(self):
        raise NotImplementedError

    def prompt(self, text):
        raise NotImplementedError

    def ask(self, tool, target):
        raise NotImplementedError

    def approved(self, tool, target):
        raise NotImplementedError

    def denied(self, tool, target):
        raise NotImplementedError

    def finish(self, text):
        raise NotImplementedError


class Agent:
    def __init__(self, name, transcript, box_top, box_prompt, box_bottom, hint, working):
        self.name = name
        self.transcript = transcript
        self.options = transcript.options
        self.box_top, self.box_prompt, self.box_bottom = box_top, box_prompt, box_bottom
        self.hint = hint
        self.working = working
        self.draft = ""
        self.pending = None  # (tool, target) while an approval is open

    # Screen

    def write(self, text):
        sys.stdout.write(text)
        sys.stdout.flush()

    def draw_box(self):
        shown = self.draft if self.draft else self.hint
        lines = []
        if self.box_top:
            lines.append(self.box_top)
        lines.append(self.box_prompt(shown))
        if self.box_bottom:
            lines.append(self.box_bottom)
        self.write("\r\n".join(lines) + "\r\n")
        self.box_height = len(lines)

    def redraw_box(self):
        # Up to the top of the box, erase to the end of the screen, draw again.
        self.write("\x1b[%dA\r\x1b[J" % self.box_height)
        self.draw_box()

    def say(self, text):
        self.write("\x1b[%dA\r\x1b[J" % self.box_height)
        for line in text.split("\n"):
            self.write(line + "\r\n")
        self.draw_box()

    def set_title(self, title):
        self.write("\x1b]0;%s\x07" % title)

    def bell(self):
        if self.options.bell:
            self.write("\x07")

    def limit_notice(self):
        reset = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(seconds=self.options.limit_in)
        # To the second, so that a reset a few seconds ahead can be told apart from now.
        self.say(self.limit_text(reset.strftime("%Y-%m-%dT%H:%M:%SZ")))

    def limit_text(self, reset):
        return "You've hit your usage limit. Resets at %s." % reset

    def work(self):
        frames = "|/-\\"
        end = time.monotonic() + self.options.work
        i = 0
        while time.monotonic() < end:
            self.write("\r%s %s" % (frames[i % 4], self.working))
            i += 1
            time.sleep(0.1)
        self.write("\r\x1b[K")

    # Turns

    def submit(self, text):
        if text == "/exit":
            self.restore()
            sys.exit(0)
        if text == "/limit":
            self.limit_notice()
            return
        if text == "/clear":
            self.transcript.clear()
            self.say("(conversation cleared)")
            return
        self.transcript.prompt(text)
        self.say("> " + text)
        self.work()
        if self.options.tool:
            self.pending = (self.options.tool, self.options.target or "")
            self.transcript.ask(*self.pending)
            self.ask_screen(*self.pending)
            self.bell()
            return
        self.finish("Done: " + text)

    def ask_screen(self, tool, target):
        self.say("%s(%s)\nDo you want to proceed?\n> 1. Yes\n  2. No (esc)" % (tool, target))

    def finish(self, text):
        self.transcript.finish(text)
        self.say(text)
        self.bell()

    def answer(self, approve):
        tool, target = self.pending
        self.pending = None
        if approve:
            self.transcript.approved(tool, target)
            self.say("Approved %s(%s)" % (tool, target))
            self.work()
            self.finish("Ran %s" % tool)
        else:
            self.transcript.denied(tool, target)
            self.say("Denied %s(%s)" % (tool, target))

    def key(self, byte):
        if self.pending is not None:
            # The approval prompt takes one key: Enter picks "Yes", ESC declines.
            if byte == CR:
                self.answer(True)
            elif byte == ESC:
                self.answer(False)
            return
        if byte == CR:
            text, self.draft = self.draft.strip(), ""
            self.redraw_box()
            if text:
                self.submit(text)
        elif byte in BACKSPACE:
            self.draft = self.draft[:-1]
            self.redraw_box()
        elif byte == ESC or byte < b" ":
            pass
        else:
            self.draft += byte.decode("latin-1")
            self.redraw_box()

    # Terminal

    def restore(self):
        termios.tcsetattr(0, termios.TCSADRAIN, self.saved)

    def run(self):
        self.saved = termios.tcgetattr(0)
        tty.setraw(0)
        try:
            if self.options.title:
                self.set_title(self.options.title)
            self.transcript.start()
            self.write("%s (fake)\r\n" % self.name)
            self.draw_box()
            if self.options.limit_at_start:
                self.limit_notice()
            deadline = time.monotonic() + self.options.exit_after
            pending = b""
            while time.monotonic() < deadline:
                ready, _, _ = select.select([0], [], [], 0.2)
                if not ready:
                    continue
                chunk = os.read(0, 1024)
                if not chunk:
                    break
                pending += chunk
                # UTF-8 stays whole: the latin-1 draft only ever sees ASCII in the tests.
                while pending:
                    byte, pending = pending[:1], pending[1:]
                    self.key(byte)
        finally:
            self.restore()


def new_id():
    return str(uuid.uuid4())
