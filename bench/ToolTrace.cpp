// Tool trace over a generated 1 MB transcript of each agent (target: under 10 ms), and terminal
// limit detection over a 64 KiB chunk of ordinary output with no limit text in it.
#include "OstrelCore/ToolTrace.h"

#include "OstrelCore/RateLimitSignals.h"

#include <string>

#include <benchmark/benchmark.h>
#include <date/date.h>
#include <date/tz.h>
#include <fmt/format.h>

using namespace OstrelCore;

namespace {

constexpr std::size_t transcriptBytes = 1 << 20;
constexpr std::size_t chunkBytes = 64 << 10;

// Tool output sizes cycle through what sessions show: short command output, a page of a file,
// a whole source file, a long build log.
constexpr std::size_t outputSizes[] = {200, 900, 3000, 200, 14000, 600, 1500, 40000};

std::size_t outputSize(int i) {
    return outputSizes[static_cast<std::size_t>(i) % std::size(outputSizes)];
}

// A session as agents write it: a tool call, its result (Claude keeps a second copy of the output
// beside the message), and a stretch of conversation with usage records.
std::string claudeTranscript() {
    std::string text;
    for (int i = 0; text.size() < transcriptBytes; ++i) {
        std::string output(outputSize(i), 'x');
        text += fmt::format(
            R"({{"parentUuid":"u{0}","isSidechain":false,"type":"assistant","timestamp":"2025-06-01T10:{1:02}:{2:02}Z","message":{{"model":"claude-opus-4","content":[{{"type":"text","text":"Let me look at the file first."}},{{"type":"tool_use","id":"toolu_{0}","name":"{3}","input":{{"file_path":"/repo/src/file{0}.cpp","command":"make -j2 test"}}}}],"usage":{{"input_tokens":12,"cache_read_input_tokens":48000,"output_tokens":210}}}}}})"
            "\n",
            i, (i / 60) % 60, i % 60,
            i % 3 == 0   ? "Read"
            : i % 3 == 1 ? "Edit"
                         : "Bash");
        text += fmt::format(
            R"({{"parentUuid":"a{0}","isSidechain":false,"type":"user","timestamp":"2025-06-01T10:{1:02}:{2:02}Z","message":{{"role":"user","content":[{{"tool_use_id":"toolu_{0}","type":"tool_result","content":"{3}","is_error":{4}}}]}},"toolUseResult":{{"stdout":"{3}","stderr":"","interrupted":false}}}})"
            "\n",
            i, (i / 60) % 60, (i + 1) % 60, output, i % 7 == 0 ? "true" : "false");
        for (int k = 0; k < 3; ++k)
            text += fmt::format(
                R"({{"type":"assistant","timestamp":"2025-06-01T10:00:00Z","message":{{"content":[{{"type":"text","text":"{0}"}}],"usage":{{"input_tokens":3,"output_tokens":90}}}}}})"
                "\n",
                std::string(400, 'w'));
    }
    return text;
}

std::string codexTranscript() {
    std::string text;
    for (int i = 0; text.size() < transcriptBytes; ++i) {
        text += fmt::format(
            R"({{"timestamp":"2026-01-02T03:04:{1:02}Z","type":"response_item","payload":{{"type":"function_call","name":"exec_command","arguments":"{{\"cmd\":\"rg --files src/{0}\",\"workdir\":\"/repo\"}}","call_id":"call_{0}"}}}})"
            "\n",
            i, i % 60);
        text += fmt::format(
            R"({{"timestamp":"2026-01-02T03:04:{1:02}Z","type":"response_item","payload":{{"type":"function_call_output","call_id":"call_{0}","output":"Chunk ID: 1\nWall time: 0.1 seconds\nProcess exited with code {2}\nOutput:\n{3}"}}}})"
            "\n",
            i, (i + 1) % 60, i % 5 == 0 ? 1 : 0, std::string(outputSize(i), 'o'));
        for (int k = 0; k < 3; ++k)
            text += fmt::format(
                R"({{"timestamp":"2026-01-02T03:04:05Z","type":"event_msg","payload":{{"type":"agent_message","message":"{0}"}}}})"
                "\n",
                std::string(400, 'm'));
    }
    return text;
}

std::string geminiTranscript() {
    std::string text;
    for (int i = 0; text.size() < transcriptBytes; ++i) {
        text += fmt::format(
            R"({{"id":"g{0}","timestamp":"2026-04-29T21:39:{1:02}Z","type":"gemini","content":"{2}","tokens":{{"input":11855,"output":81}},"model":"gemini-3-flash-preview","toolCalls":[{{"id":"call_{0}","name":"run_shell_command","args":{{"command":"ls -F","description":"List files"}},"result":[{{"functionResponse":{{"id":"call_{0}","name":"run_shell_command","response":{{"output":"{3}"}}}}}}],"status":"success","timestamp":"2026-04-29T21:39:{1:02}Z"}}]}})"
            "\n",
            i, i % 60, std::string(200, 'c'), std::string(outputSize(i), 'r'));
        for (int k = 0; k < 3; ++k)
            text += fmt::format(
                R"({{"id":"u{0}","timestamp":"2026-04-29T21:39:00Z","type":"user","content":"{1}"}})"
                "\n",
                i, std::string(400, 'u'));
    }
    return text;
}

void BM_ToolTraceEvents(benchmark::State& state) {
    auto provider = static_cast<ToolTrace::Provider>(state.range(0));
    std::string text = provider == ToolTrace::Provider::claude  ? claudeTranscript()
                       : provider == ToolTrace::Provider::codex ? codexTranscript()
                                                                : geminiTranscript();
    std::size_t events = 0;
    for (auto _ : state) {
        auto result = ToolTrace::events(std::string_view(text), provider);
        events = result.size();
        benchmark::DoNotOptimize(result);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.counters["events"] = static_cast<double>(events);
    state.SetLabel(provider == ToolTrace::Provider::claude  ? "claude"
                   : provider == ToolTrace::Provider::codex ? "codex"
                                                            : "gemini");
}
BENCHMARK(BM_ToolTraceEvents)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

void BM_ToolTraceSummarize(benchmark::State& state) {
    auto events = ToolTrace::events(std::string_view(claudeTranscript()), ToolTrace::Provider::claude);
    for (auto _ : state) {
        benchmark::DoNotOptimize(ToolTrace::summarize(events, 5));
        benchmark::DoNotOptimize(ToolTrace::filesTouched(events, std::string_view("/repo")));
    }
    state.counters["events"] = static_cast<double>(events.size());
}
BENCHMARK(BM_ToolTraceSummarize)->Unit(benchmark::kMicrosecond);

// Build output with colours, as an agent's terminal shows it while it works.
void BM_TerminalLimitDetectionWithoutNotice(benchmark::State& state) {
    std::string chunk;
    for (int i = 0; chunk.size() < chunkBytes; ++i)
        chunk +=
            fmt::format("\x1b[32m●\x1b[0m [{0:4}/9999] Building CXX object src/module{0}.cpp.o -- ok\r\n", i);
    chunk.resize(chunkBytes);
    const auto now = std::chrono::system_clock::time_point(std::chrono::seconds(1'750'000'000));
    const date::time_zone* zone = date::locate_zone("Europe/Paris");
    for (auto _ : state)
        benchmark::DoNotOptimize(RateLimitSignals::detect(std::string_view(chunk), now, zone));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * chunk.size()));
}
BENCHMARK(BM_TerminalLimitDetectionWithoutNotice)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
