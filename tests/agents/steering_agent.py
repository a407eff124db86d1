#!/usr/bin/env python3
"""An agent stand-in for steering tests.

Draws an input box at the bottom of its terminal the way the coding agents do, edits its draft
with the keys it receives (printable text, Backspace, Ctrl-E, Return submits; after "/model" a menu
takes digits until another key comes), records every byte
it reads with the time it arrived, and prints what the test asks for on its control FIFO.

Usage: steering_agent.py CONFIG.json, with the keys
  log      file that receives one line per read: "<monotonic seconds> <hex bytes>"
  control  FIFO of commands: "say TEXT" prints a line above the box, "exit N" ends the agent
  draft    text already in the box at start ("\n" makes a box of several rows)
  box      false: no input box at all, only plain output
"""
import json
import os
import select
import sys
import time
import tty

BOX_AREA = 6  # rows kept at the bottom of the screen for the box


def main():
    config = json.load(open(sys.argv[1]))
    log = open(config["log"], "ab", buffering=0)
    control = os.open(config["control"], os.O_RDWR | os.O_NONBLOCK)
    draft = config.get("draft", "")
    box = config.get("box", True)
    size = os.get_terminal_size(0)
    rows = size.lines
    inner = size.columns - 2  # the box spans the screen, as the agents draw it
    tty.setraw(0)
    out = sys.stdout.buffer

    def write(text):
        out.write(text.encode())
        out.flush()

    def say(text):
        # History scrolls in the region above the box and is printed once, as agents do.
        write(f"\x1b7\x1b[{rows - BOX_AREA};1H\r\n{text}\x1b8")

    def draw():
        lines = ["\x1b[2K"] * BOX_AREA
        if box:
            parts = draft.split("\n")
            frame = ["╭" + "─" * inner + "╮"]
            for i, part in enumerate(parts):
                lead = "> " if i == 0 else "  "
                frame.append("│" + (lead + part).ljust(inner) + "│")
            frame.append("╰" + "─" * inner + "╯")
            lines[BOX_AREA - len(frame):] = ["\x1b[2K" + row for row in frame]
        top = rows - BOX_AREA + 1
        write("".join(f"\x1b[{top + i};1H{row}" for i, row in enumerate(lines)))

    write(f"\x1b[H\x1b[2J\x1b[1;{rows - BOX_AREA}r")
    draw()
    say("agent ready")
    pending = b""
    commands = b""
    menu = False  # "/model" opened a menu that takes digits until another key
    while True:
        readable, _, _ = select.select([0, control], [], [])
        if control in readable:
            commands += os.read(control, 4096)
            while b"\n" in commands:
                line, commands = commands.split(b"\n", 1)
                verb, _, rest = line.decode().partition(" ")
                if verb == "say":
                    say(rest)
                elif verb == "exit":
                    sys.exit(int(rest or 0))
        if 0 in readable:
            data = os.read(0, 4096)
            if not data:
                return
            log.write(f"{time.monotonic():.6f} {data.hex()}\n".encode())
            pending += data
            while pending:
                menu = menu and 0x30 <= pending[0] <= 0x39
                if pending.startswith(b"\x1b[Z"):
                    say("permission mode switched")
                    pending = pending[3:]
                    continue
                byte = pending[0]
                if byte == 0x7F:
                    draft = draft[:-1]
                elif byte == 0x0D:
                    say("submitted: " + draft)
                    menu = draft == "/model"
                    draft = ""
                elif menu and 0x30 <= byte <= 0x39:
                    say("menu choice " + chr(byte))
                elif byte >= 0x20 or byte == 0x0A:
                    # A whole UTF-8 sequence, or wait for the rest of it.
                    length = 1 if byte < 0x80 else 2 if byte < 0xE0 else 3 if byte < 0xF0 else 4
                    if len(pending) < length:
                        break
                    draft += pending[:length].decode(errors="replace")
                    pending = pending[length:]
                    continue
                pending = pending[1:]  # Ctrl-E and other controls: the cursor is at the end
            draw()


if __name__ == "__main__":
    main()
