// Speed of the transcript readers, the feed and the output scanner on generated inputs. Targets:
// a 120,000-byte tail without wanted markers under 50 µs, a busy Claude tail under 1 ms, the feed
// over 160,000 bytes under 2 ms, a 20 MB single line under 5 ms, the scanner at 2 GB/s or more.
#include "OstrelCore/ClaudeTranscript.h"
#include "OstrelCore/CodexTranscript.h"
#include "OstrelCore/GeminiTranscript.h"
#include "OstrelCore/TerminalOutputScanner.h"
#include "OstrelCore/TranscriptFeed.h"
#include "OstrelCore/TranscriptTail.h"

#include <random>
#include <string>

#include <benchmark/benchmark.h>

using namespace OstrelCore;

namespace {

constexpr std::size_t tailBytes = TranscriptTail::windowBytes;

std::string words(std::mt19937& random, std::size_t bytes) {
    static const char* vocabulary[] = {"the ",  "parser ", "reads ",  "session ", "store ", "file ",
                                       "and ",  "then ",   "writes ", "tests ",   "for ",   "each ",
                                       "line ", "of ",     "output ", "\\n"};
    std::string out;
    while (out.size() < bytes)
        out += vocabulary[random() % 16];
    return out;
}

// The last `bytes` of a file made of `lines`, the way session telemetry reads it.
std::string tailOf(const std::vector<std::string>& lines, std::size_t bytes) {
    std::string file;
    for (const auto& line : lines)
        file += line + "\n";
    return file.size() > bytes ? file.substr(file.size() - bytes) : file;
}

std::vector<std::string_view> split(const std::string& tail) {
    return *TranscriptTail::lines(tail);
}

// Records a poll passes over: snapshots, hook summaries, attachments.
std::string quietTail() {
    std::mt19937 random(1);
    std::vector<std::string> lines;
    std::size_t total = 0;
    for (int i = 0; total < tailBytes + 4000; ++i) {
        std::string line =
            i % 2
                ? R"({"type":"file-history-snapshot","messageId":"m)" + std::to_string(i) +
                      R"(","snapshot":{"trackedFileBackups":{"src/a.ts":{"backupFileName":"a@v2","version":2}},"text":")" +
                      words(random, 900) + R"("},"isSnapshotUpdate":false})"
                : R"({"parentUuid":"p","isSidechain":false,"type":"system","subtype":"stop_hook_summary","content":")" +
                      words(random, 400) + R"(","uuid":"s)" + std::to_string(i) +
                      R"(","timestamp":"2025-12-16T02:00:00.000Z"})";
        total += line.size() + 1;
        lines.push_back(std::move(line));
    }
    return tailOf(lines, tailBytes);
}

// A long agent turn: one prompt, then tool calls and their answers with file contents.
std::vector<std::string> busyClaudeLines(std::size_t bytes) {
    std::mt19937 random(2);
    std::vector<std::string> lines{
        R"({"type":"user","permissionMode":"default","message":{"role":"user","content":"Refactor the session store and run the tests"},"uuid":"u0","timestamp":"2025-12-16T02:00:00.000Z"})"};
    std::size_t total = lines.front().size();
    for (int i = 0; total < bytes; ++i) {
        std::string id = "toolu_" + std::to_string(i);
        std::string text = words(random, 200);
        lines.push_back(
            R"({"parentUuid":"x","isSidechain":false,"type":"assistant","message":{"model":"claude-opus-4-1","role":"assistant","content":[{"type":"text","text":")" +
            text + R"("},{"type":"tool_use","id":")" + id +
            R"(","name":"Read","input":{"file_path":"src/file)" + std::to_string(i) +
            R"(.ts"}}],"usage":{"input_tokens":12,"cache_read_input_tokens":40000,"cache_creation_input_tokens":900,"output_tokens":300}},"uuid":"a)" +
            std::to_string(i) + R"(","timestamp":"2025-12-16T02:00:01.000Z"})");
        std::string content = words(random, 2500);
        lines.push_back(
            R"({"parentUuid":"y","isSidechain":false,"type":"user","permissionMode":"default","toolUseResult":{"type":"text","file":{"filePath":"src/file.ts","content":")" +
            content + R"("}},"message":{"role":"user","content":[{"tool_use_id":")" + id +
            R"(","type":"tool_result","content":")" + content + R"("}]},"uuid":"r)" + std::to_string(i) +
            R"(","timestamp":"2025-12-16T02:00:02.000Z"})");
        lines.push_back(
            R"({"type":"progress","data":{"type":"hook_progress","hookEvent":"PostToolUse"},"uuid":"g)" +
            std::to_string(i) + R"("})");
        total +=
            lines[lines.size() - 1].size() + lines[lines.size() - 2].size() + lines[lines.size() - 3].size();
    }
    return lines;
}

void BM_ClaudeParseQuietTail(benchmark::State& state) {
    std::string tail = quietTail();
    auto lines = split(tail);
    for (auto _ : state)
        benchmark::DoNotOptimize(ClaudeTranscript::parse(lines));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * tail.size()));
}
BENCHMARK(BM_ClaudeParseQuietTail)->Unit(benchmark::kMicrosecond);

void BM_CodexParseQuietTail(benchmark::State& state) {
    std::string tail = quietTail();
    auto lines = split(tail);
    for (auto _ : state)
        benchmark::DoNotOptimize(CodexTranscript::parse(lines));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * tail.size()));
}
BENCHMARK(BM_CodexParseQuietTail)->Unit(benchmark::kMicrosecond);

void BM_GeminiParseQuietTail(benchmark::State& state) {
    std::string tail = quietTail();
    auto lines = split(tail);
    for (auto _ : state)
        benchmark::DoNotOptimize(GeminiTranscript::parse(lines));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * tail.size()));
}
BENCHMARK(BM_GeminiParseQuietTail)->Unit(benchmark::kMicrosecond);

void BM_ClaudeParseBusyTail(benchmark::State& state) {
    std::string tail = tailOf(busyClaudeLines(tailBytes * 2), tailBytes);
    // The prompt is older than the window, so the title search walks the whole tail.
    auto lines = split(tail);
    for (auto _ : state)
        benchmark::DoNotOptimize(ClaudeTranscript::parse(lines));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * tail.size()));
}
BENCHMARK(BM_ClaudeParseBusyTail)->Unit(benchmark::kMicrosecond);

void BM_TailSplit(benchmark::State& state) {
    std::string tail = tailOf(busyClaudeLines(tailBytes * 2), tailBytes);
    for (auto _ : state)
        benchmark::DoNotOptimize(TranscriptTail::lines(tail));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * tail.size()));
}
BENCHMARK(BM_TailSplit)->Unit(benchmark::kMicrosecond);

void BM_FeedClaude160k(benchmark::State& state) {
    std::string tail =
        tailOf(busyClaudeLines(TranscriptFeed::remoteTailBytes * 2), TranscriptFeed::remoteTailBytes);
    auto lines = split(tail);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            TranscriptFeed::entries(lines, TranscriptFeed::Provider::claude, TranscriptFeed::remoteLimit));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * tail.size()));
}
BENCHMARK(BM_FeedClaude160k)->Unit(benchmark::kMicrosecond);

void BM_FeedCodex160k(benchmark::State& state) {
    std::mt19937 random(3);
    std::vector<std::string> lines;
    std::size_t total = 0;
    for (int i = 0; total < TranscriptFeed::remoteTailBytes * 2; ++i) {
        std::string id = "call_" + std::to_string(i);
        lines.push_back(
            R"({"timestamp":"2026-01-02T03:04:05.000Z","type":"event_msg","payload":{"type":"agent_message","message":")" +
            words(random, 300) + R"("}})");
        lines.push_back(
            R"({"timestamp":"2026-01-02T03:04:06.000Z","type":"response_item","payload":{"type":"function_call","name":"shell","arguments":"{\"command\":[\"bash\",\"-lc\",\"rg parser\"]}","call_id":")" +
            id + R"("}})");
        lines.push_back(
            R"({"timestamp":"2026-01-02T03:04:07.000Z","type":"response_item","payload":{"type":"function_call_output","call_id":")" +
            id + R"(","output":"{\"output\":\")" + words(random, 2000) +
            R"(\",\"metadata\":{\"exit_code\":0,\"duration_seconds\":0.1}}"}})");
        total +=
            lines[lines.size() - 1].size() + lines[lines.size() - 2].size() + lines[lines.size() - 3].size();
    }
    std::string tail = tailOf(lines, TranscriptFeed::remoteTailBytes);
    auto split = *TranscriptTail::lines(tail);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            TranscriptFeed::entries(split, TranscriptFeed::Provider::codex, TranscriptFeed::remoteLimit));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * tail.size()));
}
BENCHMARK(BM_FeedCodex160k)->Unit(benchmark::kMicrosecond);

// One record holding a whole file read into a tool's result.
void BM_FeedHugeLine(benchmark::State& state) {
    std::mt19937 random(4);
    std::string content = words(random, 20 << 20);
    std::string line;
    const auto provider = static_cast<TranscriptFeed::Provider>(state.range(0));
    switch (provider) {
    case TranscriptFeed::Provider::claude:
        line =
            R"({"parentUuid":"a","isSidechain":false,"type":"user","message":{"role":"user","content":[{"tool_use_id":"toolu_1","type":"tool_result","content":")" +
            content + R"(","is_error":false}]},"uuid":"r1","timestamp":"2025-12-16T02:00:02.000Z"})";
        break;
    case TranscriptFeed::Provider::codex:
        line =
            R"({"timestamp":"2026-01-02T03:04:07.000Z","type":"response_item","payload":{"type":"function_call_output","call_id":"c1","output":"{\"output\":\")" +
            content + R"(\",\"metadata\":{\"exit_code\":1}}"}})";
        break;
    case TranscriptFeed::Provider::gemini:
        line =
            R"({"id":"g1","timestamp":"2026-04-29T21:39:35.125Z","type":"gemini","content":"","toolCalls":[{"name":"read_file","args":{"file_path":"big.log"},"result":")" +
            content + R"(","status":"success"}]})";
        break;
    }
    std::vector<std::string_view> lines{line};
    for (auto _ : state)
        benchmark::DoNotOptimize(TranscriptFeed::entries(lines, provider, TranscriptFeed::remoteLimit));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_FeedHugeLine)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

void BM_ScannerPlainText(benchmark::State& state) {
    std::mt19937 random(5);
    std::string chunk;
    while (chunk.size() < 64 * 1024) {
        std::string line = words(random, 78);
        for (auto& c : line)
            if (c == '\\') c = ' ';
        chunk += line + "\r\n";
    }
    chunk.resize(64 * 1024);
    TerminalOutputScanner scanner;
    for (auto _ : state)
        benchmark::DoNotOptimize(scanner.scan(chunk));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * chunk.size()));
}
BENCHMARK(BM_ScannerPlainText);

// Typical colourful agent output: a style change every few words.
void BM_ScannerStyledText(benchmark::State& state) {
    std::mt19937 random(6);
    std::string chunk;
    while (chunk.size() < 64 * 1024)
        chunk += "\x1b[38;5;" + std::to_string(random() % 256) + "m" + words(random, 30) + "\x1b[0m\r\n";
    chunk.resize(64 * 1024);
    TerminalOutputScanner scanner;
    for (auto _ : state)
        benchmark::DoNotOptimize(scanner.scan(chunk));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * chunk.size()));
}
BENCHMARK(BM_ScannerStyledText);

} // namespace

BENCHMARK_MAIN();
