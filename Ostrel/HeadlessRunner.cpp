// Headless run: command-line requests to store operations, status lines on stdout, quit on signals.
#include "Ostrel/HeadlessRunner.h"

#include "Ostrel/Localization.h"
#include "Ostrel/Notifier.h"
#include "Ostrel/Paths.h"
#include "Ostrel/Settings.h"
#include "OstrelCore/Text.h"
#include "TerminalEngine/Pty/DispatchQueue.h"

#include <csignal>
#include <ctime>
#include <filesystem>
#include <functional>

#include <asio/executor_work_guard.hpp>
#include <asio/signal_set.hpp>
#include <fmt/format.h>

namespace Ostrel {
namespace {

namespace Text = OstrelCore::Text;

std::string kindList() {
    std::string list;
    for (SessionKind kind : OstrelCore::allSessionKinds) {
        if (!list.empty()) list += ", ";
        list += OstrelCore::rawValue(kind);
    }
    return list;
}

// One line per field: controls and white space runs become single blanks.
std::string fieldText(std::string_view text) {
    std::string clean;
    clean.reserve(text.size());
    const std::string valid = Text::sanitizeUtf8(text);
    std::size_t pos = 0;
    bool blank = false;
    while (pos < valid.size()) {
        const std::size_t start = pos;
        const char32_t c = Text::decode(valid, pos);
        if (c < 0x20 || c == 0x7F || (c >= 0x80 && c < 0xA0) || Text::isWhitespace(c)) {
            blank = !clean.empty();
            continue;
        }
        if (blank) clean += ' ';
        blank = false;
        clean.append(valid, start, pos - start);
    }
    return clean.empty() ? "-" : clean;
}

} // namespace

std::variant<HeadlessRunner::Start, std::string> HeadlessRunner::parseStart(std::string_view text) {
    const auto colon = text.find(':');
    const std::string_view kindText = text.substr(0, colon);
    const auto kind = OstrelCore::sessionKind(kindText);
    if (!kind) return Localization::format("cli.unknownKind", std::string(kindText), kindList());
    Start start{*kind, std::nullopt};
    if (colon != std::string_view::npos && !Text::trim(text.substr(colon + 1)).empty())
        start.command = std::string(text.substr(colon + 1));
    if (start.kind == SessionKind::shell && start.command)
        return Localization::format("cli.shellTakesNoCommand", *start.command);
    return start;
}

std::variant<std::string, std::string> HeadlessRunner::resolveProjectFolder(std::string_view path) {
    std::error_code error;
    const auto resolved = std::filesystem::canonical(std::filesystem::path(path), error);
    if (error || !std::filesystem::is_directory(resolved, error))
        return std::variant<std::string, std::string>(
            std::in_place_index<1>, Localization::format("cli.noSuchFolder", std::string(path)));
    return std::variant<std::string, std::string>(std::in_place_index<0>, resolved.string());
}

std::string HeadlessRunner::statusText(const SessionStatus& status) {
    if (status.status == SessionStatus::Case::failed) return fmt::format("failed({})", status.code);
    return std::string(status.name());
}

HeadlessRunner::Facts HeadlessRunner::Facts::of(const SessionController& session) {
    Facts facts{session.status(), session.modelName(), std::nullopt, session.pendingRequest(), std::nullopt};
    const std::int64_t usable = session.usableContext();
    if (session.contextUsed() && usable > 0) {
        // Rounded to whole percents: finer steps would print a line at every turn.
        facts.contextPercent = (*session.contextUsed() * 100 + usable / 2) / usable;
    }
    // The planned automatic resume after a rate limit, once the limit reader schedules one.
    facts.resumesAt = session.resumesAt();
    return facts;
}

std::string HeadlessRunner::statusLine(std::chrono::system_clock::time_point at, std::string_view project,
                                       std::string_view title, const Facts& facts) {
    const auto localTime = [](std::chrono::system_clock::time_point when) {
        const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
        std::tm local{};
        ::localtime_r(&seconds, &local);
        char text[32];
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
        return std::string(text);
    };
    std::string line = fmt::format("{}  {}  {}  {}", localTime(at), fieldText(project), fieldText(title),
                                   statusText(facts.status));
    if (facts.model) line += "  model=" + fieldText(*facts.model);
    if (facts.contextPercent) line += fmt::format("  context={}%", *facts.contextPercent);
    if (facts.pendingRequest) {
        const auto& request = *facts.pendingRequest;
        line += "  request=" + fieldText(request.detail.empty() ? request.toolName
                                                                : request.toolName + ": " + request.detail);
    }
    if (facts.resumesAt) line += "  resumes=" + localTime(*facts.resumesAt);
    return line;
}

HeadlessRunner::HeadlessRunner(asio::io_context& loop, AppStore& store, std::FILE* out)
    : loop_(loop)
    , store_(store)
    , out_(out) {
    store_.onChange = [this] { report(); };
    store_.onQuitReply = [this](bool confirmed) {
        if (confirmed) finish();
    };
}

void HeadlessRunner::start(const std::vector<ProjectRequest>& requests) {
    for (const ProjectRequest& request : requests) {
        const Project project = store_.addProject(request.path);
        for (const Start& start : request.starts) {
            auto session = store_.startSession(start.kind, project.id, AppStore::StartOptions{start.command});
            if (session && start.prompt)
                prompts_.push_back({session, *start.prompt, 0, std::chrono::steady_clock::now()});
        }
    }
    report();
    if (!prompts_.empty())
        promptTimer_ = MainTimer::repeating(std::chrono::milliseconds(100), [this] { typePrompts(); });
}

void HeadlessRunner::typePrompts() {
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(prompts_, [&](PendingPrompt& pending) {
        auto session = pending.session.lock();
        if (!session || session->hasExited()) return true;
        const std::uint64_t bytes = session->terminalView().receivedBytes();
        if (bytes != pending.seenBytes) {
            pending.seenBytes = bytes;
            pending.quietSince = now;
            return false;
        }
        if (bytes == 0 || now - pending.quietSince < promptSettle) return false;
        // Typed as the person would: it counts as their input.
        session->send(pending.text);
        session->send("\r");
        return true;
    });
    if (prompts_.empty()) promptTimer_.reset();
}

void HeadlessRunner::report() {
    if (finished_) return;
    for (const auto& session : store_.sessions()) {
        Facts facts = Facts::of(*session);
        auto [known, added] = printed_.try_emplace(session->id(), facts);
        if (!added && known->second == facts) continue;
        known->second = facts;
        const auto project = store_.projectOf(*session);
        const std::string line = statusLine(std::chrono::system_clock::now(), project ? project->name : "",
                                            session->displayTitle(), facts);
        std::fprintf(out_, "%s\n", line.c_str());
    }
    // Readers follow the lines as they come, usually through a pipe.
    std::fflush(out_);
}

void HeadlessRunner::quit() {
    switch (store_.applicationShouldTerminate()) {
    case AppStore::TerminateReply::now: finish(); return;
    // Without a view there is nobody to ask: the signal is the person's answer.
    case AppStore::TerminateReply::later: store_.resolveQuit(true); return;
    case AppStore::TerminateReply::cancel: return;
    }
}

void HeadlessRunner::finish() {
    if (finished_) return;
    report();
    finished_ = true;
    promptTimer_.reset();
    store_.shutdown();
    loop_.stop();
}

int HeadlessRunner::run(const std::vector<ProjectRequest>& requests, std::FILE* out, std::FILE* errors) {
    // The loop outlives everything that may still post to it at exit (the worker pool finishing a
    // login environment capture): it is never destroyed.
    static asio::io_context& loop = *new asio::io_context();
    TerminalEngine::DispatchQueue::setMain(loop);

    // Without it the loop would return as soon as it runs out of queued work, for instance between
    // a shell's last output and the next one posted from its read thread. finish() stops the loop.
    auto keepAlive = asio::make_work_guard(loop);
    // Caught before any session starts, so that a signal during start-up quits cleanly too.
    asio::signal_set signals(loop, SIGINT, SIGTERM, SIGHUP);

    AppStore::moveFormerDataFolder();
    AppStore store(Paths::dataFolder() + "/state.json", Settings::shared());
    store.setPaneArea(paneArea);
    // Nobody sits in front of a headless workspace: every session's attention counts as unseen,
    // whatever is selected.
    store.hooks.applicationFocused = [] { return false; };
    // Without a view the desktop's notifications are how a session in the background reaches the
    // person; with no session bus nothing is sent.
    Notifier& notifier = Notifier::shared();
    notifier.onUsageEvent = [&store](std::string_view event) { store.usageEvents().send(event); };
    store.setNotifications(&notifier);
    HeadlessRunner runner(loop, store, out);
    // Every signal is a quit request; one that a quit already under way cancels leaves the next
    // signal caught as well.
    std::function<void()> awaitSignal = [&] {
        signals.async_wait([&](const asio::error_code& error, int) {
            if (error) return;
            runner.quit();
            awaitSignal();
        });
    };
    awaitSignal();

    store.launch();
    runner.start(requests);
    std::fprintf(errors, "%s\n", Localization::format("headless.started", store.sessions().size()).c_str());
    std::fflush(errors);

    loop.run();
    signals.cancel();
    store.setNotifications(nullptr);
    notifier.onUsageEvent = nullptr;
    return 0;
}

} // namespace Ostrel
