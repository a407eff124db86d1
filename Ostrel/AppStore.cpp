// The workspace store: project and session operations, pane trees, the state file, restore at
// launch, branch reading and the quit flow.
#include "Ostrel/AppStore.h"

#include "Ostrel/GitBranch.h"
#include "Ostrel/LoginEnv.h"
#include "Ostrel/Paths.h"
#include "Ostrel/SettingKeys.h"
#include "Ostrel/WorkerPool.h"
#include "OstrelCore/PanePlacement.h"
#include "OstrelCore/ResumeCommand.h"
#include "OstrelCore/Text.h"
#include "TerminalEngine/Pty/DispatchQueue.h"

#include <algorithm>
#include <cassert>
#include <filesystem>
#include <mutex>

namespace Ostrel {

using OstrelCore::PaneNode;
using OstrelCore::PanePlacement;
namespace Text = OstrelCore::Text;

struct AppStore::BackgroundGate {
    std::mutex lock;
    bool open = true;
    AppStore* store = nullptr; // read on the main thread only, while open
};

namespace {

std::string folderName(const std::string& path) {
    std::filesystem::path folder(path);
    if (!folder.has_filename()) folder = folder.parent_path();
    const std::string name = folder.filename().string();
    return name.empty() ? path : name;
}

std::string usageEventsBeside(const std::string& stateURL) {
    return (std::filesystem::path(stateURL).parent_path() / "usage-events.jsonl").string();
}

} // namespace

// MARK: Process start

void AppStore::moveFormerDataFolder() {
    moveFormerDataFolder(Paths::dataFolder());
}

void AppStore::moveFormerDataFolder(const std::string& dataFolder) {
    const std::filesystem::path current(dataFolder);
    const std::filesystem::path former = current.parent_path() / formerDataFolderName;
    std::error_code error;
    if (!std::filesystem::is_directory(former, error) || std::filesystem::exists(current, error)) return;
    std::filesystem::rename(former, current, error); // a failure leaves both as they are
}

std::optional<std::string> AppStore::resumeCommand(const SessionController& session) {
    switch (session.kind()) {
    case SessionKind::claude:
    case SessionKind::codex:
    case SessionKind::gemini:
        return session.resumeID()
                   ? OstrelCore::ResumeCommand::resumeCommand(session.kind(), *session.resumeID())
                   : std::nullopt;
    case SessionKind::shell: return std::nullopt;
    case SessionKind::service: return session.command();
    }
    return std::nullopt;
}

// MARK: Life cycle

AppStore::AppStore(std::string stateURL, Settings& settings, Options options)
    : stateURL_(std::move(stateURL))
    , settings_(settings)
    , options_(std::move(options))
    , usageEvents_(options_.usageEventsPath.value_or(usageEventsBeside(stateURL_)), settings)
    , gate_(std::make_shared<BackgroundGate>()) {
    gate_->store = this;
    Paths::ensureFolder(std::filesystem::path(stateURL_).parent_path().string());
    sidebarHidden_ = isOn(settings_, SettingKeys::sidebarHidden);
    load();
}

AppStore::~AppStore() {
    if (notifications_ != nullptr) {
        notifications_->onReveal = nullptr;
        notifications_->onDecision = nullptr;
    }
    {
        std::lock_guard guard(gate_->lock);
        gate_->open = false;
        gate_->store = nullptr;
    }
    branchTimer_.reset();
    // Someone may still hold a session; it must not call into a store that is gone.
    for (const Session& session : sessions_) {
        session->onChange = nullptr;
        session->onFocus = nullptr;
        session->onHostAttached = nullptr;
        session->onAttention = nullptr;
        session->onWaitAnswered = nullptr;
        session->onResumeIDChange = nullptr;
        session->onUsageEvent = nullptr;
    }
}

void AppStore::launch() {
    assertMainThread();
    if (options_.prewarmLoginEnvironment) LoginEnv::prewarm();
    startBranchTimer();
    auto records = std::exchange(pendingRestore_, {});
    if (!records.empty()) restoreSessions(records);
}

void AppStore::assertMainThread() const {
    assert(std::this_thread::get_id() == mainThread_ && "AppStore is confined to the main thread");
}

void AppStore::changed() {
    if (onChange) onChange();
}

// MARK: Look-ups

AppStore::Session AppStore::session(const UUID& id) const {
    for (const Session& candidate : sessions_)
        if (candidate->id() == id) return candidate;
    return nullptr;
}

std::optional<Project> AppStore::project(const UUID& id) const {
    for (const Project& candidate : projects_)
        if (candidate.id == id) return candidate;
    return std::nullopt;
}

Project* AppStore::findProject(const UUID& id) {
    for (Project& candidate : projects_)
        if (candidate.id == id) return &candidate;
    return nullptr;
}

std::vector<AppStore::Session> AppStore::sessions(const UUID& projectID) const {
    std::vector<Session> result;
    for (const Session& candidate : sessions_)
        if (candidate->projectID() == projectID) result.push_back(candidate);
    return result;
}

std::optional<Project> AppStore::projectOf(const SessionController& session) const {
    return project(session.projectID());
}

std::size_t AppStore::attentionCount() const {
    return static_cast<std::size_t>(std::count_if(sessions_.begin(), sessions_.end(),
                                                  [](const Session& s) { return s->needsAttention(); }));
}

std::vector<UUID> AppStore::aliveSessionIDs(const UUID& projectID) const {
    std::vector<UUID> ids;
    for (const Session& candidate : sessions_)
        if (candidate->projectID() == projectID && candidate->status().isAlive())
            ids.push_back(candidate->id());
    return ids;
}

// MARK: Projects

Project AppStore::addProject(const std::string& path) {
    assertMainThread();
    for (const Project& existing : projects_)
        if (existing.path == path) return existing;
    Project added{UUID::random(), folderName(path), path, static_cast<std::int64_t>(projects_.size()),
                  std::nullopt};
    projects_.push_back(added);
    usageEvents_.send("project_add");
    usageEvents_.recordPeak(projects_.size(), sessions_.size());
    save();
    changed();
    refreshBranches();
    return added;
}

void AppStore::renameProject(const UUID& id, std::string_view name) {
    assertMainThread();
    Project* target = findProject(id);
    const std::string_view trimmed = Text::trim(name);
    if (target == nullptr || trimmed.empty() || trimmed == target->name) return;
    target->name = std::string(trimmed);
    save();
    changed();
}

void AppStore::setProjectColor(const UUID& id, std::int64_t index) {
    assertMainThread();
    Project* target = findProject(id);
    if (target == nullptr || (index == target->colorIndex && !target->customColorHex)) return;
    target->colorIndex = index;
    target->customColorHex.reset();
    save();
    changed();
}

void AppStore::selectProject(const UUID& id) {
    assertMainThread();
    if (findProject(id) == nullptr) return;
    selectedProjectID_ = id;
    overlays_ = {};
    const PaneNode& projectTree = tree(id);
    if (Session selected = selectedSessionID_ ? session(*selectedSessionID_) : nullptr;
        selected && selected->projectID() != id) {
        const auto leaf = focusedLeaf(id);
        selectedSessionID_ = leaf ? projectTree.session(*leaf) : std::nullopt;
    }
    save();
    changed();
}

void AppStore::setCollapsed(const UUID& projectID, bool collapsed) {
    assertMainThread();
    if (findProject(projectID) == nullptr) return;
    const bool changedSet =
        collapsed ? collapsedProjects_.insert(projectID).second : collapsedProjects_.erase(projectID) > 0;
    if (!changedSet) return;
    save();
    changed();
}

// MARK: Sessions

AppStore::Session AppStore::startSession(SessionKind kind, const UUID& projectID, StartOptions options) {
    assertMainThread();
    const Project* owner = findProject(projectID);
    if (owner == nullptr) return nullptr;
    const std::string cwd = options.cwd.value_or(owner->path);
    Session started = SessionController::create(projectID, cwd, kind, std::move(options.command),
                                                std::move(options.title), steeringOptions());
    if (options.tintIndex) started->setTint(options.tintIndex);
    installCallbacks(started);
    sessions_.push_back(started);
    if (options.restoring) {
        changed();
        return started;
    }
    ++usageCounts_[std::string(OstrelCore::rawValue(kind))];
    usageEvents_.recordPeak(projects_.size(), sessions_.size());
    selectedSessionID_ = started->id();
    selectedProjectID_ = projectID;
    overlays_ = {};
    collapsedProjects_.erase(projectID);
    placeSession(*started, projectID, true);
    started->clearAttention();
    save();
    changed();
    return started;
}

AppStore::Session AppStore::startSetup(SessionKind kind, std::optional<std::string> command) {
    const std::string home = Paths::home();
    std::optional<UUID> projectID;
    for (const Project& candidate : projects_)
        if (candidate.path == home) projectID = candidate.id;
    if (!projectID) projectID = addProject(home).id;
    return startSession(kind, *projectID, StartOptions{std::move(command), "Setup"});
}

void AppStore::select(const Session& target) {
    assertMainThread();
    if (!target || !session(target->id())) return;
    selectedSessionID_ = target->id();
    overlays_ = {};
    selectedProjectID_ = target->projectID();
    collapsedProjects_.erase(target->projectID());
    if (findProject(target->projectID())) placeSession(*target, target->projectID(), false);
    target->clearAttention();
    save();
    changed();
}

void AppStore::closeSelected() {
    assertMainThread();
    if (overlays_.any()) {
        dismissOverlays();
        return;
    }
    Session selected = selectedSessionID_ ? session(*selectedSessionID_) : nullptr;
    if (!selected) {
        if (hooks.closeKeyWindow) hooks.closeKeyWindow();
        return;
    }
    if (!isOn(settings_, SettingKeys::confirmSessionClose) || !selected->status().isAlive()) {
        close(selected);
        return;
    }
    sessionPendingClose_ = selected;
    changed();
}

void AppStore::close(const Session& target) {
    assertMainThread();
    if (!target) return;
    auto it = std::find(sessions_.begin(), sessions_.end(), target);
    if (it == sessions_.end()) return;
    target->shutdown();
    const double seconds =
        std::chrono::duration<double>(std::chrono::system_clock::now() - target->startedAt()).count();
    usageEvents_.send(UsageEvents::Event{"session_duration", target->kind(), std::max(seconds, 0.0),
                                         std::nullopt, std::nullopt});
    usageEvents_.send("session_close", target->kind());
    if (notifications_ != nullptr) notifications_->clearDelivered(target->id());
    if (auto found = layouts_.find(target->projectID()); found != layouts_.end())
        found->second = found->second.removingSession(target->id());
    target->onChange = nullptr;
    target->onFocus = nullptr;
    target->onHostAttached = nullptr;
    target->onAttention = nullptr;
    target->onWaitAnswered = nullptr;
    target->onResumeIDChange = nullptr;
    target->onUsageEvent = nullptr;
    sessions_.erase(it);
    if (selectedSessionID_ == target->id())
        selectedSessionID_ = sessions_.empty() ? std::nullopt : std::optional(sessions_.back()->id());
    if (sessionPendingClose_ == target) sessionPendingClose_.reset();
    if (searchingSessionID_ == target->id()) searchingSessionID_.reset();
    save();
    changed();
}

void AppStore::setPendingPane(const UUID& projectID, const UUID& leafID) {
    pendingPane_ = std::pair(projectID, leafID);
}

void AppStore::dismissOverlays() {
    if (!overlays_.any()) return;
    overlays_ = {};
    changed();
}

void AppStore::setSidebarHidden(bool hidden) {
    if (hidden == sidebarHidden_) return;
    sidebarHidden_ = hidden;
    settings_.setBoolean(SettingKeys::sidebarHidden.key, hidden);
    changed();
}

void AppStore::installCallbacks(const Session& target) {
    std::weak_ptr<SessionController> weak = target;
    target->onChange = [this] { sessionChanged(); };
    target->onFocus = [this, weak] {
        if (auto self = weak.lock()) sessionFocused(*self);
    };
    target->onHostAttached = [this, weak] {
        if (auto self = weak.lock()) sessionHostAttached(*self);
    };
    target->onAttention = [this](SessionController& self) { sessionNeedsAttention(self); };
    target->onWaitAnswered = [this, weak] {
        if (auto self = weak.lock(); self && notifications_) notifications_->clearDelivered(self->id());
    };
    // The restore record names the conversation to resume: it must follow a "/clear" at once.
    target->onResumeIDChange = [this] { save(); };
    target->onUsageEvent = [this, kind = target->kind()](std::string_view event) {
        usageEvents_.send(event, kind);
    };
    target->onAutoResumed = [this](SessionController& self) { sessionAutoResumed(self); };
}

// MARK: Steering

SessionOptions AppStore::steeringOptions() const {
    SessionOptions options = options_.session;
    if (options.settings == nullptr) options.settings = &settings_;
    if (!options.quotaWindows) options.quotaWindows = quotaWindows_;
    return options;
}

void AppStore::setQuotaWindows(std::shared_ptr<const QuotaWindowsProvider> provider) {
    assertMainThread();
    quotaWindows_ = provider ? std::move(provider) : std::make_shared<NoQuotaWindows>();
}

void AppStore::sessionAutoResumed(SessionController& target) {
    usageEvents_.send("auto_resume", target.kind());
    if (notifications_ != nullptr) notifications_->notifyResumed(target.displayTitle());
}

void AppStore::sessionChanged() {
    changed();
    bumpRemote();
}

void AppStore::sessionFocused(SessionController& target) {
    if (selectedSessionID_ != target.id()) {
        select(session(target.id()));
        if (auto found = layouts_.find(target.projectID()); found != layouts_.end())
            if (auto leaf = found->second.leaf(target.id())) focusedPanes_[target.projectID()] = *leaf;
    }
    target.clearAttention();
}

void AppStore::sessionHostAttached(SessionController& target) {
    if (selectedSessionID_ == target.id() && hooks.focusTerminal) hooks.focusTerminal(target);
}

void AppStore::sessionNeedsAttention(SessionController& target) {
    const bool looking = hooks.applicationFocused ? hooks.applicationFocused() : applicationActive_;
    const SessionVisibility visibility{selectedSessionID_ == target.id(), looking};
    if (notifications_ == nullptr) {
        // On screen in the application the person is using: they see it already.
        if (visibility.selected && visibility.applicationActive) target.clearAttention();
        return;
    }
    const auto owner = projectOf(target);
    const NotificationSubject subject{target.id(), target.displayTitle(), target.status(),
                                      target.pendingRequest(),
                                      owner ? std::optional(owner->name) : std::nullopt};
    if (notifications_->attention(subject, visibility) == Attention::seen) target.clearAttention();
}

void AppStore::setNotifications(SessionNotifications* notifications) {
    assertMainThread();
    if (notifications_ != nullptr) {
        notifications_->onReveal = nullptr;
        notifications_->onDecision = nullptr;
    }
    notifications_ = notifications;
    if (notifications_ == nullptr) return;
    // The answer is dated when it arrives; the session drops it when it is stale or answered.
    notifications_->onDecision = [this](const UUID& sessionID,
                                        OstrelCore::ApprovalPolicy::Decision decision) {
        Session target = session(sessionID);
        if (!target) return;
        const auto now = options_.session.clock ? options_.session.clock() : std::chrono::system_clock::now();
        target->answer(decision, now);
    };
    // Ids only: the session may be gone by the time the click arrives.
    notifications_->onReveal = [this](const UUID& sessionID) {
        Session target = session(sessionID);
        if (!target) return;
        if (hooks.activateApplication) hooks.activateApplication();
        select(target);
    };
}

// MARK: Pane trees

PaneNode& AppStore::tree(const UUID& projectID) {
    auto found = layouts_.find(projectID);
    if (found == layouts_.end()) found = layouts_.emplace(projectID, PaneNode::emptyLeaf()).first;
    return found->second;
}

void AppStore::storeTree(const UUID& projectID, PaneNode newTree) {
    layouts_.insert_or_assign(projectID, std::move(newTree));
}

const PaneNode& AppStore::ensureLayout(const UUID& projectID) {
    assertMainThread();
    if (layouts_.count(projectID) == 0 && findProject(projectID) != nullptr) {
        tree(projectID);
        save();
        changed();
    }
    return tree(projectID);
}

std::optional<UUID> AppStore::focusedLeaf(const UUID& projectID) const {
    auto found = layouts_.find(projectID);
    if (found == layouts_.end()) return std::nullopt;
    auto focus = focusedPanes_.find(projectID);
    return PanePlacement::focusedLeaf(
        found->second, focus == focusedPanes_.end() ? std::nullopt : std::optional(focus->second));
}

void AppStore::focusPane(const UUID& projectID, const UUID& leaf) {
    auto found = layouts_.find(projectID);
    if (found == layouts_.end() || !found->second.containsLeaf(leaf)) return;
    focusedPanes_[projectID] = leaf;
    changed();
}

void AppStore::placeSession(const SessionController& target, const UUID& projectID, bool allowSplit) {
    assertMainThread();
    const PaneNode& current = tree(projectID);
    std::optional<UUID> pending;
    if (auto taken = std::exchange(pendingPane_, std::nullopt); taken && taken->first == projectID)
        pending = taken->second;
    auto placement = PanePlacement::placeSession(current, target.id(), pending, focusedLeaf(projectID),
                                                 allowSplit, paneArea_);
    storeTree(projectID, std::move(placement.tree));
    focusedPanes_[projectID] = placement.leaf;
}

UUID AppStore::autoSplit(const UUID& projectID) {
    assertMainThread();
    auto placement = PanePlacement::autoSplit(tree(projectID), focusedLeaf(projectID), paneArea_);
    storeTree(projectID, std::move(placement.tree));
    return placement.leaf;
}

void AppStore::split(const UUID& leaf, OstrelCore::PaneAxis axis, const UUID& projectID) {
    assertMainThread();
    if (findProject(projectID) == nullptr || !tree(projectID).containsLeaf(leaf)) return;
    storeTree(projectID, tree(projectID).splitting(leaf, axis));
    usageEvents_.send("split");
    usageEvents_.recordPeak(projects_.size(), sessions_.size());
    save();
    changed();
}

void AppStore::closePane(const UUID& leaf, const UUID& projectID) {
    assertMainThread();
    if (findProject(projectID) == nullptr || !tree(projectID).containsLeaf(leaf)) return;
    storeTree(projectID, PanePlacement::closePane(tree(projectID), leaf));
    save();
    changed();
}

void AppStore::swapPanes(const UUID& first, const UUID& second, const UUID& projectID) {
    assertMainThread();
    if (findProject(projectID) == nullptr) return;
    const PaneNode& current = tree(projectID);
    if (!current.containsLeaf(first) || !current.containsLeaf(second) || first == second) return;
    storeTree(projectID, PanePlacement::swapPanes(current, first, second));
    save();
    changed();
}

void AppStore::drop(const SessionController& target, const UUID& onto, OstrelCore::PaneDropZone zone) {
    assertMainThread();
    if (!session(target.id()) || findProject(target.projectID()) == nullptr) return;
    auto placement = PanePlacement::drop(tree(target.projectID()), target.id(), onto, zone);
    if (!placement) return;
    storeTree(target.projectID(), std::move(placement->tree));
    focusedPanes_[target.projectID()] = placement->leaf;
    save();
    changed();
}

void AppStore::setFractions(const UUID& splitID, const std::vector<double>& fractions,
                            const UUID& projectID) {
    assertMainThread();
    auto found = layouts_.find(projectID);
    if (found == layouts_.end()) return;
    found->second = found->second.settingFractions(splitID, fractions);
    changed();
}

void AppStore::saveTemplate(std::string name, const UUID& projectID) {
    assertMainThread();
    if (findProject(projectID) == nullptr) return;
    templates_.push_back(OstrelCore::PaneTemplate::make(std::move(name), tree(projectID)));
    save();
    changed();
}

void AppStore::deleteTemplate(const UUID& id) {
    assertMainThread();
    if (std::erase_if(templates_, [&](const auto& candidate) { return candidate.id == id; }) == 0) return;
    save();
    changed();
}

void AppStore::applyTemplate(const OstrelCore::PaneTemplate& paneTemplate, const UUID& projectID) {
    assertMainThread();
    if (findProject(projectID) == nullptr) return;
    const auto alive = aliveSessionIDs(projectID);
    auto placement = PanePlacement::applyTemplate(paneTemplate.node, alive);
    storeTree(projectID, std::move(placement.tree));
    focusedPanes_[projectID] = placement.leaf;
    save();
    changed();
}

// MARK: Saved state

void AppStore::load() {
    auto text = Paths::readFile(stateURL_);
    if (!text) return;
    // An undecodable file is left on disk as it is; only the next save replaces it.
    auto state = SavedState::decode(*text);
    if (!state) return;
    projects_ = std::move(state->projects);
    pendingRestore_ = std::move(state->restorable);
    layouts_ = std::move(state->layouts);
    templates_ = std::move(state->templates);
    usageCounts_ = std::move(state->usageCounts);
    collapsedProjects_ = std::set<UUID>(state->collapsedProjects.begin(), state->collapsedProjects.end());
    if (state->selectedProjectID && findProject(*state->selectedProjectID) != nullptr)
        selectedProjectID_ = state->selectedProjectID;
    else
        selectedProjectID_ = projects_.empty() ? std::nullopt : std::optional(projects_.front().id);
}

SavedState AppStore::savedState() const {
    SavedState state;
    state.projects = projects_;
    for (const auto& [projectID, projectTree] : layouts_)
        state.layouts.emplace(projectID, projectTree.cleaned());
    state.templates = templates_;
    state.usageCounts = usageCounts_;
    state.selectedProjectID = selectedProjectID_;
    state.collapsedProjects.assign(collapsedProjects_.begin(), collapsedProjects_.end());
    state.restorable = restorableSessions();
    return state;
}

void AppStore::save() {
    assertMainThread();
    Paths::ensureFolder(std::filesystem::path(stateURL_).parent_path().string());
    // A failed write keeps the former file whole; the next change writes again.
    Paths::writeFileAtomically(stateURL_, savedState().encode());
}

std::map<UUID, std::vector<RestorableSession>> AppStore::restorableSessions() const {
    std::map<UUID, std::vector<RestorableSession>> records;
    for (const Project& owner : projects_) {
        std::vector<UUID> occupied;
        if (auto found = layouts_.find(owner.id); found != layouts_.end())
            occupied = found->second.sessionIDs();
        std::vector<RestorableSession> list;
        for (const Session& candidate : sessions_) {
            if (candidate->projectID() != owner.id || !candidate->status().isAlive()) continue;
            RestorableSession record;
            record.kind = candidate->kind();
            record.title = candidate->userTitle();
            record.command = resumeCommand(*candidate);
            if (!record.command) record.command = candidate->command();
            record.tintIndex = candidate->tintIndex();
            record.fontSize = candidate->fontSize();
            if (auto slot = std::find(occupied.begin(), occupied.end(), candidate->id());
                slot != occupied.end())
                record.visibleSlot = slot - occupied.begin();
            list.push_back(std::move(record));
        }
        if (!list.empty()) records.emplace(owner.id, std::move(list));
    }
    return records;
}

void AppStore::restoreSessions(const std::map<UUID, std::vector<RestorableSession>>& records) {
    assertMainThread();
    if (!isOn(settings_, SettingKeys::restoreEnabled)) return;
    for (const auto& [projectID, list] : records) {
        if (findProject(projectID) == nullptr) continue; // the project was removed since
        PaneNode projectTree = tree(projectID);
        const std::vector<UUID> leaves = projectTree.leafIDs();
        for (const RestorableSession& record : list) {
            Session restored = startSession(
                record.kind, projectID,
                StartOptions{record.command, record.title, std::nullopt, std::nullopt, /*restoring=*/true});
            if (!restored) continue;
            restored->setFontSize(record.fontSize);
            restored->setTint(record.tintIndex);
            // The slot was counted among occupied panes and is used among all panes: with empty
            // panes before occupied ones a session comes back in an earlier pane.
            if (record.visibleSlot && *record.visibleSlot >= 0 &&
                static_cast<std::size_t>(*record.visibleSlot) < leaves.size())
                projectTree = projectTree.assigning(restored->id(),
                                                    leaves[static_cast<std::size_t>(*record.visibleSlot)]);
        }
        storeTree(projectID, std::move(projectTree));
    }
    if (selectedProjectID_ && findProject(*selectedProjectID_) != nullptr) {
        const auto shown = tree(*selectedProjectID_).sessionIDs();
        if (!shown.empty()) selectedSessionID_ = shown.front();
    }
    usageEvents_.send("session_restore");
    changed();
}

// MARK: Branches

void AppStore::startBranchTimer() {
    if (branchTimer_) return;
    refreshBranches();
    branchTimer_ = MainTimer::repeating(options_.branchPeriod, [this] { refreshBranches(); });
}

void AppStore::refreshBranches() {
    if (!TerminalEngine::DispatchQueue::hasMain()) return;
    const auto mainQueue = TerminalEngine::DispatchQueue::main();
    for (const Project& owner : projects_) {
        WorkerPool::run([gate = gate_, mainQueue, projectID = owner.id, path = owner.path] {
            auto branch = GitBranch::read(path);
            if (!branch) return; // the former value stays
            std::lock_guard guard(gate->lock);
            if (!gate->open) return;
            mainQueue.async([gate, projectID, branch = std::move(*branch)] {
                AppStore* store = gate->open ? gate->store : nullptr;
                if (store == nullptr || store->findProject(projectID) == nullptr) return;
                auto& known = store->gitBranches_[projectID];
                if (known == branch) return;
                known = branch;
                store->changed();
            });
        });
    }
}

// MARK: Application

void AppStore::setApplicationActive(bool active) {
    assertMainThread();
    if (active == applicationActive_) return;
    applicationActive_ = active;
    // Nobody looks at branches while the application is in the background.
    if (active)
        startBranchTimer();
    else
        branchTimer_.reset();
    changed();
}

AppStore::TerminateReply AppStore::applicationShouldTerminate() {
    assertMainThread();
    const bool anyAlive = std::any_of(sessions_.begin(), sessions_.end(),
                                      [](const Session& s) { return s->status().isAlive(); });
    if (!anyAlive) return TerminateReply::now;
    if (confirmingQuit_) return TerminateReply::cancel;
    confirmingQuit_ = true;
    quitReplyPending_ = true;
    changed();
    return TerminateReply::later;
}

void AppStore::resolveQuit(bool confirmed) {
    assertMainThread();
    confirmingQuit_ = false;
    if (quitReplyPending_) {
        quitReplyPending_ = false;
        if (onQuitReply) onQuitReply(confirmed);
    }
    changed();
}

void AppStore::shutdown() {
    assertMainThread();
    save();
    branchTimer_.reset();
    for (const Session& running : sessions_)
        running->shutdown();
}

void AppStore::bumpRemote() {
    ++remoteRevision_;
    if (hooks.remoteChanged) hooks.remoteChanged(remoteRevision_);
}

} // namespace Ostrel
