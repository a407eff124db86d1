// What the workspace tests share: a temporary HOME with its data and config folders, the main loop,
// a clock the test moves by hand, and a scripted agent that acts on lines written to a FIFO.
#pragma once

#include "Ostrel/LoginEnv.h"
#include "Ostrel/SessionController.h"
#include "TerminalEngine/Pty/DispatchQueue.h"
#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <asio/io_context.hpp>

namespace Ostrel::Testing {

using namespace std::chrono_literals;

// HOME, XDG_DATA_HOME and XDG_CONFIG_HOME point into a fresh folder for the life of the object.
class TemporaryHome : public OstrelTest::TemporaryFolder {
public:
    TemporaryHome() {
        for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME"}) {
            const char* old = std::getenv(name);
            saved_.push_back({name, old ? std::optional<std::string>(old) : std::nullopt});
        }
        ::setenv("HOME", path().c_str(), 1);
        ::setenv("XDG_DATA_HOME", (*this / "data").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (*this / "config").c_str(), 1);
    }
    ~TemporaryHome() {
        for (const auto& [name, value] : saved_) {
            if (value)
                ::setenv(name.c_str(), value->c_str(), 1);
            else
                ::unsetenv(name.c_str());
        }
    }

private:
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

// The main queue for one test. The loop itself lives as long as the process: a pty's read thread
// may still hand a finished session back to it after the test has let go of everything.
class MainLoop {
public:
    MainLoop()
        : loop(shared()) {
        loop.restart();
        TerminalEngine::DispatchQueue::setMain(loop);
    }
    ~MainLoop() {
        runFor(20ms); // what the test left queued finishes here, not in the next test
        LoginEnv::setCached(std::nullopt);
        TerminalEngine::DispatchQueue::clearMain();
    }
    MainLoop(const MainLoop&) = delete;
    MainLoop& operator=(const MainLoop&) = delete;

    // Runs the loop until `done`; the limit only guards against a hang.
    bool runUntil(const std::function<bool()>& done, std::chrono::seconds limit = 60s) {
        return OstrelTest::runUntil(loop, done, limit);
    }
    void runFor(std::chrono::milliseconds span) {
        const auto deadline = std::chrono::steady_clock::now() + span;
        while (std::chrono::steady_clock::now() < deadline) {
            loop.restart();
            loop.run_one_for(5ms);
        }
    }

    static asio::io_context& shared() {
        static asio::io_context& context = *new asio::io_context();
        return context;
    }
    asio::io_context& loop;
};

// Time as the controller sees it, moved by the test.
struct ManualClock {
    std::chrono::system_clock::time_point now = std::chrono::system_clock::now();
    void advance(double seconds) {
        now += std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::duration<double>(seconds));
    }
    std::function<std::chrono::system_clock::time_point()> function() {
        return [this] { return now; };
    }
};

// An agent stand-in installed as claude, codex and gemini in $HOME/bin. It records its arguments
// and environment, turns echo off (agents draw their own input), and acts on each line of its
// control FIFO: "out" prints one character, "bell" rings, "title T" and "cwd URL" set the terminal
// title and directory, "say TEXT" prints a line, "exit N" ends it. Each session gets a FIFO of its
// own through AGENT_CONTROL: a stand-in being killed may still take a byte from a shared one.
inline constexpr const char* agentScript = R"sh(#!/bin/sh
printf '%s\n' "$@" > "$HOME/args"
env > "$HOME/env"
stty -echo
exec 3<>"$AGENT_CONTROL"
while IFS= read -r cmd <&3; do
  case "$cmd" in
    out) printf 'x' ;;
    bell) printf '\a' ;;
    title\ *) printf '\033]2;%s\007' "${cmd#title }" ;;
    cwd\ *) printf '\033]7;%s\007' "${cmd#cwd }" ;;
    say\ *) printf '%s\n' "${cmd#say }" ;;
    exit\ *) exit "${cmd#exit }" ;;
  esac
done
)sh";

class ScriptedAgent {
public:
    explicit ScriptedAgent(const TemporaryHome& home)
        : home_(home) {
        for (const char* name : {"claude", "codex", "gemini"})
            home.write(std::string("bin/") + name, agentScript, true);
    }
    ~ScriptedAgent() {
        for (const auto& [path, fd] : controls_)
            ::close(fd);
    }
    ScriptedAgent(const ScriptedAgent&) = delete;
    ScriptedAgent& operator=(const ScriptedAgent&) = delete;

    // The login environment for the next session: the stand-ins first on PATH, a control FIFO of
    // its own, and variables an agent would have left behind.
    std::vector<std::string> loginEnvironment() {
        const std::string control = home_ / ("control-" + std::to_string(controls_.size()));
        ::mkfifo(control.c_str(), 0600);
        // Read-write, so that opening never waits for the agent and writes queue until it reads.
        controls_[control] = ::open(control.c_str(), O_RDWR | O_CLOEXEC);
        return {"PATH=" + home_.path() + "/bin:/usr/bin:/bin", "AGENT_CONTROL=" + control, "CLAUDECODE=1",
                "CLAUDE_CODE_SESSION_ID=outer", "FROM_LOGIN=1"};
    }

    // Has the session's agent act, and runs the loop until `bytes` more bytes of its output
    // reached the session's terminal.
    bool act(MainLoop& main, SessionController& session, const std::string& command, std::size_t bytes) {
        int fd = -1;
        for (const auto& entry : session.launch().environment)
            if (entry.rfind("AGENT_CONTROL=", 0) == 0) fd = controls_[entry.substr(14)];
        const auto before = session.terminalView().receivedBytes();
        const std::string line = command + "\n";
        if (fd < 0 || ::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
            return false;
        return main.runUntil([&] { return session.terminalView().receivedBytes() >= before + bytes; });
    }

private:
    const TemporaryHome& home_;
    std::map<std::string, int> controls_;
};

} // namespace Ostrel::Testing
