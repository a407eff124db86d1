// Steering with a real agent stand-in on a pseudo-terminal: it draws an input box, edits its draft
// with the keys it gets and records every byte with its arrival time, so that these tests see the
// keystrokes exactly as an agent would. The session's clock is moved by hand for rate limits.
#include "Ostrel/AppStore.h"
#include "Ostrel/Localization.h"
#include "Ostrel/SessionController.h"
#include "TerminalEngine/Terminal/ScreenSnapshot.h"
#include "WorkspaceHarness.h"

#include <cmath>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <date/date.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace Ostrel {
namespace {

using namespace Testing;
using OstrelCore::QuotaWindow;
using OstrelCore::TranscriptReading;

const std::string agentScript = std::string(OSTREL_SOURCE_DIR) + "/tests/agents/steering_agent.py";

// What the stand-in read, byte by byte, with the time each byte arrived (seconds, monotonic).
struct Received {
    std::string bytes;
    std::vector<double> arrivals;

    // Seconds between the arrival of byte `later` and byte `earlier`.
    double gap(std::size_t earlier, std::size_t later) const { return arrivals[later] - arrivals[earlier]; }
};

class QuotaWindowsForTest final : public QuotaWindowsProvider {
public:
    std::vector<QuotaWindow> quotaWindows() const override { return windows; }
    std::vector<QuotaWindow> windows;
};

class SessionNotificationsForTest final : public SessionNotifications {
public:
    Attention attention(const NotificationSubject&, SessionVisibility) override { return Attention::pending; }
    void clearDelivered(const UUID&) override {}
    void notifyResumed(std::string_view title) override { resumed.emplace_back(title); }
    std::vector<std::string> resumed;
};

class SessionSteeringTest : public ::testing::Test {
protected:
    struct Agent {
        std::shared_ptr<SessionController> session;
        std::string log;
        int control = -1;
    };

    SessionSteeringTest() {
        LoginEnv::setCached(std::vector<std::string>{"PATH=/usr/local/bin:/usr/bin:/bin"});
        options.clock = clock.function();
        options.shell = "/bin/sh";
        options.timing.statusPeriod = 60s; // the status rules are not under test here
        options.timing.telemetryPeriod = 60s;
        options.timing.noticeDuration = 60s;
        options.timing.resumeCheckPeriod = 10ms; // the hand-moved clock is seen at once
        options.settings = &settings;
        options.quotaWindows = quota;
        options.beep = [this] { ++beeps; };
    }
    ~SessionSteeringTest() override {
        for (Agent& agent : agents) {
            agent.session->shutdown();
            ::close(agent.control);
        }
    }

    // The stand-in's command line and files; `box` false draws plain output only.
    std::string agentCommand(Agent& agent, const std::string& draft, bool box) {
        const std::string name = "agent-" + std::to_string(agents.size());
        agent.log = home / (name + ".log");
        const std::string control = home / (name + ".control");
        ::mkfifo(control.c_str(), 0600);
        agent.control = ::open(control.c_str(), O_RDWR | O_CLOEXEC);
        home.write(
            name + ".json",
            nlohmann::json{{"log", agent.log}, {"control", control}, {"draft", draft}, {"box", box}}.dump());
        return "exec python3 '" + agentScript + "' '" + (home / (name + ".json")) + "'";
    }

    // Starts a stand-in and waits until its box (or, without one, its first line) is on screen.
    Agent& start(SessionKind kind, const std::string& draft = "", bool box = true) {
        Agent& agent = agents.emplace_back();
        agent.session = SessionController::create(UUID::random(), home.path(), kind,
                                                  agentCommand(agent, draft, box), "", options);
        agent.session->onChange = [this] { ++changes; };
        agent.session->onAutoResumed = [this](SessionController&) { ++autoResumes; };
        ready(agent, draft, box);
        return agent;
    }
    void ready(Agent& agent, const std::string& draft, bool box) {
        const bool shown = main.runUntil(
            [&] {
                return screenHas(*agent.session, "agent ready") &&
                       (!box || agent.session->composerDraft() == draft);
            },
            10s);
        ASSERT_TRUE(shown) << "the stand-in never drew its screen:\n"
                           << TerminalEngine::ScreenSnapshot::text(agent.session->terminalView().terminal());
    }

    static bool screenHas(SessionController& session, std::string_view text) {
        auto& terminal = session.terminalView().terminal();
        for (int row = 0; row < terminal.rows; ++row)
            if (terminal.lineText(row).find(text) != std::string::npos) return true;
        return false;
    }

    static Received received(const Agent& agent) {
        Received result;
        std::ifstream in(agent.log);
        double seconds = 0;
        std::string hex;
        while (in >> seconds >> hex)
            for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
                result.bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
                result.arrivals.push_back(seconds);
            }
        return result;
    }
    // Runs the loop until the stand-in has read `count` bytes; false on a hang.
    bool receive(const Agent& agent, std::size_t count) {
        return main.runUntil([&] { return received(agent).bytes.size() >= count; }, 10s);
    }
    // Has the stand-in print a line above its box, and waits until the session read all of it.
    void say(const Agent& agent, const std::string& text) {
        const std::string line = "say " + text + "\n";
        const auto before = agent.session->terminalView().receivedBytes();
        ASSERT_EQ(::write(agent.control, line.data(), line.size()), static_cast<ssize_t>(line.size()));
        ASSERT_TRUE(main.runUntil(
            [&] { return agent.session->terminalView().receivedBytes() >= before + text.size(); }, 10s));
        main.runFor(30ms);
    }

    // A limit notice that names its reset as a timestamp `seconds` after the session's now.
    std::string noticeResettingIn(int seconds) const {
        const auto at = std::chrono::floor<std::chrono::seconds>(clock.now) + std::chrono::seconds(seconds);
        return "Claude usage limit reached. Resets at " + date::format("%FT%TZ", at);
    }

    TemporaryHome home;
    MainLoop main;
    ManualClock clock;
    Settings settings{home / "config/Ostrel/settings.json"};
    std::shared_ptr<QuotaWindowsForTest> quota = std::make_shared<QuotaWindowsForTest>();
    SessionController::Options options;
    std::vector<Agent> agents;
    int beeps = 0, changes = 0, autoResumes = 0;
};

TEST_F(SessionSteeringTest, PromptIsTypedAroundTheDraftOrRefusedWhenTheBoxCantTakeIt) {
    const std::string clear5 = std::string(5, '\x7f') + "\x05";
    struct Case {
        const char* name;
        std::string draft;
        bool box;
        bool typed;
        std::string immediately; // what the agent reads at once
        std::string afterwards;  // what follows after the pause
    };
    const Case cases[] = {
        {"five characters are cleared, then typed back", "hello", true, true, clear5 + "fix it\r", "hello"},
        {"an empty box takes the line alone", "", true, true, "fix it\r", ""},
        {"no box on screen", "", false, false, "", ""},
        {"a draft of two lines", "abc\ndef", true, false, "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const int beepsBefore = beeps;
        Agent& agent = start(SessionKind::claude, c.draft, c.box);
        EXPECT_EQ(agent.session->sendPreservingDraft("fix it"), c.typed);
        const std::string all = c.immediately + c.afterwards;
        if (!c.typed) {
            main.runFor(600ms);
            EXPECT_EQ(received(agent).bytes, "");
            EXPECT_EQ(beeps, beepsBefore + 1);
            EXPECT_EQ(agent.session->transientNotice(), std::string(Localization::text("pane.draftBusy")));
            continue;
        }
        ASSERT_TRUE(receive(agent, all.size()));
        main.runFor(100ms); // nothing more comes
        const Received got = received(agent);
        EXPECT_EQ(got.bytes, all);
        EXPECT_EQ(beeps, beepsBefore);
        if (!c.afterwards.empty()) {
            const std::size_t returnKey = c.immediately.size() - 1;
            EXPECT_NEAR(got.gap(returnKey, returnKey + 1), 0.4, 0.2);
        }
        // The agent took the prompt and shows the draft again.
        EXPECT_TRUE(main.runUntil([&] { return screenHas(*agent.session, "submitted: fix it"); }, 5s));
        EXPECT_TRUE(main.runUntil([&] { return agent.session->composerDraft() == c.draft; }, 5s));
    }
}

TEST_F(SessionSteeringTest, ModelSwitchOutlivesTheOldTranscriptAndPermissionModeCyclesWithShiftTab) {
    home.write(".claude/settings.json", R"({"model":"claude-sonnet-4"})");
    Agent& agent = start(SessionKind::claude);
    SessionController& session = *agent.session;
    ASSERT_TRUE(session.switchModel("claude-opus-4-1"));
    ASSERT_TRUE(session.switchEffort("max"));
    const std::string typed = "/model claude-opus-4-1\r/effort max\r";
    ASSERT_TRUE(receive(agent, typed.size()));
    EXPECT_EQ(received(agent).bytes, typed);
    EXPECT_EQ(session.effortLevel(), "max");
    EXPECT_EQ(session.modelSwitchedFrom(), "claude-sonnet-4");
    // For two minutes the transcript may still name the old model; then it is believed again.
    const TranscriptReading old{.model = "claude-sonnet-4"};
    clock.advance(119);
    session.applyReading(old);
    EXPECT_EQ(session.modelName(), "claude-opus-4-1");
    clock.advance(2);
    session.applyReading(old);
    EXPECT_EQ(session.modelName(), "claude-sonnet-4");

    ASSERT_EQ(session.permissionMode(), "default");
    struct Step {
        const char* target;
        int presses; // -1: refused
    };
    const auto run = [&](std::initializer_list<Step> steps) {
        for (const Step& step : steps) {
            SCOPED_TRACE(step.target);
            const auto before = received(agent).bytes.size();
            const auto modeBefore = session.permissionMode();
            clock.advance(1);
            EXPECT_EQ(session.switchPermissionMode(step.target), step.presses >= 0);
            if (step.presses < 0) {
                main.runFor(50ms);
                EXPECT_EQ(received(agent).bytes.size(), before);
                EXPECT_EQ(session.permissionMode(), modeBefore);
                continue;
            }
            std::string expected;
            for (int i = 0; i < step.presses; ++i)
                expected += "\x1b[Z";
            ASSERT_TRUE(receive(agent, before + expected.size()));
            EXPECT_EQ(received(agent).bytes.substr(before), expected);
            EXPECT_EQ(session.permissionMode(), step.target);
            EXPECT_EQ(session.permissionSwitchedAt(), clock.now);
        }
    };
    run({{"plan", 2}, {"default", 1}, {"default", -1}, {"bypassPermissions", -1}, {"yolo", -1}});

    // The transcript shows bypass mode once the switch has settled: it joins the cycle for good.
    clock.advance(11);
    session.applyReading(TranscriptReading{.permissionMode = "bypassPermissions"});
    ASSERT_TRUE(session.bypassInCycle());
    run({{"default", 1}, {"bypassPermissions", 3}, {"plan", 3}, {"acceptEdits", 3}});
}

TEST_F(SessionSteeringTest, CodexModelMenuIsTypedKeyByKeyWithItsPauses) {
    Agent& agent = start(SessionKind::codex, "ab");
    // Written after the start: the plan reads the catalogue again when it has none.
    home.write(".codex/models_cache.json", R"({"models":[
        {"slug":"codex-auto-fast","visibility":"list","supported_reasoning_levels":[{"effort":"low"}]},
        {"slug":"gpt-5","visibility":"list","supported_reasoning_levels":[{"effort":"low"},{"effort":"high"}]},
        {"slug":"gpt-5-codex","visibility":"list","default_reasoning_level":"medium",
         "supported_reasoning_levels":[{"effort":"low"},{"effort":"medium"},{"effort":"high"}]}]})");
    SessionController& session = *agent.session;
    EXPECT_FALSE(session.switchModel("gpt-9")); // not in the menu: nothing typed
    EXPECT_FALSE(session.switchEffort("high")); // no model known yet: no menu to walk
    // "ultra" isn't an effort of this model: its default, medium, is chosen.
    ASSERT_TRUE(session.typeCodexPicker("gpt-5-codex", "ultra"));
    EXPECT_EQ(session.modelName(), "gpt-5-codex");
    EXPECT_EQ(session.effortLevel(), "medium");

    // Menu: preset 1, "other models" 2, then the second regular model and the second effort.
    struct Key {
        std::string bytes;
        double at; // seconds after the first key
    };
    const Key plan[] = {{"\x7f\x7f\x05", 0.0}, {"/", 0.2},  {"m", 0.23}, {"o", 0.26},
                        {"d", 0.29},           {"e", 0.32}, {"l", 0.35}, {"\r", 0.63},
                        {"2", 1.23},           {"2", 1.63}, {"2", 2.03}, {"ab", 2.83}};
    std::string expected;
    for (const Key& key : plan)
        expected += key.bytes;
    ASSERT_TRUE(receive(agent, expected.size()));
    const Received got = received(agent);
    ASSERT_EQ(got.bytes, expected);
    std::size_t offset = 0;
    for (const Key& key : plan) {
        EXPECT_NEAR(got.gap(0, offset), key.at, 0.2) << "key " << offset;
        offset += key.bytes.size();
    }
    // The menu took the digits, and the draft is back in the box.
    EXPECT_TRUE(screenHas(session, "menu choice 2"));
    EXPECT_TRUE(main.runUntil([&] { return session.composerDraft() == "ab"; }, 5s));
}

TEST_F(SessionSteeringTest, AutoResumeTypesContinueAtTheLaterResetAtMostThreeTimes) {
    // Through the store, which notifies and counts each resume.
    AppStore::Options storeOptions;
    storeOptions.prewarmLoginEnvironment = false;
    storeOptions.session = options;
    storeOptions.session.settings = nullptr; // the store's own
    storeOptions.usageEventsPath = home / "usage.jsonl";
    AppStore store(home / "state.json", settings, storeOptions);
    store.launch();
    store.onChange = [this] { ++changes; };
    SessionNotificationsForTest notifications;
    store.setNotifications(&notifications);
    const UUID projectID = store.addProject(home.path()).id;
    Agent& agent = agents.emplace_back();
    agent.session =
        store.startSession(SessionKind::claude, projectID, {agentCommand(agent, "", true), "api"});
    ready(agent, "", true);
    SessionController& session = *agent.session;

    // The resume date takes the provider's quota window when it is later.
    using P = QuotaWindow::Provider;
    struct Window {
        P provider;
        std::optional<double> resetsIn; // seconds from now; none: the provider gave no date
    };
    struct Case {
        const char* name;
        std::vector<Window> windows;
        std::optional<double> quotaReset; // none: the notice's own reset decides
    };
    const Case cases[] = {
        {"no windows", {}, std::nullopt},
        {"a later window of the provider", {{P::codex, 900}, {P::claude, 200}}, 200},
        {"a past window is passed over", {{P::claude, -50}, {P::claude, 300}}, 300},
        {"an undated window ends the search", {{P::claude, std::nullopt}, {P::claude, 300}}, std::nullopt},
        {"an earlier window", {{P::claude, 2}}, std::nullopt},
        {"beyond seven days", {{P::claude, 8 * 86400}}, std::nullopt},
    };
    int noticeReset = 5;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        clock.advance(1);
        quota->windows.clear();
        for (const Window& w : c.windows) {
            QuotaWindow window;
            window.provider = w.provider;
            if (w.resetsIn)
                window.resetsAt = clock.now + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                                  std::chrono::duration<double>(*w.resetsIn));
            quota->windows.push_back(window);
        }
        say(agent, noticeResettingIn(noticeReset)); // every notice a new one
        ASSERT_TRUE(session.resumesAt());
        const double planned = std::chrono::duration<double>(*session.resumesAt() - clock.now).count();
        // The later reset plus the margin; the notice names whole seconds.
        EXPECT_NEAR(planned, c.quotaReset.value_or(noticeReset) + 90.0, 1.0);
        ++noticeReset;
    }
    quota->windows.clear();

    for (int attempt = 1; attempt <= 4; ++attempt) {
        SCOPED_TRACE(attempt);
        const std::string notice = noticeResettingIn(5);
        say(agent, notice);
        ASSERT_TRUE(session.rateLimitBlock());
        if (attempt == 4) {
            EXPECT_FALSE(session.resumesAt()); // three resumes were enough
            break;
        }
        ASSERT_TRUE(session.resumesAt());
        const auto planned = *session.resumesAt();
        // The agent repaints the same notice: nothing is planned anew.
        const int changesBefore = changes;
        say(agent, notice);
        EXPECT_EQ(session.resumesAt(), planned);
        EXPECT_EQ(changes, changesBefore);

        const auto before = received(agent).bytes.size();
        clock.advance(94); // one second short of reset plus margin
        main.runFor(100ms);
        EXPECT_EQ(received(agent).bytes.size(), before);
        clock.advance(1.5);
        ASSERT_TRUE(receive(agent, before + 9));
        EXPECT_EQ(received(agent).bytes.substr(before), "continue\r");
        EXPECT_EQ(session.resumeAttempts(), attempt);
        EXPECT_FALSE(session.rateLimitBlock());
        EXPECT_FALSE(session.resumesAt());
    }
    EXPECT_EQ(notifications.resumed, (std::vector<std::string>(3, "api")));
    const auto events = home.read("usage.jsonl").value_or("");
    std::size_t count = 0;
    for (auto at = events.find("\"auto_resume\""); at != std::string::npos;
         at = events.find("\"auto_resume\"", at + 1))
        ++count;
    EXPECT_EQ(count, 3u);
    store.setNotifications(nullptr);
    store.shutdown();
}

TEST_F(SessionSteeringTest, NoResumeWhenSwitchedOffOrTheAgentIsGone) {
    struct Case {
        const char* name;
        bool offAtNotice;
        bool offBeforeReset;
        bool exitBeforeReset;
    };
    const Case cases[] = {
        {"switched off before the notice", true, false, false},
        {"switched off while waiting", false, true, false},
        {"the agent exited while waiting", false, false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        settings.remove("resume.auto"); // unset means on
        Agent& agent = start(SessionKind::claude);
        SessionController& session = *agent.session;
        if (c.offAtNotice) settings.setBoolean("resume.auto", false);
        say(agent, noticeResettingIn(5));
        EXPECT_EQ(session.rateLimitBlock().has_value(), !c.offAtNotice);
        EXPECT_EQ(session.resumesAt().has_value(), !c.offAtNotice);
        if (c.offBeforeReset) settings.setBoolean("resume.auto", false);
        if (c.exitBeforeReset) {
            const std::string line = "exit 0\n";
            ASSERT_EQ(::write(agent.control, line.data(), line.size()), static_cast<ssize_t>(line.size()));
            ASSERT_TRUE(main.runUntil([&] { return session.hasExited(); }, 10s));
        }
        clock.advance(200);
        main.runFor(100ms);
        EXPECT_FALSE(session.resumesAt());
        EXPECT_EQ(session.resumeAttempts(), 0);
        EXPECT_EQ(received(agent).bytes, "");
    }
    EXPECT_EQ(autoResumes, 0);
}

} // namespace
} // namespace Ostrel
