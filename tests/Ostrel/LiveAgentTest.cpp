// Live agent sessions end to end: the fake Claude, Codex and Gemini agents run on real
// pseudo-terminals in a temporary HOME and write their transcripts where the real ones do; the
// controller binds them, reads model, context, title, phase and pending tool, settles its status,
// learns the resume id, and answers approvals, also from a notification's buttons on a private bus.
#include "NotificationServer.h"
#include "Ostrel/AppStore.h"
#include "Ostrel/Localization.h"
#include "Ostrel/Notifier.h"
#include "Ostrel/Paths.h"
#include "Ostrel/SessionController.h"
#include "OstrelCore/RateLimitSignals.h"
#include "WorkspaceHarness.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace Ostrel {
namespace {

using namespace Testing;
using OstrelCore::AgentPhase;
using Decision = OstrelCore::ApprovalPolicy::Decision;

std::string fakeAgent(const std::string& script, const std::string& arguments) {
    return "exec python3 '" OSTREL_SOURCE_DIR "/tests/agents/" + script + "' " + arguments;
}

std::string stem(const std::optional<std::string>& path) {
    return path ? std::filesystem::path(*path).stem().string() : std::string();
}

class LiveAgentTest : public ::testing::Test {
protected:
    LiveAgentTest() {
        std::filesystem::create_directories(project);
        LoginEnv::setCached(std::vector<std::string>{"PATH=/usr/bin:/bin"});
    }

    SessionOptions sessionOptions() {
        SessionOptions options;
        options.clock = clock.function();
        options.shell = "/bin/sh";
        options.home = home.path();
        // Ticks come often; the hand-moved clock stands in for the seconds of silence.
        options.timing.statusPeriod = 20ms;
        options.timing.telemetryPeriod = 100ms;
        return options;
    }
    std::shared_ptr<SessionController> start(SessionKind kind, std::string command) {
        auto session = SessionController::create(UUID::random(), project, kind, std::move(command), "",
                                                 sessionOptions());
        session->onAttention = [this](SessionController&) { ++attentions; };
        session->onResumeIDChange = [this] { ++resumeIDChanges; };
        session->onUsageEvent = [this](std::string_view event) { events.emplace_back(event); };
        return session;
    }
    // Waits for the agent's input box, which takes what is typed from then on, and types `text`.
    bool prompt(SessionController& session, const std::string& text) {
        if (!main.runUntil([&] { return session.terminalView().receivedBytes() > 0; }, 15s)) return false;
        type(session, text);
        return true;
    }
    void type(SessionController& session, const std::string& text) {
        session.send(text);
        session.send("\r");
    }
    // Lets the silence pass on the session's clock until the status tick has decided.
    bool settle(SessionController& session, SessionStatus expected) {
        return main.runUntil(
            [&] {
                if (session.status() == expected) return true;
                if (clock.now - session.lastOutputAt() < 7s) clock.advance(7);
                return false;
            },
            15s);
    }
    bool phase(SessionController& session, AgentPhase expected) {
        return main.runUntil([&] { return session.agentPhase() == expected; }, 15s);
    }
    // The agent prints its usage-limit notice with a reset time `resetIn` seconds ahead: the
    // session plans its resume at that time, to the second, plus the safety margin.
    void expectResumePlanned(SessionController& session, double resetIn) {
        type(session, "/limit");
        ASSERT_TRUE(main.runUntil([&] { return session.resumesAt().has_value(); }, 15s));
        const auto ahead =
            std::chrono::duration<double>(*session.resumesAt() - std::chrono::system_clock::now());
        const double expected = resetIn + OstrelCore::RateLimitSignals::safetyMargin;
        EXPECT_GT(ahead.count(), expected - 10.0);
        EXPECT_LT(ahead.count(), expected + 1.0);
    }
    // Answers the waiting agent, which then writes `then` to its transcript, and lets the session
    // settle to `settled`.
    bool answerAndSettle(SessionController& session, Decision decision, AgentPhase then,
                         SessionStatus settled) {
        return session.answer(decision, clock.now) && phase(session, then) && settle(session, settled);
    }

    TemporaryHome home;
    MainLoop main;
    ManualClock clock;
    std::string project = home / "proj";
    int attentions = 0, resumeIDChanges = 0;
    std::vector<std::string> events;
};

TEST_F(LiveAgentTest, ClaudeIsBoundReadApprovedDeniedClearedAndLimited) {
    auto session = start(SessionKind::claude,
                         fakeAgent("fake_claude.py", "--ask 'Bash=rm -rf build' --model claude-sonnet-4 "
                                                     "--context 50000 --work 0.2 --limit-in 600 "
                                                     "--title '✳ Refactor parser'"));
    ASSERT_TRUE(prompt(*session, "fix the build"));
    EXPECT_EQ(session->status(), SessionStatus::working());

    // The transcript asks for the tool: read at the next telemetry tick, shown after the silence.
    ASSERT_TRUE(main.runUntil([&] { return session->pendingRequest().has_value(); }, 15s));
    EXPECT_EQ(session->pendingRequest()->toolName, "Bash");
    EXPECT_EQ(session->pendingRequest()->detail, "rm -rf build");
    EXPECT_EQ(session->modelName(), "claude-sonnet-4");
    EXPECT_EQ(session->contextUsed(), 50000);
    EXPECT_EQ(session->autoTitle(), "Refactor parser"); // the terminal title outranks the transcript's
    const auto& bound = session->telemetry()->boundURL();
    ASSERT_TRUE(bound);
    std::string munged = project;
    std::replace_if(
        munged.begin(), munged.end(), [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); },
        '-');
    EXPECT_EQ(std::filesystem::path(*bound).parent_path(), home / (".claude/projects/" + munged));
    EXPECT_EQ(session->resumeID(), stem(bound));
    EXPECT_EQ(resumeIDChanges, 1);
    ASSERT_TRUE(settle(*session, SessionStatus::waiting()));
    EXPECT_EQ(session->pendingRequest()->detail, "rm -rf build");
    EXPECT_EQ(attentions, 1);

    // Approved: the agent runs the tool and ends its turn.
    ASSERT_TRUE(session->answer(Decision::approve, clock.now));
    EXPECT_FALSE(session->pendingRequest());
    EXPECT_FALSE(session->needsAttention());
    EXPECT_EQ(events, std::vector<std::string>{"notification_answer"});
    ASSERT_TRUE(phase(*session, AgentPhase::turnEnded));
    ASSERT_TRUE(settle(*session, SessionStatus::idle()));

    // Asked again and denied: the transcript shows the interruption, not a finished turn.
    type(*session, "once more");
    ASSERT_TRUE(main.runUntil([&] { return session->pendingRequest().has_value(); }, 15s));
    ASSERT_TRUE(settle(*session, SessionStatus::waiting()));
    ASSERT_TRUE(answerAndSettle(*session, Decision::deny, AgentPhase::running, SessionStatus::ready()));
    EXPECT_EQ(session->autoTitle(), "Refactor parser");

    // A clear starts a new file: the binding follows it, and so does the resume id.
    const std::string before = *session->resumeID();
    type(*session, "/clear");
    ASSERT_TRUE(main.runUntil([&] { return session->resumeID() != before; }, 15s));
    EXPECT_EQ(session->resumeID(), stem(session->telemetry()->boundURL()));
    EXPECT_EQ(session->contextUsed(), 0);
    EXPECT_EQ(resumeIDChanges, 2);

    // The usage-limit notice plans the resume at the time it names, to the second, plus the
    // margin that lets the provider's clock catch up.
    expectResumePlanned(*session, 600.0);
    session->shutdown();
    EXPECT_FALSE(SessionTelemetry::isClaimed(*session->resumeIDSourcePath()));
}

TEST_F(LiveAgentTest, CodexAsksThroughItsTitleReadsItsRolloutAndIsLimited) {
    auto session =
        start(SessionKind::codex, fakeAgent("fake_codex.py", "--ask shell=make --model gpt-5-codex "
                                                             "--context 3000 --work 0.1 --limit-in 600"));
    ASSERT_TRUE(prompt(*session, "run the build"));
    ASSERT_TRUE(main.runUntil([&] { return session->status() == SessionStatus::waiting(); }, 15s));
    EXPECT_EQ(attentions, 1);
    ASSERT_TRUE(main.runUntil([&] { return session->contextUsed() == 3000; }, 15s));
    EXPECT_EQ(session->modelName(), "gpt-5-codex");
    EXPECT_EQ(session->reportedContextWindow(), 272000);
    const auto& bound = session->telemetry()->boundURL();
    ASSERT_TRUE(bound);
    EXPECT_NE(bound->find(home / ".codex/sessions/"), std::string::npos);
    EXPECT_EQ(session->resumeID(), stem(bound).substr(stem(bound).size() - 36));

    ASSERT_TRUE(answerAndSettle(*session, Decision::approve, AgentPhase::turnEnded, SessionStatus::idle()));
    // The terminal title was only a signal; the title is the person's message in the rollout.
    EXPECT_EQ(session->autoTitle(), "run the build");
    expectResumePlanned(*session, 600.0);
    session->shutdown();
}

TEST_F(LiveAgentTest, GeminiWaitsByItsTranscriptKeepsItsFileThroughAClearAndIsLimited) {
    auto session =
        start(SessionKind::gemini,
              fakeAgent("fake_gemini.py", "--ask run_shell_command=make --model gemini-2.5-pro --work 0.1 "
                                          "--limit-in 600"));
    ASSERT_TRUE(prompt(*session, "build it"));
    ASSERT_TRUE(phase(*session, AgentPhase::awaitingApproval));
    ASSERT_TRUE(settle(*session, SessionStatus::waiting()));
    EXPECT_EQ(session->modelName(), "gemini-2.5-pro");
    EXPECT_EQ(session->reportedContextWindow(), 1048576);
    EXPECT_EQ(session->autoTitle(), "build it");
    const auto& bound = session->telemetry()->boundURL();
    ASSERT_TRUE(bound);
    const std::string file = *bound;
    ASSERT_TRUE(main.runUntil([&] { return session->resumeID().has_value(); }, 15s));
    const auto headText = Paths::readHead(file, 4096).value_or("");
    EXPECT_NE(headText.find("\"sessionId\":\"" + *session->resumeID() + "\""), std::string::npos);

    ASSERT_TRUE(answerAndSettle(*session, Decision::approve, AgentPhase::turnEnded, SessionStatus::idle()));
    type(*session, "/clear");
    main.runFor(500ms);
    EXPECT_EQ(session->telemetry()->boundURL(), file);
    expectResumePlanned(*session, 600.0);
    session->shutdown();
}

TEST_F(LiveAgentTest, AnswersCountOnlyOnceWhileWaitingAndWithinTheirWindow) {
    ScriptedAgent agent{home};
    struct Case {
        const char* name;
        double age; // seconds after the question
        bool typedFirst = false;
        bool expected = true;
    };
    const Case cases[] = {
        {"at once", 0.0},
        {"at the end of the window", 900.0},
        {"beyond the window", 900.001, false, false},
        {"before the question", -0.5, false, false},
        {"after the person typed", 1.0, true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LoginEnv::setCached(agent.loginEnvironment());
        auto session = start(SessionKind::gemini, "gemini");
        session->send("go");
        EXPECT_FALSE(session->answer(Decision::approve, clock.now)); // not waiting yet
        ASSERT_TRUE(agent.act(main, *session, "bell", 1));
        ASSERT_TRUE(main.runUntil([&] { return session->status() == SessionStatus::waiting(); }, 15s));
        ASSERT_TRUE(session->needsAttention());
        if (c.typedFirst) session->send("y");
        const auto asked = *session->approvalAskedAt();
        const auto at = asked + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                                    std::chrono::duration<double>(c.age));
        EXPECT_EQ(session->answer(Decision::deny, at), c.expected);
        EXPECT_EQ(session->needsAttention(), !c.expected);
        EXPECT_FALSE(session->answer(Decision::approve, at)); // never twice
        session->shutdown();
    }
    EXPECT_EQ(events.size(), 2u);
}

// The store with the process's kind of notifier on a private session bus: a waiting agent's
// notification carries its tool and target, its Approve button answers the agent, typing takes
// the notification away, and the resume id is saved as soon as it is known.
TEST_F(LiveAgentTest, ApproveFromANotificationReachesTheAgent) {
    Localization::setCurrent(Language::en);
    OstrelTest::PrivateBus bus;
    OstrelTest::NotificationServer server({"actions", "body"});
    Settings settings{Paths::configFolder() + "/settings.json"};
    Notifier notifier(settings, main.loop);
    ASSERT_TRUE(main.runUntil([&] { return !notifier.checking(); }, 15s));
    ASSERT_TRUE(notifier.available());

    AppStore::Options options;
    options.prewarmLoginEnvironment = false;
    options.session = sessionOptions();
    AppStore store(Paths::dataFolder() + "/state.json", settings, options);
    store.setNotifications(&notifier);
    store.hooks.applicationFocused = [] { return false; };
    const UUID projectID = store.addProject(project).id;
    auto session = store.startSession(
        SessionKind::claude, projectID,
        {fakeAgent("fake_claude.py", "--ask 'Edit=src/app.ts' --model claude-sonnet-4 --work 0.1")});
    ASSERT_TRUE(prompt(*session, "tidy the app"));
    ASSERT_TRUE(main.runUntil([&] { return session->pendingRequest().has_value(); }, 15s));
    EXPECT_EQ(session->autoTitle(), "tidy the app"); // from the transcript

    // Saved at once: a restart resumes this conversation.
    const auto state = nlohmann::json::parse(Paths::readFile(store.stateURL()).value_or(""), nullptr, false);
    ASSERT_TRUE(state.is_object());
    EXPECT_NE(state.dump().find("--resume '" + *session->resumeID() + "'"), std::string::npos)
        << state.dump();

    ASSERT_TRUE(settle(*session, SessionStatus::waiting()));
    ASSERT_TRUE(main.runUntil([&] { return server.received().size() == 1; }, 15s));
    const auto first = server.received().front();
    EXPECT_EQ(first.body, "Edit: src/app.ts");
    server.emitAction(first.id, std::string(Notifier::approveAction));
    ASSERT_TRUE(phase(*session, AgentPhase::turnEnded));
    ASSERT_TRUE(settle(*session, SessionStatus::idle()));
    EXPECT_FALSE(session->approvalAskedAt());

    // A second question, answered by typing: the notification goes, and its button is stale.
    store.select(session); // the person looked: the next wait asks for attention again
    type(*session, "once more");
    ASSERT_TRUE(main.runUntil([&] { return session->pendingRequest().has_value(); }, 15s));
    ASSERT_TRUE(settle(*session, SessionStatus::waiting()));
    ASSERT_TRUE(main.runUntil([&] { return server.received().size() >= 3; }, 15s)); // idle, then waiting
    const auto second = server.received().back();
    session->send("\r");
    ASSERT_TRUE(main.runUntil([&] { return !server.closed().empty(); }, 15s));
    EXPECT_EQ(server.closed().back(), second.id);
    EXPECT_FALSE(session->answer(Decision::approve, clock.now));
    store.shutdown();
    store.setNotifications(nullptr);
}

} // namespace
} // namespace Ostrel
