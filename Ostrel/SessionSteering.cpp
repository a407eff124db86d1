// Steering half of the session controller: the keystrokes typed into an agent on the person's
// behalf (a prompt around their draft, model, effort and permission switches) and the automatic
// resume after a usage limit. Main thread only; delayed keystrokes are main-queue timers.
#include "Ostrel/LocalTimeZone.h"
#include "Ostrel/Localization.h"
#include "Ostrel/Paths.h"
#include "Ostrel/SessionController.h"
#include "Ostrel/SettingKeys.h"
#include "OstrelCore/RateLimitSignals.h"
#include "OstrelCore/TerminalComposer.h"
#include "OstrelCore/Text.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <cstdio>

namespace Ostrel {
namespace {

using OstrelCore::CodexPicker;
using OstrelCore::QuotaWindow;
using OstrelCore::RateLimitBlock;
using OstrelCore::RateLimitSignals;

constexpr char carriageReturn = '\r';
constexpr char deleteKey = 0x7F; // what Backspace sends
constexpr char endOfLine = 0x05; // Ctrl-E: the cursor to the end of the input
// Shift-Tab (CBT): agents step to the next permission mode on it.
constexpr std::string_view backTab = "\x1b[Z";

// The draft goes back in once the agent has taken the prompt and cleared its box.
constexpr double draftRestoreDelay = 0.4;

// Codex's model menu opens on "/model" typed key by key, as a person would.
constexpr std::string_view codexModelCommand = "/model";
constexpr double codexAfterClear = 0.2;
constexpr double codexPerKey = 0.03;
constexpr double codexBeforeReturn = 0.25;
constexpr double codexMenuOpens = 0.6;
constexpr double codexPerDigit = 0.4;
constexpr double codexBeforeDraft = 0.4;

constexpr std::string_view everyEffort[] = {"low", "medium", "high", "xhigh", "max", "ultra"};
// Claude and Gemini have no "ultra".
constexpr std::size_t commonEffortCount = 5;

constexpr std::string_view basePermissionCycle[] = {"default", "acceptEdits", "plan"};
constexpr std::string_view bypassPermissions = "bypassPermissions";

// One Backspace per character the person sees: the agents' line editors delete a whole grapheme
// cluster per key (an emoji with its modifier, a letter with its combining accent), and the box
// reader measures its rows in the same characters.
std::string clearing(std::string_view draft) {
    std::string keys(OstrelCore::Text::count(draft), deleteKey);
    keys += endOfLine;
    return keys;
}

std::optional<QuotaWindow::Provider> quotaProvider(OstrelCore::SessionKind kind) {
    if (kind == OstrelCore::SessionKind::claude) return QuotaWindow::Provider::claude;
    if (kind == OstrelCore::SessionKind::codex) return QuotaWindow::Provider::codex;
    return std::nullopt;
}

} // namespace

// MARK: The input box

std::optional<std::string> SessionController::composerDraft() {
    TerminalEngine::Terminal& terminal = terminalView_->terminal();
    const int rows = terminal.rows;
    std::vector<std::string> visible;
    visible.reserve(static_cast<std::size_t>(std::min(rows, composerRows)));
    // Trailing blanks stay: they tell a full row of a framed box (a soft wrap) from a short one.
    for (int row = std::max(0, rows - composerRows); row < rows; ++row)
        visible.push_back(terminal.lineText(row, /*trimRight=*/false));
    return OstrelCore::TerminalComposer::draft(visible);
}

bool SessionController::typingPending() const {
    return std::any_of(typingSteps_.begin(), typingSteps_.end(),
                       [](const auto& step) { return step->active(); });
}

void SessionController::refuseTyping() {
    if (options_.beep)
        options_.beep();
    else
        std::fprintf(stderr, "ostrel: beep (%s: nothing typed)\n", displayTitle().c_str());
    showNotice(std::string(Localization::text("pane.draftBusy")));
}

void SessionController::typeAfter(double delay, std::string bytes) {
    std::erase_if(typingSteps_, [](const auto& step) { return !step->active(); });
    std::weak_ptr<SessionController> weak = weak_from_this();
    const auto wait = std::chrono::duration_cast<MainTimer::Duration>(std::chrono::duration<double>(delay));
    typingSteps_.push_back(MainTimer::once(wait, [weak, bytes = std::move(bytes)] {
        auto self = weak.lock();
        if (!self || self->hasExited_) return;
        self->terminalView_->send(bytes);
    }));
}

bool SessionController::sendPreservingDraft(std::string_view text) {
    if (hasExited_) return false;
    // A plan still typing owns the box: its keys and these would interleave.
    std::optional<std::string> draft = typingPending() ? std::nullopt : composerDraft();
    if (!draft || draft->find('\n') != std::string::npos) {
        refuseTyping();
        return false;
    }
    if (draft->empty()) {
        sendLine(text);
        return true;
    }
    terminalView_->send(clearing(*draft));
    sendLine(text);
    typeAfter(draftRestoreDelay, std::move(*draft));
    return true;
}

// MARK: Switches

std::vector<std::string> SessionController::effortChoices() const {
    if (kind_ == SessionKind::codex && modelName_)
        if (auto efforts = CodexPicker::efforts(*modelName_, codexCatalog_)) return *efforts;
    if (!OstrelCore::isAgent(kind_)) return {};
    const std::size_t count = kind_ == SessionKind::codex ? std::size(everyEffort) : commonEffortCount;
    return {std::begin(everyEffort), std::begin(everyEffort) + count};
}

std::vector<std::string> SessionController::permissionCycle() const {
    std::vector<std::string> cycle(std::begin(basePermissionCycle), std::end(basePermissionCycle));
    if (bypassInCycle_) cycle.emplace_back(bypassPermissions);
    return cycle;
}

bool SessionController::switchModel(const std::string& value) {
    if (hasExited_) return false;
    if (kind_ == SessionKind::codex) return typeCodexPicker(value, effortLevel_);
    if (kind_ != SessionKind::claude || !sendPreservingDraft("/model " + value)) return false;
    noteModelSwitch(value);
    changed();
    return true;
}

bool SessionController::switchEffort(const std::string& value) {
    if (hasExited_) return false;
    if (kind_ == SessionKind::codex) return modelName_ && typeCodexPicker(*modelName_, value);
    if (kind_ != SessionKind::claude || !sendPreservingDraft("/effort " + value)) return false;
    effortLevel_ = value;
    changed();
    return true;
}

bool SessionController::switchPermissionMode(const std::string& value) {
    if (kind_ != SessionKind::claude || hasExited_) return false;
    const std::vector<std::string> cycle = permissionCycle();
    const auto indexOf = [&](std::string_view mode) -> std::optional<std::size_t> {
        const auto found = std::find(cycle.begin(), cycle.end(), mode);
        return found == cycle.end() ? std::nullopt : std::optional(std::size_t(found - cycle.begin()));
    };
    const auto from = indexOf(permissionMode_.value_or("default"));
    const auto to = indexOf(value);
    if (!from || !to || *from == *to) return false;
    const std::size_t steps = (*to + cycle.size() - *from) % cycle.size();
    std::string keys;
    for (std::size_t i = 0; i < steps; ++i)
        keys += backTab;
    // One write: the agent must see the presses together, with no redraw of ours between them.
    terminalView_->send(keys);
    permissionMode_ = value;
    permissionSwitchedAt_ = now();
    changed();
    return true;
}

bool SessionController::typeCodexPicker(const std::string& model, const std::optional<std::string>& effort) {
    if (hasExited_) return false;
    if (codexCatalog_.empty()) {
        // The agent writes its cache at its first start, maybe after this session began.
        const std::string home = options_.home.value_or(Paths::home());
        if (auto cache = Paths::readFile(home + "/.codex/models_cache.json", 16u << 20))
            codexCatalog_ = CodexPicker::parse(*cache);
    }
    const std::optional<std::string_view> wanted =
        effort ? std::optional<std::string_view>(*effort) : std::nullopt;
    const auto digits = CodexPicker::digits(model, wanted, codexCatalog_);
    if (!digits) return false; // not reachable by digits: the menu is the person's to use
    std::string chosenEffort = effort.value_or("");
    const auto valid = CodexPicker::efforts(model, codexCatalog_);
    if (!effort || !valid || std::find(valid->begin(), valid->end(), *effort) == valid->end()) {
        const auto row = std::find_if(codexCatalog_.begin(), codexCatalog_.end(),
                                      [&](const auto& candidate) { return candidate.slug == model; });
        chosenEffort = row != codexCatalog_.end() ? row->defaultEffort : chosenEffort;
    }

    std::optional<std::string> draft = typingPending() ? std::nullopt : composerDraft();
    if (!draft || draft->find('\n') != std::string::npos) {
        refuseTyping();
        return false;
    }
    double t = 0;
    if (!draft->empty()) {
        typeAfter(0, clearing(*draft));
        t = codexAfterClear;
    }
    for (char key : codexModelCommand) {
        typeAfter(t, std::string(1, key));
        t += codexPerKey;
    }
    typeAfter(t + codexBeforeReturn, std::string(1, carriageReturn));
    t += codexBeforeReturn + codexMenuOpens;
    for (int digit : *digits) {
        typeAfter(t, std::to_string(digit));
        t += codexPerDigit;
    }
    if (!draft->empty()) typeAfter(t + codexBeforeDraft, std::move(*draft));

    if (modelName_ != model) noteModelSwitch(model);
    effortLevel_ = chosenEffort.empty() ? effortLevel_ : std::optional(chosenEffort);
    changed();
    return true;
}

// MARK: Rate limits

bool SessionController::autoResumeOn() const {
    return options_.settings == nullptr ? SettingKeys::autoResume.defaultValue
                                        : isOn(*options_.settings, SettingKeys::autoResume);
}

void SessionController::onLimitCandidate(std::string_view text) {
    if (!autoResumeOn() || !OstrelCore::isAgent(kind_)) return;
    static const date::time_zone* const zone = localTimeZone();
    auto block = RateLimitSignals::detect(text, now(), zone);
    // The agent redraws its notice with every repaint; the same notice plans nothing new.
    if (!block || block == rateLimitBlock_) return;
    rateLimitBlock_ = std::move(block);
    const auto plannedBefore = resumesAt_;
    scheduleResume(*rateLimitBlock_);
    // The block shows even when no resume could be planned.
    if (resumesAt_ == plannedBefore) changed();
}

void SessionController::scheduleResume(const RateLimitBlock& block) {
    if (!RateLimitSignals::shouldAutoResume(block, resumeAttempts_, maxResumeAttempts)) return;
    const TimePoint current = now();
    std::optional<TimePoint> quotaResetsAt;
    const auto provider = quotaProvider(kind_);
    if (provider && options_.quotaWindows) {
        // The provider's own window knows the true reset; one without a date ends the search, as
        // its reset is unknown rather than past.
        for (const QuotaWindow& window : options_.quotaWindows->quotaWindows()) {
            if (window.provider != *provider) continue;
            if (window.resetsAt && *window.resetsAt < current) continue;
            quotaResetsAt = window.resetsAt;
            break;
        }
    }
    const auto date = RateLimitSignals::resumeDate(block, quotaResetsAt, current);
    if (!date) return;
    resumeTimer_.reset();
    resumesAt_ = date;
    armResumeTimer();
    changed();
}

void SessionController::armResumeTimer() {
    // Steady time stops while the machine sleeps and the wall clock may be set: wait in slices
    // and compare against the date each time, so the resume comes at the date the agent named.
    const auto remaining = std::max<std::chrono::system_clock::duration>(*resumesAt_ - now(), {});
    const auto slice = std::min<MainTimer::Duration>(
        std::chrono::duration_cast<MainTimer::Duration>(remaining), timing_.resumeCheckPeriod);
    std::weak_ptr<SessionController> weak = weak_from_this();
    resumeTimer_ = MainTimer::once(slice, [weak] {
        if (auto self = weak.lock()) self->resumeTimerFired();
    });
}

void SessionController::resumeTimerFired() {
    if (!resumesAt_) return;
    if (now() < *resumesAt_ && !hasExited_) {
        armResumeTimer();
        return;
    }
    resumeTimer_.reset();
    resumesAt_.reset();
    if (hasExited_ || !autoResumeOn()) {
        changed();
        return;
    }
    ++resumeAttempts_;
    rateLimitBlock_.reset();
    sendLine("continue");
    if (onAutoResumed) onAutoResumed(*this);
    changed();
}

} // namespace Ostrel
