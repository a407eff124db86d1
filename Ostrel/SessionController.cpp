// Session controller: process start, agent defaults from the agents' own configuration, the
// status rules driven by output, bells, typing, silence and exit, and the signals read from output.
#include "Ostrel/SessionController.h"

#include "Ostrel/Localization.h"
#include "Ostrel/LoginEnv.h"
#include "Ostrel/LoginShell.h"
#include "Ostrel/Paths.h"
#include "Ostrel/WorkerPool.h"
#include "OstrelCore/AgentStatusRule.h"
#include "OstrelCore/ClaudeModelSwitch.h"
#include "OstrelCore/CodexSignals.h"
#include "OstrelCore/CodexTranscript.h"
#include "OstrelCore/ContextWindowBudget.h"
#include "OstrelCore/JSONRead.h"
#include "OstrelCore/ResumeCommand.h"
#include "OstrelCore/TabTitle.h"
#include "OstrelCore/Text.h"
#include "TerminalEngine/Pty/DispatchQueue.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

namespace Ostrel {
namespace {

namespace Text = OstrelCore::Text;
namespace JSONRead = OstrelCore::JSONRead;
namespace ResumeCommand = OstrelCore::ResumeCommand;
using OstrelCore::AgentPhase;
using Json = nlohmann::json;

// A transcript that still names the model the user switched away from is believed again only
// after this long; a permission mode read this soon after a switch is the old one.
constexpr double modelSwitchSettling = 120.0;
constexpr double permissionSwitchSettling = 10.0;

// Tried in this order; the first port of 1024 or more wins. Lower ports are the system's, not a
// development server's.
constexpr const char* portPatterns[] = {R"(localhost:([0-9]{2,5}))", R"(127\.0\.0\.1:([0-9]{2,5}))",
                                        R"(0\.0\.0\.0:([0-9]{2,5}))"};
constexpr int lowestServerPort = 1024;
constexpr int highestPort = 65535;

std::string_view nameOf(std::string_view entry) {
    const auto equals = entry.find('=');
    return equals == std::string_view::npos ? std::string_view{} : entry.substr(0, equals);
}

std::optional<Json> readObject(const std::string& path) {
    auto text = Paths::readFile(path, 4u << 20);
    return text ? JSONRead::parseObject(*text) : std::nullopt;
}

bool claudeHasStatusLine(const std::string& home) {
    auto settings = readObject(home + "/.claude/settings.json");
    return settings && settings->contains("statusLine");
}

// One key of a TOML file by a line scan: the first line whose text before "=" is the key. Enough
// for the top-level keys read here, and never an error on a file a parser would refuse.
std::optional<std::string> tomlValue(std::string_view text, std::string_view key) {
    for (std::string_view line : Text::split(text, '\n')) {
        line = Text::trim(line);
        const auto equals = line.find('=');
        if (equals == std::string_view::npos || Text::trim(line.substr(0, equals)) != key) continue;
        std::string_view value = Text::trim(line.substr(equals + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        return std::string(value);
    }
    return std::nullopt;
}

// The model the cache marks as the default, if any.
std::optional<std::string> defaultCodexModel(std::string_view cache) {
    auto document = JSONRead::parseObject(cache);
    if (!document) return std::nullopt;
    const Json* models = JSONRead::array(*document, "models");
    if (models == nullptr) return std::nullopt;
    for (const Json& model : *models) {
        const std::string* slug = JSONRead::text(model, "slug");
        if (slug != nullptr && JSONRead::isTrue(model, "is_default")) return *slug;
    }
    return std::nullopt;
}

struct FreeCode {
    void operator()(pcre2_code* code) const { pcre2_code_free(code); }
};
using CompiledPattern = std::unique_ptr<pcre2_code, FreeCode>;

const std::vector<CompiledPattern>& compiledPortPatterns() {
    static const std::vector<CompiledPattern> patterns = [] {
        std::vector<CompiledPattern> compiled;
        for (const char* pattern : portPatterns) {
            int error = 0;
            PCRE2_SIZE offset = 0;
            CompiledPattern code(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED,
                                               0, &error, &offset, nullptr));
            // A pattern that doesn't compile is left out rather than failing the session.
            if (code) compiled.push_back(std::move(code));
        }
        return compiled;
    }();
    return patterns;
}

std::optional<int> serverPort(std::string_view text) {
    for (const CompiledPattern& compiled : compiledPortPatterns()) {
        pcre2_code* pattern = compiled.get();
        std::unique_ptr<pcre2_match_data, decltype(&pcre2_match_data_free)> match(
            pcre2_match_data_create_from_pattern(pattern, nullptr), pcre2_match_data_free);
        if (!match) continue;
        const int found = pcre2_match(pattern, reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), 0, 0,
                                      match.get(), nullptr);
        if (found < 2) continue;
        const PCRE2_SIZE* range = pcre2_get_ovector_pointer(match.get());
        const auto port = Text::parseInteger(text.substr(range[2], range[3] - range[2]));
        if (port && *port >= lowestServerPort && *port <= highestPort) return static_cast<int>(*port);
    }
    return std::nullopt;
}

// "file://host/path%20x" gives "/path x"; text that isn't a URL stays as it is.
std::string pathOfLocation(std::string_view location) {
    const auto scheme = location.find("://");
    if (scheme == std::string_view::npos) return std::string(location);
    const auto slash = location.find('/', scheme + 3);
    if (slash == std::string_view::npos) return "/";
    std::string_view encoded = location.substr(slash);
    std::string path;
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        const auto hex = [](char c) -> int {
            if (c >= '0' && c <= '9') return c - '0';
            if (c >= 'a' && c <= 'f') return c - 'a' + 10;
            if (c >= 'A' && c <= 'F') return c - 'A' + 10;
            return -1;
        };
        if (encoded[i] == '%' && i + 2 < encoded.size() && hex(encoded[i + 1]) >= 0 &&
            hex(encoded[i + 2]) >= 0) {
            path += static_cast<char>(hex(encoded[i + 1]) * 16 + hex(encoded[i + 2]));
            i += 2;
        } else {
            path += encoded[i];
        }
    }
    return path;
}

std::string abbreviatingHome(std::string path, const std::string& home) {
    if (home.empty() || home == "/") return path;
    if (path == home) return "~";
    if (Text::startsWith(path, home) && path.size() > home.size() && path[home.size()] == '/')
        return "~" + path.substr(home.size());
    return path;
}

} // namespace

// MARK: Creation and process start

SessionController::SessionController(Passkey, UUID projectID, std::string cwd, SessionKind kind,
                                     std::optional<std::string> command, std::string title, Options options)
    : projectID_(projectID)
    , kind_(kind)
    , command_(std::move(command))
    , cwd_(std::move(cwd))
    , options_(std::move(options))
    , timing_(options_.timing)
    , startedAt_(now())
    , userTitle_(std::move(title))
    , lastOutputAt_(startedAt_) {}

SessionController::~SessionController() = default;

std::shared_ptr<SessionController> SessionController::create(UUID projectID, std::string cwd,
                                                             SessionKind kind,
                                                             std::optional<std::string> command,
                                                             std::string title, Options options) {
    auto controller = std::make_shared<SessionController>(
        Passkey{}, projectID, std::move(cwd), kind, std::move(command), std::move(title), std::move(options));
    controller->start();
    return controller;
}

SessionController::TimePoint SessionController::now() const {
    return options_.clock ? options_.clock() : std::chrono::system_clock::now();
}

double SessionController::secondsSince(TimePoint then) const {
    if (then == TimePoint::min()) return std::numeric_limits<double>::infinity();
    return std::chrono::duration<double>(now() - then).count();
}

SessionController::Launch SessionController::composeLaunch(SessionKind kind,
                                                           const std::optional<std::string>& command,
                                                           const std::string& shell,
                                                           const std::string& home) {
    Launch launch;
    launch.executable = shell;
    std::vector<std::string> env = TerminalEngine::Terminal::getEnvironmentVariables("xterm-256color", true);
    env.emplace_back("LANG=en_US.UTF-8");
    if (kind == SessionKind::shell) {
        launch.arguments = {"-l"};
    } else {
        std::string cmd;
        if (command)
            cmd = *command;
        else if (auto fallback = OstrelCore::defaultCommand(kind))
            cmd = std::string(*fallback);
        else
            cmd = "exec " + ResumeCommand::shellQuoted(shell) + " -l";
        if (kind == SessionKind::claude && (!command || Text::startsWith(*command, "claude")) &&
            claudeHasStatusLine(home))
            cmd += quietStatusLine;
        if (auto merged = LoginEnv::merged(env)) {
            env = std::move(*merged);
            launch.arguments = {"-c", cmd};
        } else {
            // The login environment isn't captured yet: the shell builds it itself.
            launch.arguments = {"-l", "-i", "-c", cmd};
        }
    }
    std::erase_if(env, [](const std::string& entry) {
        const auto name = nameOf(entry);
        return !name.empty() && std::find(std::begin(removedVariables), std::end(removedVariables), name) !=
                                    std::end(removedVariables);
    });
    if (kind == SessionKind::claude) env.emplace_back("CLAUDE_CODE_HIDE_SETTINGS_HINT=1");
    launch.environment = std::move(env);
    return launch;
}

void SessionController::start() {
    if (OstrelCore::isAgent(kind_)) status_ = SessionStatus::ready();
    if (command_) resumeID_ = ResumeCommand::resumeID(kind_, *command_);

    TerminalEngine::TerminalOptions terminalOptions;
    terminalOptions.cols = std::max(options_.columns, TerminalEngine::Terminal::MINIMUM_COLS);
    terminalOptions.rows = std::max(options_.rows, TerminalEngine::Terminal::MINIMUM_ROWS);
    terminalView_ = SessionTerminalView::create(terminalOptions);
    installViewCallbacks();

    const std::string home = options_.home.value_or(Paths::home());
    launch_ = composeLaunch(kind_, command_, options_.shell.value_or(LoginShell::path()), home);
    terminalView_->startProcess(launch_.executable, launch_.arguments, launch_.environment, cwd_);

    if (!OstrelCore::isAgent(kind_)) return;
    std::weak_ptr<SessionController> weak = weak_from_this();
    statusTimer_ = MainTimer::repeating(timing_.statusPeriod, [weak] {
        if (auto self = weak.lock()) self->statusTick();
    });
    TelemetryEnvironment environment = options_.telemetryEnvironment.value_or(TelemetryEnvironment::system());
    if (!options_.telemetryEnvironment && options_.home) environment.home = *options_.home;
    telemetry_.emplace(kind_, cwd_, startedAt_, resumeID_, std::move(environment));
    telemetryTimer_ = MainTimer::repeating(timing_.telemetryPeriod, [weak] {
        if (auto self = weak.lock()) self->telemetryTick();
    });
    loadAgentDefaults();
}

void SessionController::installViewCallbacks() {
    std::weak_ptr<SessionController> weak = weak_from_this();
    auto& view = *terminalView_;
    view.onActivity = [weak] {
        if (auto self = weak.lock()) self->outputSeen();
    };
    view.onBell = [weak] {
        if (auto self = weak.lock()) self->bellRang();
    };
    view.onUserInput = [weak] {
        if (auto self = weak.lock()) self->userTyped();
    };
    view.onTitle = [weak](const std::string& title) {
        if (auto self = weak.lock()) self->titleChanged(title);
    };
    view.onDirectory = [weak](const std::string& location) {
        if (auto self = weak.lock()) self->directoryChanged(location);
    };
    view.onExit = [weak](std::optional<std::int32_t> status) {
        if (auto self = weak.lock()) self->processExited(status);
    };
    // A shell prints addresses of every kind in passing; only services and agents start servers
    // worth showing.
    if (kind_ != SessionKind::shell)
        view.onPortCandidate = [weak](std::string_view text) {
            if (auto self = weak.lock()) self->portCandidate(text);
        };
    if (OstrelCore::isAgent(kind_))
        view.onLimitCandidate = [weak](std::string_view text) {
            if (auto self = weak.lock()) self->limitCandidate(text);
        };
    if (kind_ == SessionKind::claude)
        view.onModelCandidate = [weak](std::string_view text) {
            if (auto self = weak.lock()) self->modelCandidate(text);
        };
}

void SessionController::loadAgentDefaults() {
    const std::string home = options_.home.value_or(Paths::home());
    if (kind_ == SessionKind::codex) {
        const auto cache = Paths::readFile(home + "/.codex/models_cache.json", 16u << 20);
        if (cache) codexCatalog_ = OstrelCore::CodexPicker::parse(*cache);
        const auto config = Paths::readFile(home + "/.codex/config.toml", 4u << 20);
        modelName_ = config ? tomlValue(*config, "model") : std::nullopt;
        if (!modelName_ && cache) modelName_ = defaultCodexModel(*cache);
        effortLevel_ = config ? tomlValue(*config, "model_reasoning_effort") : std::nullopt;
        if (!effortLevel_ && modelName_) {
            for (const auto& row : codexCatalog_)
                if (row.slug == *modelName_) {
                    effortLevel_ = row.defaultEffort;
                    break;
                }
        }
        if (!effortLevel_) effortLevel_ = "medium";
    } else if (kind_ == SessionKind::claude) {
        // Most specific first: the folder's local settings, the folder's shared ones, the user's.
        std::vector<Json> settings;
        for (const std::string& path : {cwd_ + "/.claude/settings.local.json",
                                        cwd_ + "/.claude/settings.json", home + "/.claude/settings.json"})
            if (auto object = readObject(path)) settings.push_back(std::move(*object));
        const auto first = [&](auto read) -> std::optional<std::string> {
            for (const Json& object : settings)
                if (const std::string* value = read(object)) return *value;
            return std::nullopt;
        };
        modelName_ = first([](const Json& o) { return JSONRead::text(o, "model"); });
        effortLevel_ = first([](const Json& o) { return JSONRead::text(o, "effortLevel"); });
        if (!effortLevel_) effortLevel_ = first([](const Json& o) { return JSONRead::text(o, "effort"); });
        if (!effortLevel_) effortLevel_ = "high";
        permissionMode_ = first([](const Json& o) -> const std::string* {
            const Json* permissions = JSONRead::object(o, "permissions");
            return permissions ? JSONRead::text(*permissions, "defaultMode") : nullptr;
        });
        if (!permissionMode_ || *permissionMode_ == "manual") permissionMode_ = "default";
        bypassInCycle_ = *permissionMode_ == "bypassPermissions";
    }
}

// MARK: Titles and context

std::string SessionController::displayTitle() const {
    if (!userTitle_.empty()) return userTitle_;
    if (!autoTitle_.empty()) return autoTitle_;
    const auto name = OstrelCore::displayNameOrKey(kind_);
    return OstrelCore::isAgent(kind_) ? std::string(name) : std::string(Localization::text(name));
}

std::int64_t SessionController::usableContext() const {
    namespace Budget = OstrelCore::ContextWindowBudget;
    // The catalogue of model windows comes with the agent configuration service; until it is
    // there, the model's name decides.
    static const Budget::ModelWindows noCatalogue;
    const std::int64_t window =
        reportedContextWindow_.value_or(Budget::windowForModel(modelName_, noCatalogue));
    if (window <= 0) return 0;
    return kind_ == SessionKind::claude ? Budget::usableLimit(window, Budget::Provider::claude) : window;
}

void SessionController::setUserTitle(std::string title) {
    if (title == userTitle_) return;
    userTitle_ = std::move(title);
    changed();
}

void SessionController::changed() {
    if (onChange) onChange();
}

// MARK: Status rules

void SessionController::setStatus(SessionStatus next) {
    if (next == status_) return;
    const SessionStatus old = status_;
    status_ = next;
    if (next == SessionStatus::waiting()) {
        approvalAskedAt_ = now();
        approvalAnswered_ = false;
    } else {
        approvalAskedAt_.reset();
        pendingRequest_.reset();
    }
    // Attention is for a turn that ended while the person had handed work over; a session that
    // was never typed into, or one settling to ready, asks for none.
    if (old == SessionStatus::working() && next != SessionStatus::ready() && userHasInteracted_ &&
        !needsAttention_) {
        needsAttention_ = true;
        if (onAttention) onAttention(*this);
    }
    changed();
}

void SessionController::outputSeen() {
    lastOutputAt_ = now();
    if (hasExited_) return;
    const auto current = status_.status;
    const bool settled = current == SessionStatus::Case::idle || current == SessionStatus::Case::waiting ||
                         current == SessionStatus::Case::ready;
    // A spinner or a redraw doesn't wake a settled session; output that answers typing does.
    if (settled && secondsSince(lastRealInputAt_) > timing_.inputWakeWindow) return;
    const SessionStatus target =
        OstrelCore::isAgent(kind_) && !userHasInteracted_ ? SessionStatus::ready() : SessionStatus::working();
    if (target == status_) return;
    status_ = target;
    changed();
}

void SessionController::bellRang() {
    if (hasExited_) return;
    setStatus(OstrelCore::isAgent(kind_) && !userHasInteracted_ ? SessionStatus::ready()
                                                                : SessionStatus::waiting());
}

void SessionController::userTyped() {
    lastRealInputAt_ = now();
    bool dirty = false;
    if (status_ == SessionStatus::waiting() && !approvalAnswered_) {
        approvalAnswered_ = true;
        dirty = pendingRequest_.has_value();
        pendingRequest_.reset();
        if (onWaitAnswered) onWaitAnswered();
    }
    if (!userHasInteracted_) {
        userHasInteracted_ = true;
        if (status_ == SessionStatus::ready()) {
            status_ = SessionStatus::working();
            dirty = true;
        }
    }
    if (dirty) changed();
}

void SessionController::statusTick() {
    if (hasExited_) return;
    if (secondsSince(lastOutputAt_) <= timing_.agentSilenceThreshold) return;
    SessionStatus target = SessionStatus::ready();
    if (userHasInteracted_) {
        switch (OstrelCore::AgentStatusRule::verdict(agentPhase_)) {
        case OstrelCore::SilenceVerdict::needsUser: target = SessionStatus::waiting(); break;
        case OstrelCore::SilenceVerdict::finished: target = SessionStatus::idle(); break;
        case OstrelCore::SilenceVerdict::unknown: target = SessionStatus::ready(); break;
        }
    }
    setStatus(target);
}

void SessionController::telemetryTick() {
    if (hasExited_) return;
    if (options_.quotaRefresh) options_.quotaRefresh();
    if (options_.injectedReading) {
        // A copy: the hook may shut this session down.
        auto read = options_.injectedReading;
        if (auto reading = read(*this)) applyReading(*reading);
        return;
    }
    // One copy out at a time: two copies polling at once could each claim a file.
    if (!telemetry_ || pollInFlight_ || telemetryReleased_ || !TerminalEngine::DispatchQueue::hasMain())
        return;
    pollInFlight_ = true;
    WorkerPool::run(
        [copy = *telemetry_, weak = weak_from_this(), mainQueue = TerminalEngine::DispatchQueue::main()] {
            TelemetryPoll update = SessionTelemetry::pollCopy(copy);
            mainQueue.async([weak, update = std::move(update)]() mutable {
                auto self = weak.lock();
                // The session is gone: whatever the copy claimed meanwhile is freed with it.
                if (!self) return update.telemetry.release();
                self->adoptPoll(std::move(update));
            });
        });
}

void SessionController::adoptPoll(TelemetryPoll update) {
    pollInFlight_ = false;
    if (telemetryReleased_) return update.telemetry.release();
    // The polled copy replaces the value whole: it is the only one that polled since the last.
    telemetry_ = std::move(update.telemetry);
    // The id is known once the bound file was read; until then a fresh binding says nothing.
    if (telemetry_->boundURL() && telemetry_->lastModified())
        updateResumeID(*telemetry_->boundURL(), telemetry_->boundSessionID());
    if (update.reading) applyReading(*update.reading);
}

void SessionController::processExited(std::optional<std::int32_t> rawStatus) {
    hasExited_ = true;
    statusTimer_.reset();
    std::int32_t code = rawStatus.value_or(0);
    // The process layer reports the raw wait status: exit(1) arrives as 256.
    if (code >= 256) code >>= 8;
    status_ = code == 0 ? SessionStatus::done() : SessionStatus::failed(code);
    needsAttention_ = true;
    changed();
    if (onAttention) onAttention(*this);
}

// MARK: Signals in the output

void SessionController::portCandidate(std::string_view text) {
    if (detectedPort_) return;
    const auto port = serverPort(text);
    if (!port) return;
    detectedPort_ = port;
    // Found once for the life of the session: the scan stops.
    terminalView_->onPortCandidate = nullptr;
    changed();
}

void SessionController::modelCandidate(std::string_view text) {
    auto model = OstrelCore::ClaudeModelSwitch::detectInTerminalText(text);
    if (!model || model == modelName_) return;
    noteModelSwitch(std::move(*model));
    changed();
}

void SessionController::limitCandidate(std::string_view text) {
    if (!hasExited_) onLimitCandidate(text);
}

void SessionController::noteModelSwitch(std::string value) {
    modelSwitchedFrom_ = modelName_;
    modelSwitchedAt_ = now();
    modelName_ = std::move(value);
}

void SessionController::titleChanged(const std::string& raw) {
    const std::string title = Text::sanitizeUtf8(raw);
    switch (kind_) {
    case SessionKind::claude: {
        auto cleaned = OstrelCore::TabTitle::fromClaudeOSC(title);
        if (!cleaned) return;
        claudeTitleFromOSC_ = true;
        if (*cleaned == autoTitle_) return;
        autoTitle_ = std::move(*cleaned);
        changed();
        return;
    }
    case SessionKind::codex:
        // Codex's title is a status signal, never shown.
        if (OstrelCore::CodexSignals::isActionRequired(title))
            setStatus(userHasInteracted_ ? SessionStatus::waiting() : SessionStatus::ready());
        return;
    case SessionKind::gemini:
    case SessionKind::shell:
    case SessionKind::service:
        if (title == autoTitle_) return;
        autoTitle_ = title;
        changed();
        return;
    }
}

void SessionController::directoryChanged(const std::string& location) {
    if (kind_ != SessionKind::shell) return;
    // A title a program set stays; only a title that is itself a folder follows the shell.
    if (!autoTitle_.empty() && !Text::startsWith(autoTitle_, "~") && !Text::startsWith(autoTitle_, "/"))
        return;
    std::string title =
        abbreviatingHome(Text::sanitizeUtf8(pathOfLocation(location)), options_.home.value_or(Paths::home()));
    if (title == autoTitle_) return;
    autoTitle_ = std::move(title);
    changed();
}

// MARK: Readings from the transcript

void SessionController::applyReading(const OstrelCore::TranscriptReading& reading) {
    bool dirty = false;
    if (reading.model && reading.model != modelName_) {
        // The 1M variant is chosen by name; its transcript names the base model.
        const bool baseOfVariant = modelName_ && *modelName_ == *reading.model + "[1m]";
        const bool oldModelAfterSwitch = modelSwitchedFrom_ == reading.model && modelSwitchedAt_ &&
                                         secondsSince(*modelSwitchedAt_) < modelSwitchSettling;
        if (!baseOfVariant && !oldModelAfterSwitch) {
            modelName_ = reading.model;
            dirty = true;
        }
    }
    if (reading.contextUsed && reading.contextUsed != contextUsed_) {
        contextUsed_ = reading.contextUsed;
        dirty = true;
    }
    if (reading.contextWindow && reading.contextWindow != reportedContextWindow_) {
        reportedContextWindow_ = reading.contextWindow;
        dirty = true;
    }
    if (reading.phase) {
        agentPhase_ = reading.phase;
        if (*reading.phase == AgentPhase::awaitingApproval && reading.pendingToolName) {
            auto request = OstrelCore::ApprovalPolicy::summarize(*reading.pendingToolName,
                                                                 reading.pendingToolTarget.value_or(""));
            if (request != pendingRequest_) {
                pendingRequest_ = std::move(request);
                dirty = true;
            }
        }
    }
    if (reading.sessionTitle && !claudeTitleFromOSC_ && *reading.sessionTitle != autoTitle_) {
        autoTitle_ = *reading.sessionTitle;
        dirty = true;
    }
    if (reading.permissionMode && reading.permissionMode != permissionMode_) {
        const bool justSwitched =
            permissionSwitchedAt_ && secondsSince(*permissionSwitchedAt_) <= permissionSwitchSettling;
        if (!justSwitched) {
            permissionMode_ = reading.permissionMode;
            if (*permissionMode_ == "bypassPermissions") bypassInCycle_ = true;
            dirty = true;
        }
    }
    if (dirty) changed();
}

void SessionController::updateResumeID(const std::string& transcriptPath,
                                       const std::optional<std::string>& sessionID) {
    if (transcriptPath == resumeIDSourcePath_ || !OstrelCore::isAgent(kind_)) return;
    resumeIDSourcePath_ = transcriptPath;
    // A Gemini head that can't be read or names no id keeps what was known; for the others the
    // file's name is the id, and a Codex name too short to hold one clears it.
    if (kind_ == SessionKind::gemini && !sessionID) return;
    if (sessionID == resumeID_) return;
    resumeID_ = sessionID;
    if (onResumeIDChange) onResumeIDChange();
}

// MARK: Approvals

bool SessionController::answer(OstrelCore::ApprovalPolicy::Decision decision, TimePoint at) {
    using OstrelCore::ApprovalPolicy;
    // A late or repeated answer could confirm something no longer on the screen.
    if (!approvalAskedAt_ || !ApprovalPolicy::canAct(*approvalAskedAt_, at,
                                                     status_ == SessionStatus::waiting(), approvalAnswered_))
        return false;
    approvalAnswered_ = true;
    terminalView_->send(ApprovalPolicy::keystrokes(decision));
    pendingRequest_.reset();
    needsAttention_ = false;
    if (onUsageEvent) onUsageEvent("notification_answer");
    changed();
    return true;
}

// MARK: Typing, attention, life cycle

void SessionController::send(std::string_view bytes) {
    terminalView_->send(bytes);
}

void SessionController::sendLine(std::string_view text) {
    std::string line(text);
    line += '\r';
    terminalView_->send(line);
}

void SessionController::clearAttention() {
    if (!needsAttention_) return;
    needsAttention_ = false;
    changed();
}

void SessionController::shutdown() {
    // Once: a second shutdown (a close after the quit flow) has no telemetry left to release.
    const bool hadTelemetry = telemetryTimer_ != nullptr;
    statusTimer_.reset();
    resumeTimer_.reset();
    telemetryTimer_.reset();
    noticeTimer_.reset();
    resumesAt_.reset();
    typingSteps_.clear(); // a half-typed plan stops here
    if (hadTelemetry && telemetry_) {
        telemetry_->release();
        telemetryReleased_ = true;
    }
    // Chunks still queued for the terminal must not move the status of a session being closed.
    auto& view = *terminalView_;
    view.onActivity = nullptr;
    view.onBell = nullptr;
    view.onPortCandidate = nullptr;
    view.onLimitCandidate = nullptr;
    view.onModelCandidate = nullptr;
    view.onExit = nullptr;
    if (!hasExited_) view.terminate();
}

void SessionController::zoom(double delta) {
    if (!std::isfinite(delta)) return;
    setFontSize(fontSize_ + delta);
}

void SessionController::setFontSize(double value) {
    if (!std::isfinite(value)) return;
    value = std::clamp(value, minimumFontSize, maximumFontSize);
    if (value == fontSize_) return;
    fontSize_ = value;
    changed();
}

void SessionController::setTint(std::optional<std::int64_t> index) {
    if (index == tintIndex_) return;
    tintIndex_ = index;
    changed();
}

void SessionController::showNotice(std::string text) {
    transientNotice_ = std::move(text);
    std::weak_ptr<SessionController> weak = weak_from_this();
    noticeTimer_ = MainTimer::once(timing_.noticeDuration, [weak] {
        auto self = weak.lock();
        if (!self) return;
        self->transientNotice_.reset();
        self->changed();
    });
    changed();
}

// MARK: Hosts

void SessionController::addHost(const std::shared_ptr<SessionHost>& host) {
    if (!host) return;
    const bool known = std::any_of(hostCandidates_.begin(), hostCandidates_.end(),
                                   [&](const auto& candidate) { return candidate.lock() == host; });
    if (!known) hostCandidates_.push_back(host);
    scheduleHostReconcile();
}

void SessionController::removeHost(const std::shared_ptr<SessionHost>& host) {
    std::erase_if(hostCandidates_, [&](const auto& candidate) {
        auto alive = candidate.lock();
        return !alive || alive == host;
    });
    scheduleHostReconcile();
}

void SessionController::scheduleHostReconcile() {
    if (hostReconcilePending_) return;
    hostReconcilePending_ = true;
    // One reconcile for all the changes of this turn: a pane move removes and adds in one go.
    TerminalEngine::DispatchQueue::main().async([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->reconcileHosts();
    });
}

void SessionController::reconcileHosts() {
    hostReconcilePending_ = false;
    std::erase_if(hostCandidates_, [](const auto& candidate) { return candidate.expired(); });
    std::shared_ptr<SessionHost> chosen;
    for (auto it = hostCandidates_.rbegin(); it != hostCandidates_.rend() && !chosen; ++it)
        if (auto host = it->lock(); host && host->inWindow()) chosen = std::move(host);
    auto current = hostView_.lock();
    if (chosen == current) return;
    if (current) current->release(*terminalView_);
    hostView_ = chosen;
    if (!chosen) return;
    chosen->adopt(*terminalView_);
    if (onHostAttached) onHostAttached();
}

void SessionController::terminalFocused() {
    if (onFocus) onFocus();
}

} // namespace Ostrel
