// Binding sessions to transcripts laid out as the agents lay them out, in a temporary home folder.
// Files are placed in time through their modification dates, which stand for the creation date
// here; the birth-time path has its own test.
#include "Ostrel/SessionTelemetry.h"

#include "OstrelCore/GeminiTranscript.h"
#include "support/TemporaryFolder.h"

#include <barrier>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sys/stat.h>
#include <thread>

#include <gtest/gtest.h>

namespace Ostrel {
namespace {

using namespace std::chrono_literals;
using OstrelCore::SessionKind;

// The real file system behind a clock the test moves, counting what each poll costs.
class ObservedFileSystem final : public TelemetryFileSystem {
public:
    explicit ObservedFileSystem(SystemFileSystem::CreationDate source)
        : real(source) {}

    Timestamp now() const override { return clock; }
    std::optional<FileAttributes> attributes(const std::string& path) const override {
        ++attributeReads;
        return real.attributes(path);
    }
    std::vector<ListedFile> files(const std::string& folder, bool (*keep)(std::string_view)) const override {
        ++listings;
        auto listed = real.files(folder, keep);
        if (afterListing) afterListing(listed);
        return listed;
    }
    std::vector<std::string> folders(const std::string& folder) const override {
        ++listings;
        return real.folders(folder);
    }
    std::optional<std::string> readHead(const std::string& path, std::size_t bytes) const override {
        ++reads;
        return real.readHead(path, bytes);
    }
    std::optional<std::string> readTail(const std::string& path, std::size_t bytes) const override {
        ++reads;
        return real.readTail(path, bytes);
    }

    SystemFileSystem real;
    Timestamp clock;
    std::function<void(const std::vector<ListedFile>&)> afterListing;
    mutable int attributeReads = 0, listings = 0, reads = 0;
};

const Timestamp base = date::sys_days{date::year{2026} / 3 / 10} + 9h;
const std::string project = "/work/app";

std::string claudeUser(std::string_view text) {
    return R"({"type":"user","message":{"role":"user","content":")" + std::string(text) + R"("}})";
}
std::string claudeAssistant(int tokens) {
    return R"({"type":"assistant","message":{"model":"claude-sonnet-4-5","content":[{"type":"text","text":"ok"}],"usage":{"input_tokens":)" +
           std::to_string(tokens) + "}}}";
}
std::string codexMeta(std::string_view cwd) {
    return R"({"timestamp":"2026-01-02T23:00:00.000Z","type":"session_meta","payload":{"id":"x","cwd":")" +
           std::string(cwd) + R"(","originator":"codex_cli_rs"}})";
}
std::string codexTokens(int tokens) {
    return R"({"type":"event_msg","payload":{"type":"token_count","info":{"last_token_usage":{"input_tokens":)" +
           std::to_string(tokens) + R"(,"output_tokens":0}}}})";
}
std::string geminiHeader(std::string_view id, std::string_view kind) {
    return R"({"sessionId":")" + std::string(id) + R"(","projectHash":"h","kind":")" + std::string(kind) +
           "\"}";
}
std::string geminiReply(int tokens) {
    return R"({"id":"g1","type":"gemini","content":"done","tokens":{"input":)" + std::to_string(tokens) +
           R"(},"model":"gemini-2.5-pro"})";
}

class SessionTelemetryTest : public ::testing::Test {
protected:
    void SetUp() override {
        SessionTelemetry::resetClaimsForTesting();
        files->clock = base;
    }

    SessionTelemetry session(SessionKind kind, Timestamp startedAt, std::optional<std::string> resumeID = {},
                             std::string path = project) {
        return SessionTelemetry(kind, std::move(path), startedAt, std::move(resumeID), {files, home, zone});
    }

    // Writes the lines under the home folder and dates the file `at`.
    std::string write(const std::string& relative, const std::vector<std::string>& lines, Timestamp at,
                      std::ios::openmode mode = std::ios::trunc) {
        std::string path = home + "/" + relative;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream out(path, std::ios::binary | mode);
        for (const std::string& line : lines)
            out << line << '\n';
        out.close();
        place(path, at);
        return path;
    }
    std::string append(const std::string& relative, const std::string& line, Timestamp at) {
        return write(relative, {line}, at, std::ios::app);
    }
    // The context a poll read; none when it read nothing.
    static std::optional<std::int64_t> used(const std::optional<OstrelCore::TranscriptReading>& reading) {
        return reading ? reading->contextUsed : std::nullopt;
    }
    static void place(const std::string& path, Timestamp at) {
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch()).count();
        timespec times[2] = {{ns / 1000000000, ns % 1000000000}, {ns / 1000000000, ns % 1000000000}};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }

    std::shared_ptr<ObservedFileSystem> files =
        std::make_shared<ObservedFileSystem>(SystemFileSystem::CreationDate::modificationTime);
    OstrelTest::TemporaryFolder folder;
    std::string home = folder.path();
    const date::time_zone* zone = date::locate_zone("Europe/Berlin");
    const std::string claudeFolder = ".claude/projects/-work-app/";
};

TEST_F(SessionTelemetryTest, AFileMayBeUpToFiveSecondsOlderThanItsSession) {
    struct Case {
        std::chrono::milliseconds age;
        bool binds;
    } cases[] = {{4000ms, true}, {5000ms, true}, {5001ms, false}, {6000ms, false}};
    for (const Case& c : cases) {
        SessionTelemetry::resetClaimsForTesting();
        write(claudeFolder + "s.jsonl", {claudeAssistant(1)}, base - c.age);
        auto telemetry = session(SessionKind::claude, base);
        EXPECT_EQ(telemetry.poll().has_value(), c.binds) << c.age.count() << " ms";
    }
}

TEST_F(SessionTelemetryTest, CodexSessionStartedAtOneMinuteToMidnightFindsItsFileInTheNextDaysFolder) {
    Timestamp startedAt = zone->to_sys(date::local_days{date::year{2026} / 1 / 2} + 23h + 59min);
    write(".codex/sessions/2026/01/02/rollout-early.jsonl", {codexMeta(project), codexTokens(1)},
          startedAt - 60s);
    write(".codex/sessions/2026/01/03/rollout-other.jsonl", {codexMeta("/work/other"), codexTokens(2)},
          startedAt + 20s);
    std::string mine = write(".codex/sessions/2026/01/03/rollout-mine.jsonl",
                             {codexMeta(project), codexTokens(3)}, startedAt + 40s);
    auto telemetry = session(SessionKind::codex, startedAt);
    EXPECT_EQ(used(telemetry.poll()), 3);
    EXPECT_EQ(telemetry.boundURL(), mine);
}

TEST_F(SessionTelemetryTest, ClaudeClearSuccessorBindsOnceTheOldFileIsQuietAndAWriteToTheOldFileMovesBack) {
    std::string old =
        write(claudeFolder + "old.jsonl", {claudeUser("fix it"), claudeAssistant(100)}, base + 1s);
    auto telemetry = session(SessionKind::claude, base);
    ASSERT_TRUE(telemetry.poll());

    files->clock = base + 30s;
    write(claudeFolder + "other.jsonl", {claudeUser("unrelated"), claudeAssistant(7)}, base + 20s);
    std::string next =
        write(claudeFolder + "next.jsonl",
              {claudeUser("<command-name>/clear</command-name>"), claudeAssistant(300)}, base + 25s);
    append(claudeFolder + "old.jsonl", claudeAssistant(150), base + 26s);
    EXPECT_EQ(used(telemetry.poll()), 150); // the old file changed: no search yet

    files->clock = base + 40s;
    EXPECT_EQ(used(telemetry.poll()), 300);
    EXPECT_EQ(telemetry.boundURL(), next);
    EXPECT_TRUE(SessionTelemetry::isClaimed(old));

    append(claudeFolder + "old.jsonl", claudeAssistant(500), base + 45s);
    EXPECT_EQ(used(telemetry.poll()), 500);
    EXPECT_EQ(telemetry.boundURL(), old);
    EXPECT_FALSE(SessionTelemetry::isClaimed(next));

    telemetry.release();
    EXPECT_FALSE(SessionTelemetry::isClaimed(old));
}

TEST_F(SessionTelemetryTest, ReleaseFreesEveryFileTheSessionLeftBehindButNoneAnotherSessionTookSince) {
    write(claudeFolder + "a.jsonl", {claudeAssistant(1)}, base + 1s);
    auto first = session(SessionKind::claude, base);
    ASSERT_TRUE(first.poll());
    // Two clears in a row: the first file is abandoned twice over and must stay claimed.
    std::vector<std::string> paths = {home + "/" + claudeFolder + "a.jsonl"};
    for (int clear = 1; clear <= 2; ++clear) {
        files->clock = base + clear * 10s + 5s;
        paths.push_back(write(claudeFolder + std::to_string(clear) + ".jsonl",
                              {claudeUser("<command-name>/clear</command-name>"), claudeAssistant(clear)},
                              base + clear * 10s));
        ASSERT_TRUE(first.poll());
        ASSERT_EQ(first.boundURL(), paths.back());
    }
    for (const std::string& path : paths)
        EXPECT_TRUE(first.holds(path)) << path;

    // Claimed files are no one else's; a copy out on the pool when the session ends comes back
    // after another took the file.
    auto second = session(SessionKind::claude, base);
    EXPECT_EQ(second.poll(), std::nullopt);
    SessionTelemetry late = first;
    first.release();
    EXPECT_FALSE(first.boundURL());
    files->clock = base + 120s;
    ASSERT_TRUE(second.poll());
    late.release();
    EXPECT_TRUE(second.holds(*second.boundURL()));
    for (const std::string& path : paths)
        EXPECT_EQ(SessionTelemetry::isClaimed(path), path == second.boundURL()) << path;
}

TEST_F(SessionTelemetryTest, SessionsPolledTogetherOnManyThreadsNeverShareAFile) {
    constexpr int count = 8;
    auto real = std::make_shared<SystemFileSystem>(SystemFileSystem::CreationDate::modificationTime);
    const Timestamp now = std::chrono::system_clock::now();
    for (int i = 0; i < count; ++i)
        write(claudeFolder + std::to_string(i) + ".jsonl", {claudeAssistant(i + 1)}, now);
    for (int round = 0; round < 20; ++round) {
        SessionTelemetry::resetClaimsForTesting();
        std::vector<TelemetryPoll> results(count, TelemetryPoll{session(SessionKind::claude, now), {}});
        std::barrier start(count);
        std::vector<std::thread> threads;
        for (int i = 0; i < count; ++i)
            threads.emplace_back([&, i] {
                SessionTelemetry copy(SessionKind::claude, project, now, std::nullopt, {real, home, zone});
                start.arrive_and_wait();
                results[i] = SessionTelemetry::pollCopy(copy);
            });
        for (std::thread& thread : threads)
            thread.join();
        std::set<std::string> bound;
        for (const TelemetryPoll& result : results) {
            ASSERT_TRUE(result.telemetry.boundURL() && result.reading);
            EXPECT_TRUE(result.telemetry.holds(*result.telemetry.boundURL()));
            bound.insert(*result.telemetry.boundURL());
        }
        EXPECT_EQ(bound.size(), std::size_t(count)) << "round " << round;
    }
}

TEST_F(SessionTelemetryTest, ClaudeSuccessorIsNoOlderThanTheOldFilesLastWriteLessTwoSecondsNorThanAMinute) {
    // The old file was last written at base + 10 s.
    struct Case {
        std::chrono::milliseconds created, now;
        bool moves;
    } cases[] = {
        {8500ms, 20000ms, true},
        {7500ms, 20000ms, false}, // against the old file's last write
        {11000ms, 70500ms, true},
        {11000ms, 71500ms, false}, // against the clock
    };
    int n = 0;
    for (const Case& c : cases) {
        SessionTelemetry::resetClaimsForTesting();
        std::string folder = ".claude/projects/-work-app" + std::to_string(++n) + "/";
        files->clock = base + 10s;
        write(folder + "old.jsonl", {claudeAssistant(1)}, base + 10s);
        auto telemetry = session(SessionKind::claude, base, std::nullopt, project + std::to_string(n));
        ASSERT_TRUE(telemetry.poll());
        write(folder + "new.jsonl", {claudeUser("<command-name>/clear</command-name>"), claudeAssistant(2)},
              base + c.created);
        files->clock = base + c.now;
        EXPECT_EQ(telemetry.poll().has_value(), c.moves) << c.created.count() << " " << c.now.count();
    }
}

TEST_F(SessionTelemetryTest, ResumedSessionBindsTheOlderFileNamedByItsID) {
    const std::string id = "0199a3c4-5e6f-7a8b-9c0d-1e2f3a4b5c6d";
    const Timestamp weekAgo = base - 24h * 7;
    // A transcript of the agent's own kind with a session id and a context count.
    const auto lines = [&](SessionKind kind, const std::string& session, int tokens) {
        if (kind == SessionKind::claude) return std::vector<std::string>{claudeAssistant(tokens)};
        if (kind == SessionKind::codex)
            return std::vector<std::string>{codexMeta(project), codexTokens(tokens)};
        return std::vector<std::string>{geminiHeader(session, "main"), geminiReply(tokens)};
    };
    const std::string codexDay = ".codex/sessions/2026/03/",
                      geminiChats = ".gemini/tmp/app/chats/session-2026-03-";
    struct Case {
        SessionKind kind;
        std::string resumed, newer, decoy;
    } cases[] = {
        {SessionKind::claude, claudeFolder + id + ".jsonl", claudeFolder + "fresh.jsonl", ""},
        {SessionKind::codex, codexDay + "03/rollout-2026-03-03T10-00-00-" + id + ".jsonl",
         codexDay + "10/rollout-fresh.jsonl", ""},
        // Gemini's file names hold the id's first eight characters only.
        {SessionKind::gemini, geminiChats + "03T10-00-0199a3c4.jsonl", geminiChats + "10T09-00-fresh.jsonl",
         geminiChats + "02T10-00-0199a3c4.jsonl"},
    };
    for (const Case& c : cases) {
        SessionTelemetry::resetClaimsForTesting();
        std::string resumed = write(c.resumed, lines(c.kind, id, 1), weekAgo);
        write(c.newer, lines(c.kind, "fresh", 2), base + 1s);
        if (!c.decoy.empty()) write(c.decoy, lines(c.kind, "0199a3c4-0000", 3), weekAgo);
        auto telemetry = session(c.kind, base, id);
        auto reading = telemetry.poll();
        EXPECT_EQ(telemetry.boundURL(), resumed) << rawValue(c.kind);
        EXPECT_EQ(used(reading), 1) << rawValue(c.kind);
        EXPECT_EQ(telemetry.boundSessionID(), id) << rawValue(c.kind);
    }
    // A name that shares the first eight characters isn't enough: the head must hold the whole id.
    SessionTelemetry::resetClaimsForTesting();
    std::filesystem::remove(home + "/" + cases[2].resumed);
    auto gemini = session(SessionKind::gemini, base, id);
    gemini.poll();
    EXPECT_NE(gemini.boundURL(), home + "/" + cases[2].decoy);
}

TEST_F(SessionTelemetryTest, AQuietPollCostsTwoAttributeReadsAndInsideTheSuccessorWindowOneListing) {
    write(claudeFolder + "s.jsonl", {claudeAssistant(100)}, base + 1s);
    auto telemetry = session(SessionKind::claude, base);
    ASSERT_TRUE(telemetry.poll());
    struct Step {
        std::chrono::seconds at;
        int attributeReads, listings, reads;
    } steps[] = {{10s, 2, 1, 0}, {30s, 2, 1, 0}, {71s, 2, 0, 0}, {300s, 2, 0, 0}};
    for (const Step& step : steps) {
        files->clock = base + step.at;
        files->attributeReads = files->listings = files->reads = 0;
        EXPECT_EQ(telemetry.poll(), std::nullopt);
        EXPECT_EQ(files->attributeReads, step.attributeReads) << step.at.count();
        EXPECT_EQ(files->listings, step.listings) << step.at.count();
        EXPECT_EQ(files->reads, step.reads) << step.at.count();
    }
}

TEST_F(SessionTelemetryTest, TailWindowStartingInsideACharacterGivesNothingUntilTheNextWrite) {
    const std::string filler = R"({"type":"progress","data":")" + std::string(130000, 'x') + "\"}";
    const std::string accented = R"({"type":"user","message":{"content":"café"}})";
    const std::string last = claudeAssistant(42);
    // After the first byte of "é": its second byte, `"}}`, and the newline; then the padding line
    // and the last one. Together they fill the window exactly.
    const std::string open = R"({"type":"progress","data":")";
    std::size_t paddingSize = SessionTelemetry::tailBytes - 5 - (last.size() + 1) - 1;
    std::string padding = open + std::string(paddingSize - open.size() - 2, 'y') + "\"}";
    std::string path = write(claudeFolder + "s.jsonl", {filler, accented, padding, last}, base + 1s);
    std::string bytes = *files->real.readHead(path, 1 << 20);
    ASSERT_EQ(static_cast<unsigned char>(bytes[bytes.size() - SessionTelemetry::tailBytes]), 0xA9);

    auto telemetry = session(SessionKind::claude, base);
    EXPECT_EQ(telemetry.poll(), std::nullopt);
    EXPECT_EQ(telemetry.poll(), std::nullopt);
    append(claudeFolder + "s.jsonl", claudeAssistant(43), base + 2s);
    auto reading = telemetry.poll();
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->contextUsed, 43);
    EXPECT_EQ(reading->sessionTitle, std::nullopt); // the person's words lie before the window
}

TEST_F(SessionTelemetryTest, DamagedUnfinishedOrVanishedContentIsReadAroundUntilTheNextGoodWrite) {
    const std::string relative = claudeFolder + "s.jsonl";
    std::string path =
        write(relative,
              {claudeUser("fix it"), claudeAssistant(100), R"({"type":"assistant","message":{)",
               "not json at all", R"({"type":"user","message":[1,2,)", "{}", "[]", ""},
              base + 1s);
    std::ofstream(path, std::ios::app) << R"({"type":"assistant","message":{"usage":{"input_tok)";
    place(path, base + 2s);
    auto telemetry = session(SessionKind::claude, base);
    auto reading = telemetry.poll();
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->contextUsed, 100);
    EXPECT_EQ(reading->sessionTitle, "fix it");

    std::ofstream(path, std::ios::app) << R"(ens":250}}})" << '\n';
    place(path, base + 3s);
    EXPECT_EQ(used(telemetry.poll()), 250);

    // A byte that isn't UTF-8 inside the window spoils the whole read, until it scrolls out.
    std::ofstream(path, std::ios::app) << "\xff\xfe\x00garbage\n";
    place(path, base + 4s);
    EXPECT_EQ(telemetry.poll(), std::nullopt);
    std::string filler = R"({"type":"progress","data":")" + std::string(1000, 'z') + "\"}";
    std::ofstream out(path, std::ios::app);
    for (std::size_t written = 0; written <= SessionTelemetry::tailBytes; written += filler.size() + 1)
        out << filler << '\n';
    out << claudeAssistant(300) << '\n';
    out.close();
    place(path, base + 5s);
    EXPECT_EQ(used(telemetry.poll()), 300);

    // A bound file that vanishes gives nothing but stays bound until it is written again, here
    // whole through a temporary file and a rename, as some agents do.
    std::filesystem::remove(path);
    EXPECT_EQ(telemetry.poll(), std::nullopt);
    EXPECT_EQ(telemetry.boundURL(), path);
    std::filesystem::rename(write(relative + ".tmp", {claudeAssistant(200)}, base + 6s), path);
    EXPECT_EQ(used(telemetry.poll()), 200);
}

TEST_F(SessionTelemetryTest, HostileOrVanishingCandidatesAreNotBoundAndTheNextOwnFileIs) {
    const std::string day = ".codex/sessions/2026/03/10/";
    struct Case {
        std::string name;
        std::string head; // written before the file's lines; empty: the file vanishes after listing
    } cases[] = {
        {"undecodable head", std::string("\x00\xff\x01\n", 4) + codexMeta(project) + "\n"},
        {"one endless line", "{\"cwd\":\"/work/other\"," + std::string(300000, 'x') + "\n"},
        {"cwd of another project", codexMeta("/work/app/sub") + "\n"},
        {"vanishing", ""},
    };
    for (const Case& c : cases) {
        SessionTelemetry::resetClaimsForTesting();
        std::filesystem::remove_all(home + "/.codex");
        std::string first = write(day + "rollout-a.jsonl", {}, base + 1s);
        std::ofstream(first, std::ios::binary)
            << (c.head.empty() ? codexMeta(project) + "\n" : c.head) << codexTokens(1) << '\n';
        place(first, base + 1s);
        std::string own = write(day + "rollout-b.jsonl", {codexMeta(project), codexTokens(2)}, base + 2s);
        files->afterListing = [&](const std::vector<ListedFile>&) {
            if (c.head.empty()) std::filesystem::remove(first);
        };
        auto telemetry = session(SessionKind::codex, base);
        auto reading = telemetry.poll();
        files->afterListing = nullptr;
        EXPECT_EQ(telemetry.boundURL(), own) << c.name;
        EXPECT_EQ(used(reading), 2) << c.name;
    }
}

TEST_F(SessionTelemetryTest, CandidateFoldersFollowEachAgentsLayout) {
    const date::time_zone* utc = date::locate_zone("Etc/UTC");
    const Timestamp lateEvening = date::sys_days{date::year{2026} / 1 / 2} + 23h + 30min; // 00:30 in Berlin
    // The last Sunday of October 2026 has 25 hours in Berlin: a day later is still that day.
    const Timestamp longDay = zone->to_sys(date::local_days{date::year{2026} / 10 / 25} + 30min);
    const std::string sessions = ".codex/sessions/2026/", claude = ".claude/projects/-home-jos";
    using K = SessionKind;
    struct Case {
        K kind;
        std::string path;
        Timestamp startedAt;
        const date::time_zone* zone;
        std::vector<std::string> expected;
    } cases[] = {
        {K::claude, "/Users/a/my.app/", base, zone, {".claude/projects/-Users-a-my-app"}},
        // Claude Code itself keeps ASCII only; the folder may have either name.
        {K::claude, "/home/josé/日本", base, zone, {claude + "é-日本", claude + "----"}},
        {K::codex, project, lateEvening, zone, {sessions + "01/03", sessions + "01/04"}},
        {K::codex, project, lateEvening, utc, {sessions + "01/02", sessions + "01/03"}},
        {K::codex, project, longDay, zone, {sessions + "10/25"}},
        {K::shell, project, base, zone, {}},
    };
    for (const Case& c : cases) {
        SessionTelemetry telemetry(c.kind, c.path, c.startedAt, std::nullopt, {files, home + "/", c.zone});
        std::vector<std::string> expected;
        for (const std::string& folder : c.expected)
            expected.push_back(home + "/" + folder);
        EXPECT_EQ(telemetry.candidateFolders(), expected) << c.path;
    }
}

TEST_F(SessionTelemetryTest,
       GeminiSessionBindsInItsRegisteredFolderPassingOverSubagentsAndReadsLegacyDocuments) {
    // Another project named "app" owns the folder named after it; Gemini's registry sent this one
    // to "app-1".
    write(".gemini/tmp/app/.project_root", {"/elsewhere/app"}, base);
    write(".gemini/tmp/app/chats/session-2026-03-10T09-00-aaaa.jsonl",
          {geminiHeader("a", "main"), geminiReply(1)}, base + 1s);
    write(".gemini/projects.json", {R"({"projects":{"/work/app":"app-1"}})"}, base);
    write(".gemini/tmp/app-1/chats/session-2026-03-10T09-00-bbbb.jsonl",
          {geminiHeader("b", "subagent"), geminiReply(2)}, base + 2s);
    std::string legacy =
        write(".gemini/tmp/app-1/chats/session-2026-03-10T09-00-cccc.json",
              {R"({"sessionId":"c","messages":[)",
               R"(  {"id":"u1","type":"user","content":"Fix the login bug"},)", "  " + geminiReply(3), "]}"},
              base + 3s);
    const std::string hashed = OstrelCore::GeminiTranscript::legacyTranscriptDirectory(project, home);

    auto telemetry = session(SessionKind::gemini, base);
    EXPECT_EQ(telemetry.candidateFolders(),
              (std::vector<std::string>{home + "/.gemini/tmp/app-1/chats", hashed}));
    auto reading = telemetry.poll();
    EXPECT_EQ(telemetry.boundURL(), legacy);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->contextUsed, 3);
    EXPECT_EQ(reading->sessionTitle, "Fix the login bug");
}

TEST_F(SessionTelemetryTest, CreationDateIsTheBirthTimeWhereTheFileSystemRecordsOne) {
    const Timestamp longAgo = date::sys_days{date::year{2001} / 1 / 1};
    const std::string path = write("birth/s.jsonl", {"{}"}, longAgo), folder = home + "/birth";
    auto keepAll = [](std::string_view) { return true; };

    auto fallback = SystemFileSystem(SystemFileSystem::CreationDate::modificationTime).files(folder, keepAll);
    ASSERT_EQ(fallback.size(), 1u);
    EXPECT_EQ(fallback[0].created, longAgo);

    struct statx status {};
    ASSERT_EQ(::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME, &status), 0);
    auto listed = SystemFileSystem().files(folder, keepAll);
    ASSERT_EQ(listed.size(), 1u);
    if (status.stx_mask & STATX_BTIME)
        EXPECT_GT(*listed[0].created, std::chrono::system_clock::now() - 1h);
    else
        EXPECT_EQ(listed[0].created, longAgo); // no birth time here: the modification time stands in
}

} // namespace
} // namespace Ostrel
