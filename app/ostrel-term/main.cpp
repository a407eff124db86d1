// ostrel-term: runs a program inside a headless terminal, optionally typing into it, and prints the
// final screen, or replays a recorded byte stream through the engine. How the engine is debugged
// and tested end to end.
#include "TerminalEngine/Pty/HeadlessTerminal.h"
#include "TerminalEngine/Terminal/ScreenSnapshot.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <optional>
#include <span>
#include <string>
#include <string_view>
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
// Input waits for the program's output to pause this long, and never longer than the limit after
// the previous piece, so that a program that keeps printing still gets it.
constexpr auto inputMaximumWait = std::chrono::seconds(2);

// The text of --input with its escapes (\e \r \n \t \a \b \\ \xHH) turned into bytes.
std::optional<std::string> unescapeInput(std::string_view text, std::string& error) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out.push_back(text[i]);
            continue;
        }
        if (++i >= text.size()) {
            error = "a backslash ends the text";
            return std::nullopt;
        }
        switch (text[i]) {
        case 'e':
        case 'E': out.push_back('\x1b'); break;
        case 'r': out.push_back('\r'); break;
        case 'n': out.push_back('\n'); break;
        case 't': out.push_back('\t'); break;
        case 'a': out.push_back('\a'); break;
        case 'b': out.push_back('\b'); break;
        case '\\': out.push_back('\\'); break;
        case 'x': {
            auto hex = [](char c) {
                return c >= '0' && c <= '9'   ? c - '0'
                       : c >= 'a' && c <= 'f' ? c - 'a' + 10
                       : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                              : -1;
            };
            if (i + 2 >= text.size() || hex(text[i + 1]) < 0 || hex(text[i + 2]) < 0) {
                error = "\\x needs two hexadecimal digits";
                return std::nullopt;
            }
            out.push_back(static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2])));
            i += 2;
            break;
        }
        default: error = std::string("unknown escape \\") + text[i]; return std::nullopt;
        }
    }
    return out;
}

// Types the pieces of --input into the program one by one, each once its output has been quiet
// for the settle time (or the first right away if it prints nothing at all).
class InputFeeder {
public:
    InputFeeder(asio::io_context& loop, HeadlessTerminal& host, std::vector<std::string> pieces,
                std::chrono::milliseconds settle)
        : timer_(loop)
        , host_(host)
        , pieces_(std::move(pieces))
        , settle_(settle) {}

    void start() {
        lastPiece_ = std::chrono::steady_clock::now();
        arm();
    }
    void outputArrived() {
        if (next_ < pieces_.size()) arm();
    }
    bool done() const { return next_ >= pieces_.size(); }

private:
    void arm() {
        auto now = std::chrono::steady_clock::now();
        timer_.expires_at(std::min(now + settle_, lastPiece_ + inputMaximumWait));
        timer_.async_wait([this](const std::error_code& error) {
            if (error || done()) return;
            host_.send(pieces_[next_++]);
            lastPiece_ = std::chrono::steady_clock::now();
            if (!done()) arm();
        });
    }

    asio::steady_timer timer_;
    HeadlessTerminal& host_;
    std::vector<std::string> pieces_;
    std::chrono::milliseconds settle_;
    std::size_t next_ = 0;
    std::chrono::steady_clock::time_point lastPiece_;
};

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
        bool verbose, double timeoutSeconds, std::vector<std::string> input, int inputDelayMs) {
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
    InputFeeder feeder(loop, *host, std::move(input), std::chrono::milliseconds(inputDelayMs));
    host->onOutput = [&](std::span<const std::uint8_t>) { feeder.outputArrived(); };
    std::vector<std::string> args(command.begin() + 1, command.end());
    host->process->startProcess(*program, args, childEnvironment(options.termName), command.front());
    if (host->process->shellPid() == 0) {
        std::fprintf(stderr, "ostrel-term: could not start %s\n", program->c_str());
        return 126;
    }

    feeder.start();

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
    host->onOutput = nullptr;

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
    std::vector<std::string> inputs;
    int inputDelayMs = 100;
    app.add_option(
           "--input", inputs,
           "Text typed into the program once its output settles, with escapes \\e \\r \\n \\t "
           "\\a \\b \\\\ \\xHH; repeat it to type several pieces, each after the output settles again")
        ->allow_extra_args(false);
    app.add_option("--input-delay", inputDelayMs, "Milliseconds of quiet output before each piece of --input")
        ->check(CLI::Range(0, 60000))
        ->capture_default_str();
    app.add_option("command", command, "PROGRAM ARGS (after --)");
    app.footer(
        "The exit status is the program's own (128 + signal when it was killed, 124 after --timeout).");
    CLI11_PARSE(app, argc, argv);

    TerminalOptions options;
    options.cols = cols;
    options.rows = rows;
    std::vector<std::string> pieces;
    for (const std::string& text : inputs) {
        std::string error;
        auto bytes = unescapeInput(text, error);
        if (!bytes) {
            std::fprintf(stderr, "ostrel-term: --input %s: %s\n", text.c_str(), error.c_str());
            return 2;
        }
        pieces.push_back(std::move(*bytes));
    }
    if (!replayPath.empty()) return replay(replayPath, options, json, scrollback, verbose);
    if (command.empty()) {
        std::cerr << app.help();
        return 2;
    }
    return run(command, options, json, scrollback, verbose, timeoutSeconds, std::move(pieces), inputDelayMs);
}
