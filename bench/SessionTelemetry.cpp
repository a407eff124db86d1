// Cost of transcript polls on real files in a temporary home folder. Targets: a quiet poll makes
// two attribute reads (statx) and no other file-system call, against the anchor of two bare statx
// calls; 50 bound sessions polled every 4 s take under 1% of one core, quiet or all working.
#include "Ostrel/SessionTelemetry.h"

#include <cstdarg>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

using namespace Ostrel;
using namespace std::chrono_literals;

namespace {

constexpr int sessionCount = 50;
constexpr double pollPeriodSeconds = 4.0;

// The system calls of the file-system layer, counted where they enter the C library: this program
// defines the functions that the telemetry code (linked in statically) calls, counts each call
// while `counting` is set, and forwards it to the C library's own.
struct SyscallCounts {
    std::int64_t statx = 0, open = 0, opendir = 0, read = 0, fstat = 0;
    std::int64_t total() const { return statx + open + opendir + read + fstat; }
};
SyscallCounts syscalls;
bool counting = false;

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" int statx(int dirfd, const char* path, int flags, unsigned int mask, struct statx* buffer) {
    static auto real = next<int (*)(int, const char*, int, unsigned int, struct statx*)>("statx");
    if (counting) ++syscalls.statx;
    return real(dirfd, path, flags, mask, buffer);
}

extern "C" int open(const char* path, int flags, ...) {
    static auto real = next<int (*)(const char*, int, ...)>("open");
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    if (counting) ++syscalls.open;
    return real(path, flags, mode);
}

extern "C" DIR* opendir(const char* path) {
    static auto real = next<DIR* (*)(const char*)>("opendir");
    if (counting) ++syscalls.opendir;
    return real(path);
}

extern "C" ssize_t read(int fd, void* buffer, size_t count) {
    static auto real = next<ssize_t (*)(int, void*, size_t)>("read");
    if (counting) ++syscalls.read;
    return real(fd, buffer, count);
}

extern "C" int fstat(int fd, struct stat* buffer) {
    static auto real = next<int (*)(int, struct stat*)>("fstat");
    if (counting) ++syscalls.fstat;
    return real(fd, buffer);
}

namespace {

// The real file system behind a clock the benchmark moves, to close the successor window.
class ClockedFileSystem final : public TelemetryFileSystem {
public:
    Timestamp now() const override { return clock; }
    std::optional<FileAttributes> attributes(const std::string& path) const override {
        return real.attributes(path);
    }
    std::vector<ListedFile> files(const std::string& folder, bool (*keep)(std::string_view)) const override {
        return real.files(folder, keep);
    }
    std::vector<std::string> folders(const std::string& folder) const override {
        return real.folders(folder);
    }
    std::optional<std::string> readHead(const std::string& path, std::size_t bytes) const override {
        return real.readHead(path, bytes);
    }
    std::optional<std::string> readTail(const std::string& path, std::size_t bytes) const override {
        return real.readTail(path, bytes);
    }

    // Creation dates from modification times, so that the older sessions can be dated back.
    SystemFileSystem real{SystemFileSystem::CreationDate::modificationTime};
    Timestamp clock = std::chrono::system_clock::now();
};

// A Claude turn as it lands in the transcript: the answer with its usage, a tool result.
std::string claudeRecord(std::mt19937& random, int turn) {
    std::string text;
    while (text.size() < 2000)
        text += "the session store reads each line of output and writes tests ";
    return R"({"type":"assistant","isSidechain":false,"message":{"model":"claude-sonnet-4-5","content":[{"type":"text","text":")" +
           text.substr(random() % 100) + R"("}],"usage":{"input_tokens":)" + std::to_string(1000 + turn) +
           R"(,"cache_read_input_tokens":40000,"cache_creation_input_tokens":900}},"uuid":"a)" +
           std::to_string(turn) + "\"}\n";
}

struct Workspace {
    std::string home;
    std::shared_ptr<ClockedFileSystem> files = std::make_shared<ClockedFileSystem>();
    std::vector<SessionTelemetry> sessions;
    std::vector<std::string> transcripts;
    std::mt19937 random{7};
    int turn = 0;

    explicit Workspace(int count) {
        char pattern[] = "/tmp/ostrel-telemetry-bench-XXXXXX";
        home = ::mkdtemp(pattern);
        SessionTelemetry::resetClaimsForTesting();
        Timestamp startedAt = std::chrono::system_clock::now() - 1s;
        for (int i = 0; i < count; ++i) {
            std::string project = "/work/project" + std::to_string(i);
            std::string folder = home + "/.claude/projects/-work-project" + std::to_string(i);
            std::filesystem::create_directories(folder);
            // A few older sessions of the same project lie beside the live one.
            for (int old = 0; old < 5; ++old) {
                std::string path = folder + "/old" + std::to_string(old) + ".jsonl";
                std::ofstream(path) << claudeRecord(random, 0);
                std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() - 24h);
            }
            std::string path = folder + "/live.jsonl";
            std::ofstream out(path);
            while (out.tellp() < 300000)
                out << claudeRecord(random, ++turn);
            out.close();
            transcripts.push_back(path);
            sessions.emplace_back(OstrelCore::SessionKind::claude, project, startedAt, std::nullopt,
                                  TelemetryEnvironment{files, home, nullptr});
        }
        // Bind and read, open the successor window, then let it close.
        for (auto& session : sessions)
            session.poll();
        for (auto& session : sessions)
            session.poll();
        files->clock += SessionTelemetry::successorWindow + 1s;
    }
    ~Workspace() { std::filesystem::remove_all(home); }

    void write(std::size_t index) {
        std::ofstream(transcripts[index], std::ios::app) << claudeRecord(random, ++turn);
    }
};

double threadSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The thread's CPU time and the system calls counted from construction to `stop`.
class Measure {
public:
    Measure()
        : start_(threadSeconds()) {
        counting = true;
    }
    double stop() {
        counting = false;
        return threadSeconds() - start_;
    }

private:
    double start_;
};

void reportCosts(benchmark::State& state, std::int64_t polls, double cpuSeconds) {
    auto perPoll = [&](double count) { return count / static_cast<double>(polls); };
    state.counters["statx/poll"] = perPoll(static_cast<double>(syscalls.statx));
    state.counters["opens/poll"] = perPoll(static_cast<double>(syscalls.open + syscalls.opendir));
    state.counters["syscalls/poll"] = perPoll(static_cast<double>(syscalls.total()));
    state.counters["cpuMicros/poll"] = perPoll(cpuSeconds * 1e6);
    syscalls = {};
}

// Anchor: the two attribute reads a quiet poll is meant to cost, made directly.
double twoStatxSeconds(const std::string& file, const std::string& folder) {
    constexpr int rounds = 20000;
    struct statx status {};
    double start = threadSeconds();
    for (int i = 0; i < rounds; ++i) {
        ::statx(AT_FDCWD, file.c_str(), 0, STATX_SIZE | STATX_MTIME, &status);
        ::statx(AT_FDCWD, folder.c_str(), 0, STATX_SIZE | STATX_MTIME, &status);
        benchmark::DoNotOptimize(status);
    }
    return (threadSeconds() - start) / rounds;
}

void BM_QuietPoll(benchmark::State& state) {
    Workspace workspace(1);
    SessionTelemetry& session = workspace.sessions.front();
    Measure measure;
    for (auto _ : state)
        benchmark::DoNotOptimize(session.poll());
    double cpuSeconds = measure.stop();
    reportCosts(state, state.iterations(), cpuSeconds);
    double anchor =
        twoStatxSeconds(workspace.transcripts.front(), workspace.home + "/.claude/projects/-work-project0");
    state.counters["vsTwoStatx"] = cpuSeconds / static_cast<double>(state.iterations()) / anchor;
}
BENCHMARK(BM_QuietPoll)->Unit(benchmark::kNanosecond);

// Within a minute of a change of the transcript folder, a quiet poll also looks for a successor.
void BM_QuietPollInSuccessorWindow(benchmark::State& state) {
    Workspace workspace(1);
    std::ofstream(workspace.home + "/.claude/projects/-work-project0/other.jsonl") << "{}\n";
    SessionTelemetry& session = workspace.sessions.front();
    Measure measure;
    for (auto _ : state)
        benchmark::DoNotOptimize(session.poll());
    reportCosts(state, state.iterations(), measure.stop());
}
BENCHMARK(BM_QuietPollInSuccessorWindow)->Unit(benchmark::kMicrosecond);

// One round polls every session once; the share of one core is the CPU time of the polls of one
// round over the 4 s between rounds.
void pollRounds(benchmark::State& state, bool working) {
    Workspace workspace(sessionCount);
    double cpuSeconds = 0;
    for (auto _ : state) {
        if (working) {
            state.PauseTiming();
            for (std::size_t i = 0; i < workspace.transcripts.size(); ++i)
                workspace.write(i);
            state.ResumeTiming();
        }
        Measure measure;
        for (auto& session : workspace.sessions)
            benchmark::DoNotOptimize(session.poll());
        cpuSeconds += measure.stop();
    }
    reportCosts(state, state.iterations() * sessionCount, cpuSeconds);
    double roundSeconds = cpuSeconds / static_cast<double>(state.iterations());
    state.counters["coreSharePercent"] = roundSeconds / pollPeriodSeconds * 100.0;
}

void BM_FiftySessionsQuiet(benchmark::State& state) {
    pollRounds(state, false);
}
BENCHMARK(BM_FiftySessionsQuiet)->Unit(benchmark::kMicrosecond);

// Every session wrote since the last round: each poll reads and parses a 120000-byte tail.
void BM_FiftySessionsWorking(benchmark::State& state) {
    pollRounds(state, true);
}
BENCHMARK(BM_FiftySessionsWorking)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
