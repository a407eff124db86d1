#!/usr/bin/env python3
"""A stand-in for Gemini CLI on a pseudo-terminal: its framed input box, its session file under
~/.gemini/tmp/<project>/chats/session-*.jsonl (one file for the whole session, "/clear" included),
and tool calls "awaiting_approval" answered by Enter or ESC. See fakeagent.py for the options."""

import datetime
import hashlib
import os
import re
import sys

sys.dont_write_bytecode = True  # no cache files in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import fakeagent  # noqa: E402


def project_slug(path):
    name = [part for part in path.rstrip("/").lower().split("/") if part]
    slug = re.sub(r"[^a-z0-9]+", "-", name[-1] if name else "").strip("-")
    return slug or "project"


class GeminiTranscript(fakeagent.Transcript):
    def start(self):
        cwd = os.getcwd()
        self.session = fakeagent.new_id()
        now = datetime.datetime.now()
        folder = os.path.join(os.environ["HOME"], ".gemini", "tmp", project_slug(cwd), "chats")
        self.path = os.path.join(folder, "session-%s-%s.jsonl" % (now.strftime("%Y-%m-%dT%H-%M"), self.session[:8]))
        self.append({"sessionId": self.session, "projectHash": hashlib.sha256(cwd.encode()).hexdigest(),
                     "startTime": fakeagent.now_iso(), "lastUpdated": fakeagent.now_iso(), "kind": "main"})
        self.call = None

    def record(self, kind, **fields):
        record = {"id": fakeagent.new_id(), "timestamp": fakeagent.now_iso(), "type": kind}
        record.update(fields)
        self.append(record)

    def gemini(self, content, calls):
        fields = {"content": content, "thoughts": [], "toolCalls": calls,
                  "tokens": {"input": self.options.context, "output": 20, "cached": 0, "total": self.options.context + 20}}
        if self.options.model:
            fields["model"] = self.options.model
        self.record("gemini", **fields)

    def clear(self):
        # Gemini keeps its file; the command shows in it as a user line.
        self.record("user", content=[{"text": "/clear"}])

    def prompt(self, text):
        self.record("user", content=[{"text": text}])

    def ask(self, tool, target):
        self.call = {"id": "call-1", "name": tool, "args": {"command": target}, "status": "awaiting_approval"}
        self.gemini("", [self.call])

    def approved(self, tool, target):
        self.call["status"] = "executing"
        self.gemini("", [self.call])

    def denied(self, tool, target):
        self.call["status"] = "cancelled"
        self.record("error", content="Request cancelled.")

    def finish(self, text):
        calls = []
        if self.call:
            self.call["status"] = "success"
            calls, self.call = [self.call], None
        self.gemini(text, calls)


def main():
    options = fakeagent.arguments(sys.argv[1:])
    top = "╭" + "─" * 60 + "╮"
    bottom = "╰" + "─" * 60 + "╯"
    fakeagent.Agent("Gemini CLI", GeminiTranscript(options), top, lambda shown: "│ > " + shown.ljust(57) + "│",
                    bottom, "Type your message or @path/to/file", "Thinking (esc to cancel)").run()


if __name__ == "__main__":
    main()
