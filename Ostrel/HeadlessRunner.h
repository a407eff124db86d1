// The workspace without a view: loads the state, restores and starts sessions, prints one line per
// change of a session's status or agent facts, and quits on SIGINT, SIGTERM or SIGHUP the way the application
// quits.
#pragma once

#include "Ostrel/AppStore.h"
#include "OstrelCore/SessionKind.h"

#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <asio/io_context.hpp>

namespace Ostrel {

class HeadlessRunner {
public:
    // "KIND" or "KIND:COMMAND", as --start takes it.
    struct Start {
        SessionKind kind = SessionKind::shell;
        std::optional<std::string> command;
        // Typed into the session, with a carriage return, once its screen has settled.
        std::optional<std::string> prompt;

        bool operator==(const Start&) const = default;
    };
    struct ProjectRequest {
        std::string path;
        std::vector<Start> starts;

        bool operator==(const ProjectRequest&) const = default;
    };

    // Without a view, panes are laid out in an area of this size, so that a few sessions of one
    // project get panes of their own as they would in a window.
    static constexpr OstrelCore::PaneSize paneArea{1600.0, 1000.0};
    // A prompt from the command line is typed once the session drew something and then stayed
    // quiet this long: an agent that is still starting would lose what it is typed.
    static constexpr std::chrono::milliseconds promptSettle{600};

    // A user-facing error (localised) or the parsed start.
    static std::variant<Start, std::string> parseStart(std::string_view text);
    // An existing folder as an absolute path without symbolic links, or the error to show.
    static std::variant<std::string, std::string> resolveProjectFolder(std::string_view path);

    // What a status line tells of a session; a line is printed whenever any of it changes.
    struct Facts {
        SessionStatus status;
        std::optional<std::string> model;
        std::optional<std::int64_t> contextPercent; // of the context the agent can fill
        std::optional<OstrelCore::ApprovalPolicy::Request> pendingRequest;
        std::optional<std::chrono::system_clock::time_point> resumesAt; // planned automatic resume

        static Facts of(const SessionController& session);
        bool operator==(const Facts&) const = default;
    };

    // "ready", "working", "waiting", "idle", "done", "failed(CODE)".
    static std::string statusText(const SessionStatus& status);
    // TIME␣␣PROJECT␣␣TITLE␣␣STATUS, then the known facts among model=NAME, context=N%,
    // request=TOOL: TARGET and resumes=TIME: local time as 2026-11-22T21:05:03, fields apart by
    // two blanks. Runs of white space and control characters in names become one blank, so that
    // two blanks never occur inside a field.
    static std::string statusLine(std::chrono::system_clock::time_point at, std::string_view project,
                                  std::string_view title, const Facts& facts);

    HeadlessRunner(asio::io_context& loop, AppStore& store, std::FILE* out);

    // Adds the projects and starts their sessions, in the order asked for.
    void start(const std::vector<ProjectRequest>& requests);
    // Prints a line for every session whose facts differ from the ones printed last.
    void report();
    // The quit flow: save while sessions are alive, end them, stop the loop.
    void quit();

    // The whole process: the former data folder is moved, the store of the current user is
    // loaded, signals are caught, and the loop runs until a quit. Returns the exit code.
    static int run(const std::vector<ProjectRequest>& requests, std::FILE* out, std::FILE* errors);

private:
    void finish();
    void typePrompts();

    struct PendingPrompt {
        std::weak_ptr<SessionController> session;
        std::string text;
        std::uint64_t seenBytes = 0;
        std::chrono::steady_clock::time_point quietSince;
    };

    asio::io_context& loop_;
    AppStore& store_;
    std::FILE* out_;
    std::map<UUID, Facts> printed_;
    bool finished_ = false;
    std::vector<PendingPrompt> prompts_;
    std::unique_ptr<MainTimer> promptTimer_;
};

} // namespace Ostrel
