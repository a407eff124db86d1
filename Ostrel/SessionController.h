// One running terminal session: starts its process, watches its byte stream, decides its status,
// keeps the agent's facts (model, context, effort, permission mode, pending approval) and is the
// only place that types into the terminal on the workspace's behalf. Main thread only.
#pragma once

#include "Ostrel/MainTimer.h"
#include "Ostrel/QuotaWindowsProvider.h"
#include "Ostrel/SessionTelemetry.h"
#include "Ostrel/SessionTerminalView.h"
#include "Ostrel/Settings.h"
#include "OstrelCore/AgentPhase.h"
#include "OstrelCore/ApprovalPolicy.h"
#include "OstrelCore/CodexPicker.h"
#include "OstrelCore/RateLimitBlock.h"
#include "OstrelCore/SessionKind.h"
#include "OstrelCore/TranscriptReading.h"
#include "OstrelCore/UUID.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Ostrel {

using OstrelCore::SessionKind;
using OstrelCore::SessionStatus;
using OstrelCore::UUID;

// Where a view shows a session's terminal. A session may have several candidate hosts while panes
// are rearranged; the newest one that sits in a window gets the terminal.
class SessionHost {
public:
    virtual ~SessionHost() = default;
    virtual bool inWindow() const = 0;
    // The terminal is moved into this host and made to fill it.
    virtual void adopt(SessionTerminalView& terminal) = 0;
    // The terminal left this host (another took it, or none is left).
    virtual void release(SessionTerminalView& terminal) = 0;
};

// Periods and thresholds of the status rules. Tests shorten them; the workspace uses these.
struct SessionTiming {
    std::chrono::milliseconds statusPeriod{1500};    // silence checks, agents only
    std::chrono::milliseconds telemetryPeriod{4000}; // transcript polls, agents only
    std::chrono::milliseconds noticeDuration{5000};  // a transient notice stays this long
    // Output wakes a settled (ready, waiting, idle) session only this soon after real typing.
    double inputWakeWindow = 2.0;
    double agentSilenceThreshold = 6.0; // seconds without output before the transcript decides
    // The planned auto-resume looks at the session's clock at least this often, so that a
    // machine that slept or a clock that was set still resumes at the right date.
    std::chrono::milliseconds resumeCheckPeriod{30000};
};

class SessionController;

struct SessionOptions {
    std::function<std::chrono::system_clock::time_point()> clock; // empty: the system clock
    SessionTiming timing;
    std::optional<std::string> shell; // empty: the user's login shell
    std::optional<std::string> home;  // empty: the user's home folder
    // A session's terminal before a view sizes it.
    int columns = 120;
    int rows = 40;
    // What later modules plug into an agent session, all called on the main thread; each may
    // stay empty.
    // Where the transcript binding looks: file system, home folder and time zone. Empty: the real
    // file system with `home` above (or the user's) and the local zone.
    std::optional<TelemetryEnvironment> telemetryEnvironment;
    // Asked at each telemetry tick while the process runs: the quota service refreshes when its
    // own schedule says a refresh is due, never forced from here.
    std::function<void()> quotaRefresh;
    // Stands in for the transcript poll (tests that set a phase without writing a transcript):
    // when set, each telemetry tick applies what it returns and polls nothing.
    std::function<std::optional<OstrelCore::TranscriptReading>(SessionController&)> injectedReading;

    // MARK: Steering (SessionSteering.cpp)
    // The switches ("resume.auto"); none: every switch at its default.
    const Settings* settings = nullptr;
    // The quota windows that date an auto-resume; none: the agent's own notice alone dates it.
    std::shared_ptr<const QuotaWindowsProvider> quotaWindows;
    // The platform's beep, when a typed plan is refused. Empty: a line on the diagnostics log.
    std::function<void()> beep;
};

class SessionController : public std::enable_shared_from_this<SessionController> {
public:
    using TimePoint = std::chrono::system_clock::time_point;
    using Clock = std::function<TimePoint()>;

    static constexpr double defaultFontSize = 11.0;
    static constexpr double minimumFontSize = 9.0;
    static constexpr double maximumFontSize = 28.0;

    using Timing = SessionTiming;
    using Options = SessionOptions;

    // What the process start composed: the program, its arguments and environment.
    struct Launch {
        std::string executable;
        std::vector<std::string> arguments;
        std::vector<std::string> environment;

        bool operator==(const Launch&) const = default;
    };

    // Variables an agent sets for its own children. Inherited by a session, they would make an
    // agent started there believe it runs inside another one.
    static constexpr std::string_view removedVariables[] = {"CLAUDECODE",
                                                            "CLAUDE_CODE_CHILD_SESSION",
                                                            "CLAUDE_CODE_SKIP_PROMPT_HISTORY",
                                                            "CLAUDE_CODE_ENTRYPOINT",
                                                            "CLAUDE_CODE_SSE_PORT",
                                                            "CLAUDE_CODE_SESSION_ID"};
    // Replaces the user's status line by a command that prints nothing: its output would disturb
    // the status detection, and the workspace shows the same facts itself.
    static constexpr std::string_view quietStatusLine =
        R"( --settings '{"statusLine":{"type":"command","command":":"}}')";

    // Creates the controller and starts its process in `cwd`.
    static std::shared_ptr<SessionController> create(UUID projectID, std::string cwd, SessionKind kind,
                                                     std::optional<std::string> command, std::string title,
                                                     Options options = {});
    ~SessionController();
    SessionController(const SessionController&) = delete;
    SessionController& operator=(const SessionController&) = delete;

    // The process start without starting anything: environment, arguments and shell for a kind and
    // command, with the login environment as LoginEnv has it now.
    static Launch composeLaunch(SessionKind kind, const std::optional<std::string>& command,
                                const std::string& shell, const std::string& home);

    // Identity and what the session was started with.
    const UUID& id() const { return id_; }
    const UUID& projectID() const { return projectID_; }
    SessionKind kind() const { return kind_; }
    const std::optional<std::string>& command() const { return command_; }
    const std::string& cwd() const { return cwd_; }
    TimePoint startedAt() const { return startedAt_; }
    const Launch& launch() const { return launch_; }

    // What the session shows.
    const std::string& userTitle() const { return userTitle_; }
    const std::string& autoTitle() const { return autoTitle_; }
    // The user's title, else the learned one, else the kind's name.
    std::string displayTitle() const;
    const SessionStatus& status() const { return status_; }
    bool needsAttention() const { return needsAttention_; }
    std::optional<int> detectedPort() const { return detectedPort_; }
    double fontSize() const { return fontSize_; }
    std::optional<std::int64_t> tintIndex() const { return tintIndex_; }
    const std::optional<std::string>& transientNotice() const { return transientNotice_; }

    // The agent's facts.
    const std::optional<std::string>& modelName() const { return modelName_; }
    std::optional<std::int64_t> contextUsed() const { return contextUsed_; }
    std::optional<std::int64_t> reportedContextWindow() const { return reportedContextWindow_; }
    const std::optional<std::string>& effortLevel() const { return effortLevel_; }
    const std::optional<std::string>& permissionMode() const { return permissionMode_; }
    const std::optional<OstrelCore::ApprovalPolicy::Request>& pendingRequest() const {
        return pendingRequest_;
    }
    std::optional<TimePoint> approvalAskedAt() const { return approvalAskedAt_; }
    bool approvalAnswered() const { return approvalAnswered_; }
    const std::optional<OstrelCore::RateLimitBlock>& rateLimitBlock() const { return rateLimitBlock_; }
    std::optional<TimePoint> resumesAt() const { return resumesAt_; }
    int resumeAttempts() const { return resumeAttempts_; }
    const std::vector<OstrelCore::CodexModel>& codexCatalog() const { return codexCatalog_; }
    bool bypassInCycle() const { return bypassInCycle_; }
    std::optional<TimePoint> permissionSwitchedAt() const { return permissionSwitchedAt_; }
    std::optional<TimePoint> modelSwitchedAt() const { return modelSwitchedAt_; }
    const std::optional<std::string>& modelSwitchedFrom() const { return modelSwitchedFrom_; }
    std::optional<OstrelCore::AgentPhase> agentPhase() const { return agentPhase_; }
    const std::optional<std::string>& resumeID() const { return resumeID_; }
    const std::optional<std::string>& resumeIDSourcePath() const { return resumeIDSourcePath_; }
    // The transcript binding of an agent session, as the last poll left it.
    const std::optional<SessionTelemetry>& telemetry() const { return telemetry_; }
    // The context the agent can fill before it compacts: the reported window, else the model's;
    // four fifths of it for Claude.
    std::int64_t usableContext() const;

    // The status rules' memory.
    TimePoint lastOutputAt() const { return lastOutputAt_; }
    TimePoint lastRealInputAt() const { return lastRealInputAt_; }
    bool hasExited() const { return hasExited_; }
    bool userHasInteracted() const { return userHasInteracted_; }
    bool claudeTitleFromOSC() const { return claudeTitleFromOSC_; }
    double agentSilenceThreshold() const { return timing_.agentSilenceThreshold; }
    bool statusTimerRunning() const { return statusTimer_ != nullptr; }
    bool telemetryTimerRunning() const { return telemetryTimer_ != nullptr; }

    SessionTerminalView& terminalView() { return *terminalView_; }
    std::shared_ptr<SessionHost> hostView() const { return hostView_.lock(); }

    // Typing. send() is the input path of the person's keys (see SessionTerminalView::send);
    // sendLine() types a line for them: the text and a carriage return, nothing else.
    void send(std::string_view bytes);
    void sendLine(std::string_view text);

    void setUserTitle(std::string title);
    void clearAttention();
    // Stops the timers and, unless it exited, ends the process. The controller stays readable.
    void shutdown();
    // Font size in steps, kept within 9 to 28; a view re-applies font and background on change.
    void zoom(double delta);
    void setFontSize(double value);
    void setTint(std::optional<std::int64_t> index);
    // A short message over the pane, gone after the notice duration.
    void showNotice(std::string text);

    // Host bookkeeping; the terminal and its process live on whatever happens to the hosts.
    void addHost(const std::shared_ptr<SessionHost>& host);
    void removeHost(const std::shared_ptr<SessionHost>& host);
    // The view's terminal got the keyboard focus.
    void terminalFocused();

    // Applies what the newest transcript lines say (model, context, phase and pending approval,
    // title, permission mode). The telemetry tick calls it on the main thread with each fresh
    // reading; tests use it to set the phase the silence rule reads.
    void applyReading(const OstrelCore::TranscriptReading& reading);
    // The session's provider id, learned from the transcript it is bound to: `sessionID` is what
    // the binding read there (the file name for Claude, its last 36 characters for Codex, the
    // "sessionId" in the head for Gemini). A path seen before changes nothing; a Gemini file that
    // names no id keeps the former one.
    void updateResumeID(const std::string& transcriptPath, const std::optional<std::string>& sessionID);

    // MARK: Approvals from notifications and the phone
    // Types the answer to the approval the session waits on: carriage return to approve, ESC to
    // deny. Only while it still waits, once per wait, and within 900 s of the question (`now` is
    // the moment the answer was given); otherwise nothing happens and the answer is false.
    bool answer(OstrelCore::ApprovalPolicy::Decision decision, TimePoint now);

    // MARK: Steering (SessionSteering.cpp): typing into the agent on the person's behalf.
    // Every delayed keystroke runs on the main queue and only while this session is alive.

    // Auto-resumes of one session, at most; a `likely` block gets a single one.
    static constexpr int maxResumeAttempts = 3;
    // The bottom rows of the screen in which the agent's input box is sought.
    static constexpr int composerRows = 14;

    // What the person left in the agent's input box: none when no box is recognised, "" for an
    // empty one (or one that shows only its hint).
    std::optional<std::string> composerDraft();
    // Sends `text` as a prompt and puts a one-line draft back afterwards. False (with a beep and
    // the notice "pane.draftBusy") when the box can't be read or holds several lines.
    bool sendPreservingDraft(std::string_view text);
    // Efforts the agent offers now: Codex's from its model catalogue.
    std::vector<std::string> effortChoices() const;
    // The modes Shift-Tab steps through, in order.
    std::vector<std::string> permissionCycle() const;
    // Each returns whether keys were (or are being) typed.
    bool switchModel(const std::string& value);
    bool switchEffort(const std::string& value);
    bool switchPermissionMode(const std::string& value);
    // Codex's model menu: "/model", then one digit per menu level, around the draft.
    bool typeCodexPicker(const std::string& model, const std::optional<std::string>& effort);
    // Output with a limit marker: recognises a usage-limit block and plans the resume.
    void onLimitCandidate(std::string_view text);
    void scheduleResume(const OstrelCore::RateLimitBlock& block);
    // A keystroke plan is still typing.
    bool typingPending() const;

    // Callbacks to the owner, all on the main thread.
    std::function<void()> onChange;
    std::function<void()> onFocus;
    std::function<void()> onHostAttached;
    std::function<void(SessionController&)> onAttention;
    // Typing answered the question the session waited on: its delivered notification can go.
    std::function<void()> onWaitAnswered;
    // The provider's session id changed: the store records it, so that a restart resumes the
    // right conversation.
    std::function<void()> onResumeIDChange;
    // Usage events of the session ("notification_answer").
    std::function<void(std::string_view event)> onUsageEvent;
    // "continue" was typed after a rate limit lifted: the owner notifies and counts it.
    std::function<void(SessionController&)> onAutoResumed;

private:
    struct Passkey {};

public:
    SessionController(Passkey, UUID projectID, std::string cwd, SessionKind kind,
                      std::optional<std::string> command, std::string title, Options options);

private:
    TimePoint now() const;
    double secondsSince(TimePoint then) const;
    void start();
    void installViewCallbacks();
    void loadAgentDefaults();
    void changed();

    // Status rules.
    void setStatus(SessionStatus next);
    void outputSeen();
    void bellRang();
    void userTyped();
    void statusTick();
    void telemetryTick();
    void adoptPoll(TelemetryPoll update);
    void processExited(std::optional<std::int32_t> rawStatus);

    // Signals in the output.
    void portCandidate(std::string_view text);
    void modelCandidate(std::string_view text);
    void limitCandidate(std::string_view text);
    void titleChanged(const std::string& title);
    void directoryChanged(const std::string& location);
    void noteModelSwitch(std::string value);

    void scheduleHostReconcile();
    void reconcileHosts();

    // MARK: Steering (SessionSteering.cpp)
    void refuseTyping();
    bool autoResumeOn() const;
    // Types `bytes` after `delay` seconds on the main queue, unless the session is gone by then.
    void typeAfter(double delay, std::string bytes);
    void armResumeTimer();
    void resumeTimerFired();

    const UUID id_ = UUID::random();
    const UUID projectID_;
    const SessionKind kind_;
    const std::optional<std::string> command_;
    const std::string cwd_;
    const Options options_;
    const Timing timing_;
    const TimePoint startedAt_;
    Launch launch_;

    std::string userTitle_;
    std::string autoTitle_;
    SessionStatus status_ = SessionStatus::working();
    bool needsAttention_ = false;
    std::optional<int> detectedPort_;
    double fontSize_ = defaultFontSize;
    std::optional<std::int64_t> tintIndex_;
    std::optional<std::string> modelName_;
    std::optional<std::int64_t> contextUsed_;
    std::optional<std::int64_t> reportedContextWindow_;
    std::optional<std::string> effortLevel_;
    std::optional<std::string> permissionMode_;
    std::optional<OstrelCore::ApprovalPolicy::Request> pendingRequest_;
    std::optional<TimePoint> approvalAskedAt_;
    bool approvalAnswered_ = false;
    std::optional<OstrelCore::RateLimitBlock> rateLimitBlock_;
    std::optional<TimePoint> resumesAt_;
    std::unique_ptr<MainTimer> resumeTimer_;
    int resumeAttempts_ = 0;
    std::vector<OstrelCore::CodexModel> codexCatalog_;
    bool bypassInCycle_ = false;
    std::optional<TimePoint> permissionSwitchedAt_;
    std::optional<TimePoint> modelSwitchedAt_;
    std::optional<std::string> modelSwitchedFrom_;
    std::shared_ptr<SessionTerminalView> terminalView_;
    std::weak_ptr<SessionHost> hostView_;
    std::vector<std::weak_ptr<SessionHost>> hostCandidates_;
    bool hostReconcilePending_ = false;
    std::optional<OstrelCore::AgentPhase> agentPhase_;
    TimePoint lastOutputAt_;
    TimePoint lastRealInputAt_ = TimePoint::min();
    std::unique_ptr<MainTimer> statusTimer_;
    std::unique_ptr<MainTimer> telemetryTimer_;
    bool claudeTitleFromOSC_ = false;
    bool hasExited_ = false;
    bool userHasInteracted_ = false;
    std::optional<std::string> transientNotice_;
    std::unique_ptr<MainTimer> noticeTimer_;
    std::optional<std::string> resumeID_;
    std::optional<std::string> resumeIDSourcePath_;
    std::optional<SessionTelemetry> telemetry_;
    bool pollInFlight_ = false;      // a copy is out on the pool: the next tick skips
    bool telemetryReleased_ = false; // shutdown let go of the claims: a late copy lets go too

    // MARK: Steering (SessionSteering.cpp)
    std::vector<std::unique_ptr<MainTimer>> typingSteps_; // the pending keystrokes of a plan
};

} // namespace Ostrel
