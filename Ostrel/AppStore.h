// The single owner of the workspace: projects, live sessions, each project's pane tree, templates,
// usage counters and overlay flags. Every user action, remote command and session event ends in a
// method here, and every change that must survive a restart ends in save(). Main thread only.
#pragma once

#include "Ostrel/MainTimer.h"
#include "Ostrel/SavedState.h"
#include "Ostrel/SessionController.h"
#include "Ostrel/SessionNotifications.h"
#include "Ostrel/Settings.h"
#include "Ostrel/UsageEvents.h"
#include "OstrelCore/PaneLayout.h"
#include "OstrelCore/PaneNode.h"
#include "OstrelCore/PaneTemplate.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Ostrel {

struct AppStoreOptions {
    // The capture of the login environment at launch; tests that don't need it turn it off.
    bool prewarmLoginEnvironment = true;
    std::chrono::milliseconds branchPeriod{15000};
    SessionOptions session;
    // Where usage events go; empty: "usage-events.jsonl" beside the state file.
    std::optional<std::string> usageEventsPath;
};

struct SessionStartOptions {
    std::optional<std::string> command; // none: the kind's default (a login shell for shell)
    std::string title;
    std::optional<std::int64_t> tintIndex;
    std::optional<std::string> cwd; // none: the project's folder
    bool restoring = false;         // a restore places the session itself and doesn't save
};

class AppStore {
public:
    using RestorableSession = Ostrel::RestorableSession;
    using SavedState = Ostrel::SavedState;
    using Session = std::shared_ptr<SessionController>;

    using Options = AppStoreOptions;

    // The overlays over the workspace. At most one is logically on top; dismissOverlays() clears
    // them all.
    struct Overlays {
        bool showLauncher = false;
        bool showWorktree = false;
        bool showPalette = false;
        bool showWelcome = false;
        bool showDiscover = false;
        bool showConfig = false;
        bool showSettings = false;
        bool showQuota = false;
        bool showServers = false;
        bool showShipped = false;
        bool showDiff = false;
        bool showHistory = false;
        bool showCost = false;

        bool any() const { return *this != Overlays{}; }
        bool operator==(const Overlays&) const = default;
    };

    // The answer to the platform's request to quit.
    enum class TerminateReply : std::uint8_t { now, cancel, later };

    using StartOptions = SessionStartOptions;

    // Services that are wired in by their own modules; each may stay empty.
    struct Hooks {
        // Remote server: the snapshot changed, long polls should wake.
        std::function<void(std::int64_t revision)> remoteChanged;
        // View: close the key window, give a session's terminal the keyboard focus, bring the
        // application to the front.
        std::function<void()> closeKeyWindow;
        std::function<void(SessionController&)> focusTerminal;
        std::function<void()> activateApplication;
        // Whether the person has the application in front of them, which decides with the
        // selection whether a session's attention was seen. Empty: the application's active state.
        // A headless run has nothing in front of anyone and answers false.
        std::function<bool()> applicationFocused;
    };

    // The data folder's former name. At process start, before anything reads the data folder, a
    // folder of that name is renamed to the current one when the current one doesn't exist yet.
    static constexpr std::string_view formerDataFolderName = "Tessaly";
    static void moveFormerDataFolder();
    static void moveFormerDataFolder(const std::string& dataFolder);

    // "claude --resume 'ID'" and the like from the session's resume id; a service's own command.
    static std::optional<std::string> resumeCommand(const SessionController& session);

    // Loads the state file. Nothing runs yet: launch() starts the rest.
    AppStore(std::string stateURL, Settings& settings, Options options = {});
    ~AppStore();
    AppStore(const AppStore&) = delete;
    AppStore& operator=(const AppStore&) = delete;

    // In this order: the login environment capture, the branch timer, then the sessions that were
    // alive at the last quit are started again.
    void launch();

    // MARK: State
    const std::string& stateURL() const { return stateURL_; }
    const std::vector<Project>& projects() const { return projects_; }
    const std::vector<Session>& sessions() const { return sessions_; }
    const std::optional<UUID>& selectedSessionID() const { return selectedSessionID_; }
    const std::optional<UUID>& selectedProjectID() const { return selectedProjectID_; }
    const std::map<UUID, OstrelCore::PaneNode>& layouts() const { return layouts_; }
    const std::map<UUID, UUID>& focusedPanes() const { return focusedPanes_; }
    const std::vector<OstrelCore::PaneTemplate>& templates() const { return templates_; }
    const std::set<UUID>& collapsedProjects() const { return collapsedProjects_; }
    const std::map<std::string, std::int64_t>& usageCounts() const { return usageCounts_; }
    const std::map<UUID, std::string>& gitBranches() const { return gitBranches_; }
    const std::map<UUID, std::vector<RestorableSession>>& pendingRestore() const { return pendingRestore_; }
    std::int64_t remoteRevision() const { return remoteRevision_; }
    bool sidebarHidden() const { return sidebarHidden_; }
    bool confirmingQuit() const { return confirmingQuit_; }
    bool quitReplyPending() const { return quitReplyPending_; }
    bool applicationActive() const { return applicationActive_; }
    bool branchTimerRunning() const { return branchTimer_ != nullptr; }
    const Session& sessionPendingClose() const { return sessionPendingClose_; }
    const std::optional<UUID>& searchingSessionID() const { return searchingSessionID_; }
    const std::optional<UUID>& draggingProjectID() const { return draggingProjectID_; }
    const std::optional<std::pair<UUID, UUID>>& pendingPane() const { return pendingPane_; }
    OstrelCore::PaneSize paneArea() const { return paneArea_; }
    Overlays& overlays() { return overlays_; }
    const Overlays& overlays() const { return overlays_; }
    UsageEvents& usageEvents() { return usageEvents_; }

    Session session(const UUID& id) const;
    std::optional<Project> project(const UUID& id) const;
    // The sessions of a project in creation order.
    std::vector<Session> sessions(const UUID& projectID) const;
    std::optional<Project> projectOf(const SessionController& session) const;
    std::size_t attentionCount() const;

    // MARK: Projects
    // A project with exactly this path is returned as it is; otherwise a new one is appended.
    Project addProject(const std::string& path);
    void renameProject(const UUID& id, std::string_view name);
    void setProjectColor(const UUID& id, std::int64_t index);
    void selectProject(const UUID& id);
    void setCollapsed(const UUID& projectID, bool collapsed);

    // MARK: Sessions
    Session startSession(SessionKind kind, const UUID& projectID, StartOptions options = {});
    // A session in the project whose folder is the home folder (added when missing), titled
    // "Setup": how the tools manager installs and signs in the agents.
    Session startSetup(SessionKind kind, std::optional<std::string> command = std::nullopt);
    void select(const Session& session);
    void closeSelected();
    void close(const Session& session);
    void setSessionPendingClose(Session session) { sessionPendingClose_ = std::move(session); }
    void setSearchingSession(std::optional<UUID> id) { searchingSessionID_ = id; }
    void setDraggingProject(std::optional<UUID> id) { draggingProjectID_ = id; }
    // The empty pane the launcher was opened from: the project's next session goes there.
    void setPendingPane(const UUID& projectID, const UUID& leafID);
    void dismissOverlays();
    void setSidebarHidden(bool hidden);

    // MARK: Pane trees
    // The project's tree, created as a single empty pane on first need (and then saved).
    const OstrelCore::PaneNode& ensureLayout(const UUID& projectID);
    // The focused pane when it is still in the tree, else the first one.
    std::optional<UUID> focusedLeaf(const UUID& projectID) const;
    // Puts the session in a pane of its project (see PanePlacement::placeSession); the callers
    // save.
    void placeSession(const SessionController& session, const UUID& projectID, bool allowSplit);
    // A new empty pane made by halving the largest one that can be halved, else the focused pane.
    UUID autoSplit(const UUID& projectID);
    void split(const UUID& leaf, OstrelCore::PaneAxis axis, const UUID& projectID);
    void closePane(const UUID& leaf, const UUID& projectID);
    void swapPanes(const UUID& first, const UUID& second, const UUID& projectID);
    void drop(const SessionController& session, const UUID& onto, OstrelCore::PaneDropZone zone);
    // While a divider is dragged: no save until the drag ends with another change.
    void setFractions(const UUID& splitID, const std::vector<double>& fractions, const UUID& projectID);
    void saveTemplate(std::string name, const UUID& projectID);
    void deleteTemplate(const UUID& id);
    void applyTemplate(const OstrelCore::PaneTemplate& paneTemplate, const UUID& projectID);
    void focusPane(const UUID& projectID, const UUID& leaf);
    void setPaneArea(OstrelCore::PaneSize size) { paneArea_ = size; }

    // MARK: Saved state
    // Writes the whole state file now; a write failure is dropped and the next change retries.
    void save();
    void load();
    SavedState savedState() const;
    // Every alive session by project, with the command that brings it back and its pane slot.
    std::map<UUID, std::vector<RestorableSession>> restorableSessions() const;
    // Starts the recorded sessions again, unless "restore.enabled" is off.
    void restoreSessions(const std::map<UUID, std::vector<RestorableSession>>& records);

    // MARK: Branches
    void startBranchTimer();
    void refreshBranches();

    // MARK: Application
    // Active: branches are read every 15 seconds; inactive: not at all. A headless run is active.
    void setApplicationActive(bool active);
    TerminateReply applicationShouldTerminate();
    void resolveQuit(bool confirmed);
    // Saves first, while sessions are alive, so that they are recorded; then ends each session.
    void shutdown();
    void bumpRemote();

    // The store changed (any of the state above, or a session's facts).
    std::function<void()> onChange;
    // The platform's deferred terminate request gets its answer.
    std::function<void(bool terminate)> onQuitReply;
    Hooks hooks;

    // Desktop notifications, installed once at start (none: attention stays in the sidebar). The
    // store answers their clicks: a click on a notification selects its session, and its approve
    // and deny buttons go to the session's answer(), which drops a stale one.
    void setNotifications(SessionNotifications* notifications);

    // MARK: Steering
    // Where sessions find the quota windows that date an auto-resume; none: no windows known.
    // Sessions started afterwards use it.
    void setQuotaWindows(std::shared_ptr<const QuotaWindowsProvider> provider);

private:
    void assertMainThread() const;
    void changed();
    void installCallbacks(const Session& session);
    void sessionChanged();
    void sessionFocused(SessionController& session);
    void sessionHostAttached(SessionController& session);
    void sessionNeedsAttention(SessionController& session);
    Project* findProject(const UUID& id);
    OstrelCore::PaneNode& tree(const UUID& projectID);
    void storeTree(const UUID& projectID, OstrelCore::PaneNode tree);
    std::vector<UUID> aliveSessionIDs(const UUID& projectID) const;
    // MARK: Steering
    SessionOptions steeringOptions() const;
    void sessionAutoResumed(SessionController& session);

    const std::string stateURL_;
    Settings& settings_;
    const Options options_;
    const std::thread::id mainThread_ = std::this_thread::get_id();
    UsageEvents usageEvents_;

    std::vector<Project> projects_;
    std::vector<Session> sessions_;
    std::optional<UUID> selectedSessionID_;
    std::optional<UUID> selectedProjectID_;
    std::map<UUID, OstrelCore::PaneNode> layouts_;
    std::map<UUID, UUID> focusedPanes_;
    std::vector<OstrelCore::PaneTemplate> templates_;
    std::set<UUID> collapsedProjects_;
    std::optional<UUID> draggingProjectID_;
    std::map<std::string, std::int64_t> usageCounts_;
    std::optional<std::pair<UUID, UUID>> pendingPane_;
    Overlays overlays_;
    std::optional<UUID> searchingSessionID_;
    std::int64_t remoteRevision_ = 0;
    std::map<UUID, std::string> gitBranches_;
    std::unique_ptr<MainTimer> branchTimer_;
    OstrelCore::PaneSize paneArea_;
    bool sidebarHidden_ = false;
    Session sessionPendingClose_;
    bool confirmingQuit_ = false;
    bool quitReplyPending_ = false;
    bool applicationActive_ = true;
    SessionNotifications* notifications_ = nullptr;
    std::map<UUID, std::vector<RestorableSession>> pendingRestore_;
    std::shared_ptr<const QuotaWindowsProvider> quotaWindows_ = std::make_shared<NoQuotaWindows>();

    // Background branch reads hop back only while this is open; the destructor closes it, so a
    // read that finishes late never reaches a store or a loop that is gone.
    struct BackgroundGate;
    std::shared_ptr<BackgroundGate> gate_;
};

} // namespace Ostrel
