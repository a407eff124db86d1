// Session controllers with real children on pseudo-terminals in a temporary HOME: the process start,
// the status rules driven by a scripted agent and a hand-moved clock, and the signals in output.
#include "Ostrel/SessionController.h"

#include "WorkspaceHarness.h"

#include <algorithm>
#include <cmath>

#include <gtest/gtest.h>

namespace Ostrel {
namespace {

using namespace Testing;
using OstrelCore::AgentPhase;
using OstrelCore::TranscriptReading;

bool contains(const std::vector<std::string>& list, const std::string& entry) {
    return std::find(list.begin(), list.end(), entry) != list.end();
}

std::vector<std::string> linesOf(const std::optional<std::string>& text) {
    std::vector<std::string> lines;
    if (!text) return lines;
    std::istringstream in(*text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

class SessionControllerTest : public ::testing::Test {
protected:
    std::shared_ptr<SessionController> start(SessionKind kind,
                                             std::optional<std::string> command = std::nullopt) {
        LoginEnv::setCached(agent.loginEnvironment());
        SessionController::Options options;
        options.clock = clock.function();
        // Ticks come often, so that a silence is judged soon after the clock moves.
        options.timing.statusPeriod = 10ms;
        options.timing.noticeDuration = 10ms;
        options.timing.telemetryPeriod = 10ms;
        // What the transcript says, as the telemetry tick would read it.
        options.injectedReading = [this](SessionController&) {
            ++telemetryTicks;
            return transcript;
        };
        auto session =
            SessionController::create(UUID::random(), home.path(), kind, std::move(command), "", options);
        session->onChange = [this] { ++changes; };
        session->onAttention = [this](SessionController&) { ++attentions; };
        session->onWaitAnswered = [this] { ++answered; };
        return session;
    }
    bool title(SessionController& session, const std::string& text) {
        return agent.act(main, session, "title " + text, text.size() + 5); // ESC ] 2 ; ... BEL
    }
    bool say(SessionController& session, const std::string& text) {
        return agent.act(main, session, "say " + text, text.size() + 2); // the terminal adds CR
    }
    // Moves the clock past the silence threshold and lets the status tick judge.
    bool settle(SessionController& session, SessionStatus expected) {
        clock.advance(session.agentSilenceThreshold() + 0.5);
        return main.runUntil([&] { return session.status() == expected; });
    }

    TemporaryHome home;
    MainLoop main;
    ManualClock clock;
    ScriptedAgent agent{home};
    std::optional<TranscriptReading> transcript;
    int changes = 0, attentions = 0, answered = 0, telemetryTicks = 0;
};

TEST_F(SessionControllerTest, ClaudeLaunchSetsItsVariablesAndTakesItsDefaultsFromTheMostSpecificSettings) {
    home.write(".claude/settings.json",
               R"({"statusLine":{"type":"command","command":"ccline"},"model":"claude-sonnet-4",)"
               R"("effort":"low","permissions":{"defaultMode":"bypassPermissions"}})");
    home.write(".claude/settings.local.json", R"({"model":7,"permissions":{"defaultMode":"manual"}})");
    auto session = start(SessionKind::claude);
    ASSERT_TRUE(main.runUntil([&] { return home.read("env").has_value() && home.read("args").has_value(); }));
    main.runFor(100ms); // the files are written before the agent reads its control
    const auto env = linesOf(home.read("env"));
    for (const std::string& expected :
         std::vector<std::string>{"CLAUDE_CODE_HIDE_SETTINGS_HINT=1", "LANG=en_US.UTF-8", "FROM_LOGIN=1",
                                  "TERM=xterm-256color", "HOME=" + home.path()})
        EXPECT_TRUE(contains(env, expected)) << expected;
    for (const auto& entry : env) {
        EXPECT_FALSE(entry.rfind("CLAUDECODE=", 0) == 0) << entry;
        EXPECT_FALSE(entry.rfind("CLAUDE_CODE_SESSION_ID=", 0) == 0) << entry;
    }
    EXPECT_EQ(linesOf(home.read("args")),
              (std::vector<std::string>{"--settings", R"({"statusLine":{"type":"command","command":":"}})"}));
    EXPECT_EQ(session->status(), SessionStatus::ready());
    EXPECT_TRUE(session->statusTimerRunning() && session->telemetryTimerRunning());

    // The project folder is HOME here, so the user's file is also the folder's shared one.
    EXPECT_EQ(session->modelName(), "claude-sonnet-4");
    EXPECT_EQ(session->effortLevel(), "low");
    EXPECT_EQ(session->permissionMode(), "default");
    EXPECT_FALSE(session->bypassInCycle());
    // A switch shown in the terminal wins over a transcript that still names the old model (how
    // long it wins is the steering tests' concern).
    ASSERT_TRUE(say(*session, "Set model to Opus 4.1"));
    EXPECT_EQ(session->modelSwitchedFrom(), "claude-sonnet-4");
    session->applyReading({.model = "claude-sonnet-4"});
    EXPECT_EQ(session->modelName(), "claude-opus-4.1");
    session->shutdown();
}

TEST_F(SessionControllerTest, LaunchArgumentsFollowKindCommandAndLoginEnvironment) {
    const std::string shell = "/bin/sh";
    const std::string quiet(SessionController::quietStatusLine);
    struct Case {
        const char* name;
        SessionKind kind;
        std::optional<std::string> command;
        bool statusLine;
        bool loginCaptured;
        std::vector<std::string> arguments;
    };
    using K = SessionKind;
    const std::optional<std::string> none;
    const std::string claudeQuiet = "claude" + quiet, resumedQuiet = "claude --resume x" + quiet;
    const Case cases[] = {
        {"shell is a login shell", K::shell, "ignored", true, true, {"-l"}},
        {"agent default command", K::codex, none, false, true, {"-c", "codex"}},
        {"not captured yet", K::gemini, none, false, false, {"-l", "-i", "-c", "gemini"}},
        {"service without command", K::service, none, false, true, {"-c", "exec '/bin/sh' -l"}},
        {"claude with a status line", K::claude, none, true, true, {"-c", claudeQuiet}},
        {"claude resumed", K::claude, "claude --resume x", true, true, {"-c", resumedQuiet}},
        {"claude through a wrapper", K::claude, "npx claude", true, true, {"-c", "npx claude"}},
        {"claude without a status line", K::claude, none, false, true, {"-c", "claude"}},
    };
    for (const Case& c : cases) {
        std::filesystem::remove(home / ".claude/settings.json");
        if (c.statusLine) home.write(".claude/settings.json", R"({"statusLine":{}})");
        LoginEnv::setCached(c.loginCaptured ? std::optional(agent.loginEnvironment()) : std::nullopt);
        const auto launch = SessionController::composeLaunch(c.kind, c.command, shell, home.path());
        EXPECT_EQ(launch.executable, shell) << c.name;
        EXPECT_EQ(launch.arguments, c.arguments) << c.name;
        EXPECT_EQ(contains(launch.environment, "FROM_LOGIN=1"),
                  c.loginCaptured && c.kind != SessionKind::shell)
            << c.name;
    }
}

TEST_F(SessionControllerTest, AgentSettlesByTranscriptPhaseAndAsksForAttentionOnlyAfterTyping) {
    auto session = start(SessionKind::gemini);
    ASSERT_TRUE(agent.act(main, *session, "out", 1));
    ASSERT_TRUE(agent.act(main, *session, "bell", 1));
    // Never typed into: output and bells leave it ready, and silence too.
    EXPECT_EQ(session->status(), SessionStatus::ready());
    EXPECT_EQ(session->lastOutputAt(), clock.now);
    clock.advance(7);
    main.runFor(50ms);
    EXPECT_EQ(session->status(), SessionStatus::ready());

    session->sendLine("fix the tests");
    EXPECT_EQ(session->status(), SessionStatus::working());
    ASSERT_TRUE(agent.act(main, *session, "out", 1));
    transcript = TranscriptReading{.phase = AgentPhase::awaitingApproval,
                                   .pendingToolName = "Bash",
                                   .pendingToolTarget = "rm -rf\tbuild"};
    ASSERT_TRUE(main.runUntil([&] { return session->pendingRequest().has_value(); }));
    EXPECT_EQ(session->pendingRequest()->detail, "rm -rf build");
    EXPECT_EQ(session->status(), SessionStatus::working()); // output was too recent to judge
    ASSERT_TRUE(settle(*session, SessionStatus::waiting()));
    EXPECT_TRUE(session->needsAttention());
    EXPECT_EQ(attentions, 1);
    EXPECT_EQ(session->approvalAskedAt(), clock.now);

    // Typing answers the wait once; output that follows it wakes the session.
    session->send("y");
    session->send("y");
    EXPECT_EQ(answered, 1);
    EXPECT_TRUE(session->approvalAnswered());
    EXPECT_FALSE(session->pendingRequest());
    ASSERT_TRUE(agent.act(main, *session, "out", 1));
    EXPECT_EQ(session->status(), SessionStatus::working());

    session->clearAttention();
    transcript = TranscriptReading{.phase = AgentPhase::turnEnded};
    ASSERT_TRUE(settle(*session, SessionStatus::idle()));
    EXPECT_EQ(attentions, 2);

    struct Case {
        double sinceTyping;
        SessionStatus expected;
    };
    for (const Case c : {Case{2.1, SessionStatus::idle()}, Case{1.9, SessionStatus::working()}}) {
        session->send("more");
        clock.advance(c.sinceTyping);
        ASSERT_TRUE(agent.act(main, *session, "out", 1));
        EXPECT_EQ(session->status(), c.expected) << c.sinceTyping;
    }
    session->shutdown();
    session->shutdown();
    EXPECT_FALSE(session->statusTimerRunning() || session->telemetryTimerRunning());
    const int ticks = telemetryTicks;
    main.runFor(50ms);
    EXPECT_EQ(telemetryTicks, ticks);
}

TEST_F(SessionControllerTest, ServiceWaitsOnABellUntilTypingNeverBySilenceAndKeepsItsFirstServerPort) {
    auto session = start(SessionKind::service, "exec gemini");
    EXPECT_EQ(session->status(), SessionStatus::working());
    EXPECT_FALSE(session->statusTimerRunning());
    ASSERT_TRUE(agent.act(main, *session, "bell", 1));
    EXPECT_EQ(session->status(), SessionStatus::waiting());
    EXPECT_EQ(attentions, 0); // nobody typed: nothing was handed over
    clock.advance(30);
    ASSERT_TRUE(agent.act(main, *session, "out", 1));
    EXPECT_EQ(session->status(), SessionStatus::waiting());
    session->send("\x1b[A"); // an arrow key is not typing
    EXPECT_EQ(answered, 0);
    session->send("q");
    EXPECT_EQ(answered, 1);
    ASSERT_TRUE(agent.act(main, *session, "out", 1));
    EXPECT_EQ(session->status(), SessionStatus::working());

    // System ports are passed over and the first server port stays; limit texts are an agent's only.
    ASSERT_TRUE(say(*session, "listening on http://localhost:80/"));
    EXPECT_FALSE(session->detectedPort());
    ASSERT_TRUE(say(*session, "bound to 0.0.0.0:99999 and localhost:3000"));
    EXPECT_EQ(session->detectedPort(), 3000);
    ASSERT_TRUE(say(*session, "also on 127.0.0.1:4000"));
    EXPECT_EQ(session->detectedPort(), 3000);
    ASSERT_TRUE(say(*session, "You've hit your usage limit"));
    EXPECT_FALSE(session->rateLimitBlock());
    session->shutdown();
    EXPECT_FALSE(session->telemetry()); // a service has no transcript
}

TEST_F(SessionControllerTest, ExitStatusIsDecodedAndAlwaysAsksForAttention) {
    struct Case {
        const char* command;
        SessionStatus expected;
    };
    const Case cases[] = {
        {"exit 0", SessionStatus::done()},
        {"exit 1", SessionStatus::failed(1)}, // a raw wait status of 256
        {"exit 3", SessionStatus::failed(3)},
        {"kill -9 $$", SessionStatus::failed(9)},
    };
    for (const Case& c : cases) {
        attentions = 0;
        auto session = start(SessionKind::service, c.command);
        ASSERT_TRUE(main.runUntil([&] { return session->hasExited(); })) << c.command;
        EXPECT_EQ(session->status(), c.expected) << c.command;
        EXPECT_TRUE(session->needsAttention()) << c.command;
        EXPECT_EQ(attentions, 1) << c.command;
    }
    // An agent's status tick stops with its process.
    auto agentSession = start(SessionKind::codex, "exit 2");
    ASSERT_TRUE(main.runUntil([&] { return agentSession->hasExited(); }));
    EXPECT_EQ(agentSession->status(), SessionStatus::failed(2));
    EXPECT_FALSE(agentSession->statusTimerRunning());
    // Its telemetry timer goes on until the session is closed, but reads nothing.
    const int ticks = telemetryTicks;
    main.runFor(50ms);
    EXPECT_TRUE(agentSession->telemetryTimerRunning());
    EXPECT_EQ(telemetryTicks, ticks);
}

TEST_F(SessionControllerTest, TitlesComeFromEachKindsOwnSourceAndAgentOutputFromTheLimitReader) {
    auto gemini = start(SessionKind::gemini);
    ASSERT_TRUE(title(*gemini, "Reading the parser"));
    EXPECT_EQ(gemini->autoTitle(), "Reading the parser");
    EXPECT_EQ(gemini->displayTitle(), "Reading the parser");
    gemini->setUserTitle("Mine");
    EXPECT_EQ(gemini->displayTitle(), "Mine");
    gemini->shutdown();

    auto claude = start(SessionKind::claude);
    ASSERT_TRUE(title(*claude, "\xE2\x9C\xB3 Claude Code"));
    EXPECT_EQ(claude->autoTitle(), "");
    EXPECT_EQ(claude->displayTitle(), "Claude Code");
    ASSERT_TRUE(title(*claude, "\xE2\x9C\xB3 Fix the parser"));
    EXPECT_EQ(claude->autoTitle(), "Fix the parser");
    claude->applyReading({.sessionTitle = "From the transcript"});
    EXPECT_EQ(claude->autoTitle(), "Fix the parser");
    claude->shutdown();

    auto codex = start(SessionKind::codex);
    ASSERT_TRUE(title(*codex, "Action Required"));
    EXPECT_EQ(codex->status(), SessionStatus::ready());
    codex->sendLine("go");
    ASSERT_TRUE(title(*codex, "Action Required"));
    EXPECT_EQ(codex->status(), SessionStatus::waiting());
    EXPECT_EQ(codex->autoTitle(), "");
    // An agent's output reaches the limit reader (a service's never does).
    ASSERT_TRUE(say(*codex, "Working on it"));
    EXPECT_FALSE(codex->rateLimitBlock());
    ASSERT_TRUE(say(*codex, "You've hit your usage limit. Try again at 3:05 PM."));
    ASSERT_TRUE(codex->rateLimitBlock());
    EXPECT_EQ(codex->rateLimitBlock()->rawMessage, "You've hit your usage limit. Try again at 3:05 PM.");
    codex->shutdown();

    // A shell's title follows its folder, shown from the home folder.
    auto shell = start(SessionKind::shell);
    shell->sendLine("printf '\\033]7;file://host" + home.path() + "/my%%20src\\007'");
    ASSERT_TRUE(main.runUntil([&] { return !shell->autoTitle().empty(); }));
    EXPECT_EQ(shell->autoTitle(), "~/my src");
    shell->shutdown();
}

TEST_F(SessionControllerTest, CodexDefaultsComeFromItsConfigAndModelCache) {
    const std::string cache =
        R"({"models":[{"slug":"gpt-a","visibility":"list","default_reasoning_level":"low"},)"
        R"({"slug":"gpt-b","is_default":true,"default_reasoning_level":"xhigh"}]})";
    struct Case {
        const char* name;
        std::optional<std::string> config;
        std::optional<std::string> model;
        std::string effort;
    };
    const Case cases[] = {
        {"config wins", "# comment\n  model = \"gpt-a\"\nmodel_reasoning_effort=\"high\"\n", "gpt-a", "high"},
        {"effort of the configured model", "model = \"gpt-a\"\n", "gpt-a", "low"},
        {"cache default", std::nullopt, "gpt-b", "xhigh"},
        {"unknown model", "model = gpt-z", "gpt-z", "medium"},
    };
    home.write(".codex/models_cache.json", cache);
    for (const Case& c : cases) {
        std::filesystem::remove(home / ".codex/config.toml");
        if (c.config) home.write(".codex/config.toml", *c.config);
        auto session = start(SessionKind::codex, "exit 0");
        EXPECT_EQ(session->modelName(), c.model) << c.name;
        EXPECT_EQ(session->effortLevel(), c.effort) << c.name;
        EXPECT_EQ(session->codexCatalog().size(), 2u) << c.name;
    }
}

TEST_F(SessionControllerTest, ReadingsUpdateFactsWithinTheirRulesAndZoomAndNoticesStayInBounds) {
    auto session = start(SessionKind::claude, "exit 0");
    session->applyReading({.model = "claude-x[1m]"});
    session->applyReading({.model = "claude-x", .contextUsed = 1000});
    EXPECT_EQ(session->modelName(), "claude-x[1m]"); // the transcript names the base model
    EXPECT_EQ(session->contextUsed(), 1000);
    EXPECT_EQ(session->usableContext(), 800000);
    session->applyReading({.contextWindow = 100001, .permissionMode = "bypassPermissions"});
    EXPECT_EQ(session->usableContext(), 80000);
    EXPECT_EQ(session->permissionMode(), "bypassPermissions");
    EXPECT_TRUE(session->bypassInCycle());
    const int before = changes;
    session->applyReading({.model = "claude-x[1m]", .contextUsed = 1000});
    EXPECT_EQ(changes, before); // nothing new, nothing announced

    // The font size stays in range, whatever is asked; a notice goes by itself.
    session->zoom(100);
    EXPECT_EQ(session->fontSize(), SessionController::maximumFontSize);
    session->zoom(-100);
    EXPECT_EQ(session->fontSize(), SessionController::minimumFontSize);
    session->setFontSize(std::nan(""));
    EXPECT_EQ(session->fontSize(), SessionController::minimumFontSize);
    session->showNotice("Copied");
    EXPECT_EQ(session->transientNotice(), "Copied");
    EXPECT_TRUE(main.runUntil([&] { return !session->transientNotice(); }));
}

TEST_F(SessionControllerTest, ResumeIdsComeFromTheCommandAndTheBoundTranscript) {
    // A resumed session knows its id before its transcript says anything.
    auto codex = start(SessionKind::codex, "codex resume 'it'\\''s' --yolo; exit 0");
    EXPECT_EQ(codex->resumeID(), "it's");
    int saves = 0;
    codex->onResumeIDChange = [&] { ++saves; };
    const std::string rollout = "/s/rollout-2026-01-02T03-04-05-0199a213-81c0-7800-8aa1-bbab2a035a53.jsonl";
    codex->updateResumeID(rollout, "0199a213-81c0-7800-8aa1-bbab2a035a53");
    EXPECT_EQ(codex->resumeID(), "0199a213-81c0-7800-8aa1-bbab2a035a53");
    codex->updateResumeID(rollout, std::nullopt); // a path seen before changes nothing
    EXPECT_EQ(codex->resumeID(), "0199a213-81c0-7800-8aa1-bbab2a035a53");
    codex->updateResumeID("/s/short.jsonl", std::nullopt);
    EXPECT_FALSE(codex->resumeID());
    EXPECT_EQ(saves, 2);
    codex->shutdown();

    // A Gemini head without an id keeps the one known.
    auto gemini = start(SessionKind::gemini, "exit 0");
    gemini->updateResumeID("/c/session-1.jsonl", "g-1");
    gemini->updateResumeID("/c/session-2.jsonl", std::nullopt);
    EXPECT_EQ(gemini->resumeID(), "g-1");
    EXPECT_EQ(gemini->resumeIDSourcePath(), "/c/session-2.jsonl");
}

} // namespace
} // namespace Ostrel
