// Gemini session readings and project identity.
#include "OstrelCore/GeminiTranscript.h"

#include "support/TranscriptLines.h"

#include <gtest/gtest.h>

using namespace OstrelCore;
using OstrelTest::Lines;

namespace {

std::string user(std::string_view id, std::string_view content) {
    return R"({"id":")" + std::string(id) +
           R"(","timestamp":"2026-04-29T21:39:33.155Z","type":"user","content":)" + std::string(content) +
           "}";
}

std::string gemini(std::string_view id, std::string_view content, std::string_view extra = "") {
    return R"({"id":")" + std::string(id) + R"(","type":"gemini","content":)" + std::string(content) +
           std::string(extra) + "}";
}

const std::string tokens = R"(,"tokens":{"input":11855,"output":81},"model":"gemini-3-flash-preview")";

TEST(GeminiTranscript, ReadsPhaseUsageModelAndTitle) {
    Lines lines{
        R"({"sessionId":"s","projectHash":"abc","kind":"main"})", user("u1", R"([{"text":"Say hello"}])"),
        R"({"$set":{"lastUpdated":"2026-04-29T21:39:33.156Z"}})", gemini("g1", R"("Hello!")", tokens)};
    EXPECT_EQ(GeminiTranscript::parse(lines.views), (TranscriptReading{.model = "gemini-3-flash-preview",
                                                                       .contextUsed = 11855,
                                                                       .contextWindow = 1048576,
                                                                       .phase = AgentPhase::turnEnded,
                                                                       .sessionTitle = "Say hello"}));
}

TEST(GeminiTranscript, PhaseOfTheNewestRecord) {
    struct Case {
        const char* name;
        std::string newest;
        std::optional<AgentPhase> phase;
    };
    const Case cases[] = {
        {"AwaitingApprovalWins",
         gemini("g", R"("text")", R"(,"toolCalls":[{"status":"executing"},{"status":"awaiting_approval"}])"),
         AgentPhase::awaitingApproval},
        {"ScheduledToolRunsWhateverTheContent",
         gemini("g", R"("text")", R"(,"toolCalls":[{"status":"scheduled"}])"), AgentPhase::running},
        {"FinishedToolsWithTextEnd", gemini("g", R"("text")", R"(,"toolCalls":[{"status":"success"}])"),
         AgentPhase::turnEnded},
        {"NoContentIsRunning", gemini("g", R"("")"), AgentPhase::running},
        {"SlashCommandEndsTheTurn", user("u", R"("  /model")"), AgentPhase::turnEnded},
        {"QuestionMarkCommandEndsTheTurn", user("u", R"("?")"), AgentPhase::turnEnded},
        {"PromptRuns", user("u", R"({"text":"go on"})"), AgentPhase::running},
        {"ErrorEndsTheTurn", R"({"id":"e","type":"error","content":"quota"})", AgentPhase::turnEnded},
        {"EmptyUserTextLooksFurther", user("u", R"([])"), AgentPhase::turnEnded},
    };
    for (const auto& c : cases) {
        Lines lines{gemini("old", R"("older answer")"), c.newest};
        auto reading = GeminiTranscript::parse(lines.views);
        ASSERT_TRUE(reading) << c.name;
        EXPECT_EQ(reading->phase, c.phase) << c.name;
    }
}

TEST(GeminiTranscript, SlashCommandsGiveNoTitle) {
    Lines lines{user("u1", R"("Summarise the repository")"), user("u2", R"("/stats")"),
                user("u3", R"("<session_context>cwd</session_context>")")};
    auto reading = GeminiTranscript::parse(lines.views);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->phase, AgentPhase::running);
    EXPECT_EQ(reading->sessionTitle, "Summarise the repository");
}

TEST(GeminiTranscript, RewindHidesEverythingBeforeIt) {
    Lines lines{user("u1", R"("Old question")"), gemini("g1", R"("answer")", tokens),
                R"({"$rewindTo":"u1"})"};
    EXPECT_EQ(GeminiTranscript::parse(lines.views), std::nullopt);

    Lines after{user("u1", R"("Old question")"), R"({"$rewindTo":"u1"})", user("u2", R"("New question")")};
    auto reading = GeminiTranscript::parse(after.views);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->sessionTitle, "New question");
    EXPECT_EQ(reading->contextUsed, std::nullopt);
}

TEST(GeminiTranscript, RewrittenRecordIsReadInItsNewestForm) {
    Lines lines{gemini("g1", R"("")", R"(,"toolCalls":[{"status":"awaiting_approval"}])"),
                gemini("g1", R"("Done")", R"(,"toolCalls":[{"status":"success"}])" + tokens)};
    auto reading = GeminiTranscript::parse(lines.views);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->phase, AgentPhase::turnEnded);
    EXPECT_EQ(reading->contextUsed, 11855);
}

TEST(GeminiTranscript, RecordsWithoutIdOrWithZeroTokensAreSkipped) {
    Lines lines{gemini("g0", R"("a")", R"(,"tokens":{"input":500},"model":"gemma-4-12b")"),
                R"({"type":"gemini","content":"no id","tokens":{"input":900}})",
                gemini("g1", R"("b")", R"(,"tokens":{"input":0})")};
    auto reading = GeminiTranscript::parse(lines.views);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->contextUsed, 500);
    EXPECT_EQ(reading->contextWindow, 256000);
}

TEST(GeminiTranscript, LegacyDocumentReadsItsMessagesFromTheEnd) {
    std::string document = R"({"sessionId":"s","messages":[)" + user("m1", R"("Run a command")") + "," +
                           gemini("m2", R"("")", R"(,"toolCalls":[{"status":"executing"}])" + tokens) + "]}";
    EXPECT_EQ(GeminiTranscript::parseLegacyDocument(document),
              (TranscriptReading{.model = "gemini-3-flash-preview",
                                 .contextUsed = 11855,
                                 .contextWindow = 1048576,
                                 .phase = AgentPhase::running,
                                 .sessionTitle = "Run a command"}));
    EXPECT_EQ(GeminiTranscript::parseLegacyDocument(R"({"messages":{}})"), std::nullopt);
    EXPECT_EQ(GeminiTranscript::parseLegacyDocument("[1,2]"), std::nullopt);
}

TEST(GeminiTranscript, ContextWindowByModel) {
    EXPECT_EQ(GeminiTranscript::contextWindow(""), std::nullopt);
    EXPECT_EQ(GeminiTranscript::contextWindow("gemma-4-27b"), 256000);
    EXPECT_EQ(GeminiTranscript::contextWindow("gemma-3"), 1048576);
    EXPECT_EQ(GeminiTranscript::contextWindow("gemini-2.5-pro"), 1048576);
}

TEST(GeminiTranscript, ProjectSlugHashAndDirectories) {
    struct Case {
        std::string path, slug;
    };
    const Case cases[] = {
        {"/Users/me/My Project/", "my-project"},
        {"/", "project"},
        {"", "project"},
        {"/a/--Weird__Name!!", "weird-name"},
        {"/a/Élan", "lan"},
        {"/a/b//", "b"},
        {"/srv/app.v2", "app-v2"},
        {"/a/ÉÉ", "project"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(GeminiTranscript::projectSlug(c.path), c.slug) << c.path;

    EXPECT_EQ(GeminiTranscript::transcriptDirectory("/w/My App", "/home/me/"),
              "/home/me/.gemini/tmp/my-app/chats");
    EXPECT_EQ(GeminiTranscript::transcriptDirectory("/w/x", "/"), "/.gemini/tmp/x/chats");
    auto candidates = GeminiTranscript::candidateTranscriptDirectories("/w/x", "/home/me");
    ASSERT_EQ(candidates.size(), 2u);
    EXPECT_EQ(candidates[0], "/home/me/.gemini/tmp/x/chats");
    EXPECT_EQ(candidates[1], "/home/me/.gemini/tmp/" + GeminiTranscript::projectHash("/w/x") + "/chats");
    // The hash is SHA-256 of the path as given (reference digests from sha256sum).
    EXPECT_EQ(GeminiTranscript::projectHash("/tmp/repo"),
              "b6fe87a9b936bea650481980f473639b9dd1934ddab7f48221cd6b9ab5ffc1f4");
    EXPECT_EQ(GeminiTranscript::projectHash(""),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(GeminiTranscript, RegistryMapsTheCanonicalPathToAFolder) {
    std::string registry =
        R"({"projects":{"/home/me/app":"app-1","/home/me/Other":"other","/evil":"../../x"}})";
    EXPECT_EQ(GeminiTranscript::registeredIdentifier("/home/me/app/", registry), "app-1");
    EXPECT_EQ(GeminiTranscript::registeredIdentifier("/home/me/other", registry), "other");
    EXPECT_EQ(GeminiTranscript::registeredIdentifier("/evil", registry), std::nullopt);
    EXPECT_EQ(GeminiTranscript::registeredIdentifier("/none", registry), std::nullopt);
    EXPECT_EQ(GeminiTranscript::registeredIdentifier("/home/me/app", "not json"), std::nullopt);
    EXPECT_EQ(GeminiTranscript::transcriptDirectory("/home/me/app", registry, "/home/me"),
              "/home/me/.gemini/tmp/app-1/chats");
    EXPECT_EQ(GeminiTranscript::transcriptDirectory("/none", registry, "/home/me"), std::nullopt);
}

TEST(GeminiTranscript, HeadLinesMarkersAndFileNamesDecideOwnership) {
    std::string asGiven = GeminiTranscript::projectHash("/Home/App");
    std::string canonical = GeminiTranscript::projectHash("/home/app");
    Lines byGiven{R"({"sessionId":"s","projectHash":")" + asGiven + R"(","kind":"main"})"};
    Lines byCanonical{R"({"projectHash":")" + canonical + R"(","startTime":)"}; // cut: read raw
    Lines other{R"({"projectHash":7})", R"({"projectHash":"ffff"})"};
    EXPECT_TRUE(GeminiTranscript::belongsToProject(byGiven.views, "/Home/App"));
    EXPECT_TRUE(GeminiTranscript::belongsToProject(byCanonical.views, "/Home/App/"));
    EXPECT_FALSE(GeminiTranscript::belongsToProject(other.views, "/Home/App"));

    Lines subagent{R"({"kind":5})", R"({"sessionId":"s","kind":"subagent"})"};
    Lines main{R"({"sessionId":"s","kind":"main"})", R"({"kind":"subagent"})"};
    EXPECT_TRUE(GeminiTranscript::isSubagentTranscript(subagent.views));
    EXPECT_FALSE(GeminiTranscript::isSubagentTranscript(main.views));

    // A folder's root marker owns the project by canonical path.
    EXPECT_TRUE(GeminiTranscript::directoryOwnsProject("/Home/Me/App/\n", "/home/me/app"));
    EXPECT_FALSE(GeminiTranscript::directoryOwnsProject("  \n", "/home/me/app"));
    EXPECT_FALSE(GeminiTranscript::directoryOwnsProject("/home/me/other", "/home/me/app"));
    for (const char* name : {"session-2025-12-16T23-47-b4f1.jsonl", "session-x.json"})
        EXPECT_TRUE(GeminiTranscript::isSessionFile(name)) << name;
    for (const char* name : {"logs.json", "session-x.jsonl.bak"})
        EXPECT_FALSE(GeminiTranscript::isSessionFile(name)) << name;
}

} // namespace
