// ostrel-term: runs a program inside a headless terminal and prints the final screen, or replays
// a recorded byte stream through the engine. How the engine is debugged and tested end to end.
#include "TerminalEngine/Pty/HeadlessTerminal.h"
#include "TerminalEngine/Terminal/ScreenSnapshot.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <CLI/CLI.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>

extern char** environ;

namespace {

using namespace TerminalEngine;

constexpr std::size_t replayChunk = 64 * 1024;

struct ReplayDelegate : TerminalDelegate {
    void send(Terminal&, std::span<const std::uint8_t>) override {} // no child to answer
};

void printScreen(Terminal& terminal, bool json, bool scrollback) {
    std::string out =
        json ? ScreenSnapshot::json(terminal, scrollback) : ScreenSnapshot::text(terminal, scrollback);
    std::fwrite(out.data(), 1, out.size(), stdout);
}

int replay(const std::string& path, const TerminalOptions& options, bool json, bool scrollback,
           bool verbose) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "ostrel-term: cannot open %s\n", path.c_str());
        return 2;
    }
    auto delegate = std::make_shared<ReplayDelegate>();
    Terminal terminal(delegate, options);
    terminal.silentLog = !verbose;
    std::vector<char> chunk(replayChunk);
    while (file) {
        file.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        auto n = static_cast<std::size_t>(file.gcount());
        if (n == 0) break;
        terminal.parse({reinterpret_cast<const std::uint8_t*>(chunk.data()), n});
    }
    printScreen(terminal, json, scrollback);
    return 0;
}

// The program as execve wants it: a path, found along PATH like a shell would.
std::optional<std::string> resolveProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return name;
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= dirs.size()) {
        std::size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        std::string dir = dirs.substr(start, end - start);
        std::string candidate = (dir.empty() ? "." : dir) + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        start = end + 1;
    }
    return std::nullopt;
}

// This process's environment with the terminal's own variables in front.
std::vector<std::string> childEnvironment(const std::string& termName) {
    std::vector<std::string> env = {"TERM=" + termName, "COLORTERM=truecolor"};
    for (char** e = environ; *e != nullptr; ++e) {
        std::string_view entry(*e);
        if (entry.starts_with("TERM=") || entry.starts_with("COLORTERM=") || entry.starts_with("COLUMNS=") ||
            entry.starts_with("LINES="))
            continue;
        env.emplace_back(entry);
    }
    return env;
}

int exitStatusOf(std::optional<std::int32_t> raw) {
    if (!raw) return 0;
    if (WIFEXITED(*raw)) return WEXITSTATUS(*raw);
    if (WIFSIGNALED(*raw)) return 128 + WTERMSIG(*raw);
    return 1;
}

int run(const std::vector<std::string>& command, const TerminalOptions& options, bool json, bool scrollback,
        bool verbose, double timeoutSeconds) {
    auto program = resolveProgram(command.front());
    if (!program) {
        std::fprintf(stderr, "ostrel-term: %s: command not found\n", command.front().c_str());
        return 127;
    }
    asio::io_context loop;
    // Without outstanding work the loop would stop and ignore the chunks posted after the exit.
    auto keepAlive = asio::make_work_guard(loop);
    DispatchQueue::setMain(loop);

    std::optional<std::int32_t> exitStatus;
    bool ended = false;
    auto host = HeadlessTerminal::create(std::nullopt, options, [&](std::optional<std::int32_t> status) {
        exitStatus = status;
        ended = true;
    });
    host->terminal->silentLog = !verbose;
    std::vector<std::string> args(command.begin() + 1, command.end());
    host->process->startProcess(*program, args, childEnvironment(options.termName), command.front());
    if (host->process->shellPid() == 0) {
        std::fprintf(stderr, "ostrel-term: could not start %s\n", program->c_str());
        return 126;
    }

    // Ctrl-C, a termination request or the time limit end the program; the screen is still printed.
    bool interrupted = false;
    asio::signal_set signals(loop, SIGINT, SIGTERM, SIGHUP);
    signals.async_wait([&](const std::error_code& error, int) {
        if (error) return;
        interrupted = true;
        host->process->terminate();
    });
    asio::steady_timer limit(loop);
    if (timeoutSeconds > 0) {
        limit.expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(timeoutSeconds)));
        limit.async_wait([&](const std::error_code& error) {
            if (error) return;
            interrupted = true;
            host->process->terminate();
        });
    }

    while (!ended && !interrupted)
        loop.run_one();
    // The exit report can come before the last output is read: wait for the end of file (or a
    // short grace, when a grandchild keeps the terminal open), then let the queued chunks drain.
    auto grace = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!interrupted && !host->process->outputFinished() && std::chrono::steady_clock::now() < grace)
        loop.run_one_for(std::chrono::milliseconds(10));
    loop.poll();
    signals.cancel();
    limit.cancel();
    loop.poll();

    printScreen(*host->terminal, json, scrollback);
    DispatchQueue::clearMain();
    return interrupted && !exitStatus ? 124 : exitStatusOf(exitStatus);
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Runs a program inside a headless terminal and prints the final screen", "ostrel-term"};
    int cols = 80, rows = 25;
    bool json = false, scrollback = false, verbose = false;
    std::string replayPath;
    std::vector<std::string> command;
    app.add_option("--cols", cols, "Columns of the terminal")
        ->check(CLI::Range(2, 1000))
        ->capture_default_str();
    app.add_option("--rows", rows, "Rows of the terminal")->check(CLI::Range(1, 1000))->capture_default_str();
    app.add_flag("--json", json, "Print rows of cells with attributes and colours, plus cursor and modes");
    app.add_flag("--scrollback", scrollback, "Print the lines above the screen too");
    app.add_flag("--verbose", verbose, "Log unknown sequences to standard error");
    double timeoutSeconds = 0;
    app.add_option("--replay", replayPath,
                   "Feed a recorded byte stream into the engine instead of running a program");
    app.add_option("--timeout", timeoutSeconds,
                   "Seconds after which the program is terminated and the screen printed");
    app.add_option("command", command, "PROGRAM ARGS (after --)");
    app.footer(
        "The exit status is the program's own (128 + signal when it was killed, 124 after --timeout).");
    CLI11_PARSE(app, argc, argv);

    TerminalOptions options;
    options.cols = cols;
    options.rows = rows;
    if (!replayPath.empty()) return replay(replayPath, options, json, scrollback, verbose);
    if (command.empty()) {
        std::cerr << app.help();
        return 2;
    }
    return run(command, options, json, scrollback, verbose, timeoutSeconds);
}
