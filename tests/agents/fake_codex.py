#!/usr/bin/env python3
"""A stand-in for Codex on a pseudo-terminal: its "›" input line, its rollout file under
~/.codex/sessions/YYYY/MM/DD/, "/clear" (and "/new") into a new rollout, and approvals that put
"Action Required" in the terminal title and take Enter or ESC. See fakeagent.py for the options."""

import datetime
import os
import sys
import time

sys.dont_write_bytecode = True  # no cache files in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import fakeagent  # noqa: E402

WINDOW = 272000


class CodexTranscript(fakeagent.Transcript):
    def start(self):
        self.new_file()

    def new_file(self):
        now = datetime.datetime.now()
        self.session = fakeagent.new_id()
        folder = os.path.join(os.environ["HOME"], ".codex", "sessions", now.strftime("%Y/%m/%d"))
        self.path = os.path.join(folder, "rollout-%s-%s.jsonl" % (now.strftime("%Y-%m-%dT%H-%M-%S"), self.session))
        self.event("session_meta", {"id": self.session, "timestamp": fakeagent.now_iso(), "cwd": os.getcwd(),
                                    "originator": "codex_cli_rs", "cli_version": "0.51.0", "source": "cli"})
        self.event("turn_context", {"cwd": os.getcwd(), "approval_policy": "on-request",
                                    "model": self.options.model or "gpt-5-codex"})

    def event(self, kind, payload):
        self.append({"timestamp": fakeagent.now_iso(), "type": kind, "payload": payload})

    def message(self, payload):
        self.event("event_msg", payload)

    def tokens(self):
        usage = {"input_tokens": self.options.context, "cached_input_tokens": 0, "output_tokens": 0}
        self.message({"type": "token_count", "info": {"total_token_usage": usage, "last_token_usage": usage,
                                                      "model_context_window": WINDOW}})

    def clear(self):
        self.new_file()

    def prompt(self, text):
        self.message({"type": "task_started", "model_context_window": WINDOW})
        self.message({"type": "user_message", "message": text, "images": []})

    def ask(self, tool, target):
        self.event("response_item", {"type": "function_call", "name": tool, "call_id": "call_1",
                                     "arguments": '{"command":["bash","-lc","%s"]}' % target})
        self.tokens()

    def approved(self, tool, target):
        self.event("response_item", {"type": "function_call_output", "call_id": "call_1", "output": "ok"})

    def denied(self, tool, target):
        self.message({"type": "turn_aborted", "reason": "interrupted"})

    def finish(self, text):
        self.message({"type": "agent_message", "message": text})
        self.tokens()
        self.message({"type": "task_complete", "last_agent_message": text})


class Codex(fakeagent.Agent):
    def ask_screen(self, tool, target):
        self.say("Would you like to run the following command?\n  $ %s\n› 1. Yes, proceed\n  2. No (esc)" % target)
        # Last and on its own, once the prompt is drawn: the title is what tells that it waits.
        time.sleep(0.05)
        self.set_title("Action Required - Codex")

    def answer(self, approve):
        self.set_title("Codex")
        super().answer(approve)

    def limit_text(self, reset):
        return "You've hit your usage limit. Upgrade to Pro or try again at %s." % reset


def main():
    options = fakeagent.arguments(sys.argv[1:])
    Codex("Codex", CodexTranscript(options), None, lambda shown: "› " + shown, None,
          "Ask Codex to do anything", "Working (esc to interrupt)").run()


if __name__ == "__main__":
    main()
