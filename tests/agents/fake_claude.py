#!/usr/bin/env python3
"""A stand-in for Claude Code on a pseudo-terminal: its framed input box, its transcript under
~/.claude/projects/<folder>/<session id>.jsonl, "/clear" into a new file, tool approvals answered
by Enter or ESC. See fakeagent.py for the options."""

import os
import re
import sys

sys.dont_write_bytecode = True  # no cache files in the source tree
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import fakeagent  # noqa: E402

# Where a Claude session's target lives in the tool's input.
TARGET_KEYS = {"Read": "file_path", "Edit": "file_path", "Write": "file_path", "WebFetch": "url"}


class ClaudeTranscript(fakeagent.Transcript):
    def start(self):
        cwd = os.getcwd()
        self.folder = os.path.join(os.environ["HOME"], ".claude", "projects", re.sub(r"[^A-Za-z0-9]", "-", cwd))
        self.new_file()

    def new_file(self):
        self.session = fakeagent.new_id()
        self.path = os.path.join(self.folder, self.session + ".jsonl")
        self.tool_id = None  # the file appears with its first record, as Claude's does

    def record(self, kind, message, **extra):
        record = {"type": kind, "sessionId": self.session, "cwd": os.getcwd(), "uuid": fakeagent.new_id(),
                  "timestamp": fakeagent.now_iso(), "permissionMode": "default", "message": message}
        record.update(extra)
        self.append(record)

    def assistant(self, content):
        usage = {"input_tokens": self.options.context, "cache_read_input_tokens": 0,
                 "cache_creation_input_tokens": 0, "output_tokens": 12}
        message = {"role": "assistant", "content": content, "usage": usage}
        if self.options.model:
            message["model"] = self.options.model
        self.record("assistant", message)

    def clear(self):
        self.new_file()
        self.record("user", {"role": "user", "content":
                             "<command-name>/clear</command-name>\n<command-message>clear</command-message>\n"
                             "<command-args></command-args>"})

    def prompt(self, text):
        self.record("user", {"role": "user", "content": text})

    def ask(self, tool, target):
        self.tool_id = "toolu_" + fakeagent.new_id().replace("-", "")[:20]
        key = TARGET_KEYS.get(tool, "command")
        self.assistant([{"type": "text", "text": "I'll use %s." % tool},
                        {"type": "tool_use", "id": self.tool_id, "name": tool, "input": {key: target}}])

    def approved(self, tool, target):
        result = {"type": "tool_result", "tool_use_id": self.tool_id, "content": "ok"}
        self.record("user", {"role": "user", "content": [result]}, toolUseResult={"stdout": "ok"})

    def denied(self, tool, target):
        result = {"type": "tool_result", "tool_use_id": self.tool_id, "is_error": True,
                  "content": "The user doesn't want to proceed with this tool use."}
        self.record("user", {"role": "user", "content": [result]}, toolUseResult="User rejected tool use")
        self.record("user", {"role": "user", "content": [{"type": "text",
                                                          "text": "[Request interrupted by user for tool use]"}]})

    def finish(self, text):
        self.assistant([{"type": "text", "text": text}])


def main():
    options = fakeagent.arguments(sys.argv[1:])
    top = "╭" + "─" * 60 + "╮"
    bottom = "╰" + "─" * 60 + "╯"
    agent = fakeagent.Agent("Claude Code", ClaudeTranscript(options), top,
                            lambda shown: "│ > " + shown.ljust(57) + "│", bottom,
                            'Try "fix lint errors"', "Thinking… (esc to interrupt)")
    agent.run()


if __name__ == "__main__":
    main()
