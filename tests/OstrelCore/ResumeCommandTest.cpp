// Session ids read from start commands, and resume commands that read back to the same id.
#include "OstrelCore/ResumeCommand.h"

#include <gtest/gtest.h>

namespace OstrelCore {
namespace {

TEST(ResumeCommand, ReadsTheIdFromEachAgentsResumeForms) {
    struct Case {
        SessionKind kind;
        std::string_view command;
        std::optional<std::string> id;
    } cases[] = {
        {SessionKind::claude, "claude --resume 'abc'", "abc"},
        {SessionKind::claude, "claude --resume abc --model opus", "abc"},
        {SessionKind::claude, R"(claude -r "a\"b")", "a\"b"},
        {SessionKind::claude, "claude --resume=abc", "abc"},
        {SessionKind::claude, "FOO=1 exec /usr/local/bin/claude --resume abc && echo done", "abc"},
        {SessionKind::claude, "claude --session-id abc", "abc"},
        {SessionKind::claude, "claude --resume abc --fork-session", std::nullopt},
        {SessionKind::claude, "claude --resume --model opus", std::nullopt}, // the picker
        {SessionKind::claude, "claude -- --resume abc", std::nullopt},
        {SessionKind::claude, "claude 'explain --resume abc'", std::nullopt},
        {SessionKind::claude, "claude --resume 'abc", std::nullopt}, // unclosed quote
        {SessionKind::claude, "codex resume abc", std::nullopt},     // another agent
        {SessionKind::claude, "echo claude --resume abc", std::nullopt},
        {SessionKind::codex, "codex resume abc", "abc"},
        {SessionKind::codex, "codex -m gpt-5 resume 'abc'", "abc"},
        {SessionKind::codex, "codex resume -c model=o3 abc", "abc"},
        {SessionKind::codex, "codex exec resume abc", "abc"},
        {SessionKind::codex, "codex resume --last", std::nullopt},
        {SessionKind::codex, "codex 'resume abc'", std::nullopt},
        {SessionKind::codex, "codex -m resume abc", std::nullopt}, // "resume" is the model here
        {SessionKind::gemini, "gemini --resume 'abc'", "abc"},
        {SessionKind::gemini, "gemini -r abc", "abc"},
        {SessionKind::gemini, "gemini --resume latest", std::nullopt},
        {SessionKind::gemini, "gemini --resume 3", std::nullopt},
        {SessionKind::shell, "claude --resume abc", std::nullopt},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ResumeCommand::resumeID(c.kind, c.command), c.id) << c.command;
    EXPECT_EQ(ResumeCommand::resumeID("codex resume abc"), "abc");
    EXPECT_EQ(ResumeCommand::resumeID("vim --resume abc"), std::nullopt);
}

TEST(ResumeCommand, BuiltCommandsReadBackToTheSameIdForEveryAgent) {
    const std::string ids[] = {
        "0199a3c4-5e6f-7a8b-9c0d-1e2f3a4b5c6d", "it's",        "''",      "a b\tc", "$HOME `x` \"q\" \\n",
        "semi;colon|pipe&amp>redirect#hash",    "line\nbreak", "été 日本"};
    for (SessionKind kind : {SessionKind::claude, SessionKind::codex, SessionKind::gemini}) {
        for (const std::string& id : ids) {
            auto command = ResumeCommand::resumeCommand(kind, id);
            ASSERT_TRUE(command) << id;
            EXPECT_EQ(ResumeCommand::resumeID(kind, *command), id) << *command;
        }
    }
}

TEST(ResumeCommand, QuotesTheTrimmedIdAndRefusesBlankIdsAndNonAgents) {
    EXPECT_EQ(ResumeCommand::resumeCommand(SessionKind::claude, " it's "), R"(claude --resume 'it'\''s')");
    EXPECT_EQ(ResumeCommand::resumeCommand(SessionKind::codex, "abc"), "codex resume 'abc'");
    EXPECT_EQ(ResumeCommand::resumeCommand(SessionKind::gemini, "abc"), "gemini --resume 'abc'");
    EXPECT_EQ(ResumeCommand::resumeCommand(SessionKind::claude, " \n "), std::nullopt);
    EXPECT_EQ(ResumeCommand::resumeCommand(SessionKind::service, "abc"), std::nullopt);
}

TEST(ResumeCommand, TranscriptsNameTheirSessionByFileNameOrHead) {
    const std::string id = "0199a3c4-5e6f-7a8b-9c0d-1e2f3a4b5c6d";
    struct Case {
        SessionKind kind;
        std::string name, head;
        std::optional<std::string> id;
    } cases[] = {
        {SessionKind::claude, id + ".jsonl", "", id},
        {SessionKind::codex, "rollout-2026-03-10T09-00-00-" + id + ".jsonl", "", id},
        {SessionKind::codex, "rollout-short.jsonl", "", std::nullopt},
        {SessionKind::gemini, "session-2026-03-10T09-00-0199a3c4.jsonl",
         R"({"sessionId":")" + id + R"(","projectHash":"h"})", id},
        {SessionKind::gemini, "session-x.jsonl", R"({"sessionId":"   "})", std::nullopt},
        {SessionKind::gemini, "session-x.jsonl", R"({"sessionId":)", std::nullopt},
        {SessionKind::gemini, "session-x.jsonl", std::string(5000, ' ') + R"({"sessionId":"late"})",
         std::nullopt}, // beyond the head
        {SessionKind::claude, "\xff\xfe.jsonl", "", std::nullopt},
        {SessionKind::shell, id + ".jsonl", "", std::nullopt},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ResumeCommand::transcriptSessionID(c.kind, c.name, c.head), c.id) << c.name;
}

} // namespace
} // namespace OstrelCore
