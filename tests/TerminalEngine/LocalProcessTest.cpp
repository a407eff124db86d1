// LocalProcess end to end: real children on real pseudo-terminals, with the
// main queue being an io_context that the test thread runs. Deadlines here only
// guard against hangs.
#include "TerminalEngine/Pty/LocalProcess.h"

#include "TerminalEngine/Pty/ChildExitMonitor.h"
#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

using namespace std::chrono_literals;

using OstrelTest::waitFor;

bool isGone(pid_t pid) {
    return ::kill(pid, 0) != 0 && errno == ESRCH;
}

std::string shellSeq(int lines) {
    // seq -w pads to the width of the last number; the pty turns each "\n" into
    // "\r\n".
    std::string expected;
    const int width = static_cast<int>(std::to_string(lines).size());
    for (int i = 1; i <= lines; ++i) {
        std::string n = std::to_string(i);
        expected += std::string(static_cast<std::size_t>(width) - n.size(), '0') + n + "\r\n";
    }
    return expected;
}

class Recorder : public LocalProcessDelegate {
public:
    void processTerminated(LocalProcess&, std::optional<std::int32_t> exitCode) override {
        std::lock_guard lock(mutex);
        ++reports;
        lastExitCode = exitCode;
    }
    void dataReceived(std::span<const std::uint8_t> slice) override {
        {
            std::lock_guard lock(mutex);
            output.append(slice.begin(), slice.end());
            threads.insert(std::this_thread::get_id());
        }
        if (onData) onData(slice);
    }
    WindowSize getWindowSize() override { return size; }

    std::string text() {
        std::lock_guard lock(mutex);
        return output;
    }
    bool contains(std::string_view needle) { return text().find(needle) != std::string::npos; }
    std::optional<std::int32_t> exitCode() {
        std::lock_guard lock(mutex);
        return lastExitCode;
    }

    WindowSize size{24, 80, 0, 0};
    std::function<void(std::span<const std::uint8_t>)> onData;
    std::mutex mutex;
    std::string output;
    std::set<std::thread::id> threads;
    int reports = 0;
    std::optional<std::int32_t> lastExitCode;
};

class LocalProcessTest : public ::testing::Test {
protected:
    void SetUp() override { DispatchQueue::setMain(context); }
    void TearDown() override { DispatchQueue::clearMain(); }

    bool runUntil(const std::function<bool()>& condition) { return OstrelTest::runUntil(context, condition); }

    // Everything the child wrote has reached the delegate, and the exit was
    // reported.
    static bool finished(LocalProcess& process, Recorder& recorder) {
        const auto d = process.diagnostics();
        return d.endOfFileSeen && !d.pending.pendingScheduled && recorder.exitCode().has_value();
    }

    static void startShell(LocalProcess& process, const std::string& script,
                           std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"-c", script, "sh"};
        args.insert(args.end(), extra.begin(), extra.end());
        process.startProcess("/bin/sh", args);
    }

    static void send(LocalProcess& process, std::string_view text) {
        process.send(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
    }

    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> keepAlive = asio::make_work_guard(context);
    OstrelTest::TemporaryFolder folder;
    std::string directory = folder.path();
};

TEST_F(LocalProcessTest, FloodingChildIsHeldAtTheHighWaterMarkAndDeliversEveryByteInOrder) {
    auto recorder = std::make_shared<Recorder>();
    // A slow consumer, so that the queue fills again after the first hold.
    recorder->onData = [](std::span<const std::uint8_t>) { std::this_thread::sleep_for(20us); };
    auto process = LocalProcess::create(recorder);
    ASSERT_TRUE(process->usesMainQueue());
    startShell(*process, "seq -w 1 2000000 | cat");

    // The main loop stands still: the reader has to stop by itself.
    ASSERT_TRUE(waitFor([&] { return process->diagnostics().pending.readSuspendedForBackpressure; }));
    const auto held = process->diagnostics().pending;
    EXPECT_GE(held.pendingBytes, LocalProcess::pendingHighWaterBytes);
    EXPECT_LE(held.pendingBytes, LocalProcess::pendingHighWaterBytes + LocalProcess::readSize);

    ASSERT_TRUE(runUntil([&] { return finished(*process, *recorder); }));
    const std::string expected = shellSeq(2000000);
    const std::string& output = recorder->output;
    ASSERT_EQ(output.size(), expected.size());
    const auto mismatch = std::mismatch(output.begin(), output.end(), expected.begin());
    EXPECT_EQ(mismatch.first, output.end())
        << "first difference at byte " << (mismatch.first - output.begin());

    const auto d = process->diagnostics();
    EXPECT_LE(d.pending.maxPendingBytes, LocalProcess::pendingHighWaterBytes + LocalProcess::readSize);
    EXPECT_GE(d.pending.suspensions, 1);
    EXPECT_EQ(d.pending.resumes, d.pending.suspensions);
    EXPECT_EQ(recorder->exitCode(), 0);
}

TEST_F(LocalProcessTest, ExitIsReportedWithTheRawWaitStatus) {
    struct Case {
        std::string executable;
        std::string script;
        std::int32_t rawStatus;
    };
    const Case cases[] = {
        {"/bin/sh", "exit 0", 0},
        {"/bin/sh", "exit 3", 768},
        {"/bin/sh", "kill -KILL $$", SIGKILL},
        {"/bin/sh", "kill -TERM $$", SIGTERM},
        {"/nonexistent/program", "", 32512}, // execve failed: _exit(127)
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script.empty() ? c.executable : c.script);
        auto recorder = std::make_shared<Recorder>();
        auto process = LocalProcess::create(recorder);
        process->startProcess(c.executable, {"-c", c.script});
        ASSERT_NE(process->shellPid(), 0);
        ASSERT_TRUE(runUntil([&] { return finished(*process, *recorder); }));
        EXPECT_EQ(recorder->exitCode(), c.rawStatus);
        EXPECT_EQ(recorder->reports, 1);
        EXPECT_FALSE(process->running());
    }
}

TEST_F(LocalProcessTest, EndOfFileWithoutExitStopsSendsUntilTheExitReportComes) {
    const std::string fifo = directory + "/gate";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    auto recorder = std::make_shared<Recorder>();
    auto process = LocalProcess::create(recorder);
    // The child lets go of the terminal, then waits on a gate that only the test
    // opens. Closing the master at end of file hangs the terminal up, which the
    // child shrugs off.
    startShell(*process,
               "trap '' HUP; printf ready; exec </dev/null >/dev/null 2>&1; read "
               "line < \"$1\"",
               {fifo});

    // The last chunk may still sit in the queue when the reader sees the end of file.
    ASSERT_TRUE(runUntil([&] { return process->diagnostics().endOfFileSeen && !recorder->text().empty(); }));
    EXPECT_EQ(recorder->text(), "ready");
    EXPECT_FALSE(process->running());
    EXPECT_EQ(process->childfd(), -1);
    EXPECT_EQ(recorder->reports, 0);
    send(*process, "ignored\n");
    EXPECT_EQ(process->sendCount(), 0);

    int gate = -1;
    ASSERT_TRUE(waitFor([&] { return (gate = ::open(fifo.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; }));
    ASSERT_EQ(::write(gate, "\n", 1), 1);
    ::close(gate);
    ASSERT_TRUE(runUntil([&] { return recorder->exitCode().has_value(); }));
    EXPECT_EQ(recorder->exitCode(), 0);
}

TEST_F(LocalProcessTest, ChildSeesItsExecNameTheStartingSizeAndLaterResizesAndHostLoggingDumpsEachChunk) {
    auto recorder = std::make_shared<Recorder>();
    recorder->size = {40, 120, 0, 0};
    auto process = LocalProcess::create(recorder);
    process->setHostLogging(directory);
    process->startProcess("/bin/sh", {"-c", "echo \"[$0]\"; stty size; read x; stty size"}, std::nullopt,
                          "-sh");
    ASSERT_TRUE(runUntil([&] { return recorder->contains("40 120\r\n"); }));
    EXPECT_EQ(recorder->text().rfind("[-sh]\r\n", 0), 0u) << recorder->text();

    EXPECT_EQ(PseudoTerminalHelpers::setWinSize(process->childfd(), {33, 101, 0, 0}), 0);
    send(*process, "\n");
    ASSERT_TRUE(runUntil([&] { return finished(*process, *recorder); }));
    EXPECT_TRUE(recorder->contains("33 101\r\n")) << recorder->text();
    std::string dumped;
    for (int n = 0; auto piece = folder.read("log-" + std::to_string(n)); ++n)
        dumped += *piece;
    EXPECT_EQ(dumped, recorder->text());
}

TEST_F(LocalProcessTest, LargeInputReachesTheChildWholeAndInOrder) {
    constexpr std::size_t pieceSize = 4096;
    constexpr std::size_t pieces = 256;
    std::string input;
    for (std::size_t i = 0; i < pieceSize * pieces; ++i)
        input.push_back(static_cast<char>((i * 31 + i / 4093) & 0xff));

    auto recorder = std::make_shared<Recorder>();
    auto process = LocalProcess::create(recorder);
    const std::string received = directory + "/received";
    startShell(*process,
               "stty raw -echo -iexten; printf ready; head -c " + std::to_string(input.size()) +
                   " > \"$1\"; printf done",
               {received});
    ASSERT_TRUE(runUntil([&] { return recorder->contains("ready"); }));
    // Far more than the pty holds: later writes must wait for room rather than
    // fail or reorder.
    for (std::size_t i = 0; i < pieces; ++i)
        send(*process, std::string_view(input).substr(i * pieceSize, pieceSize));

    ASSERT_TRUE(runUntil(
        [&] { return finished(*process, *recorder) && process->total() == std::int64_t(input.size()); }));
    EXPECT_EQ(process->sendCount(), std::int64_t(pieces));
    const std::string written = folder.read("received").value_or("");
    EXPECT_TRUE(written == input) << "child received " << written.size() << " bytes";
    EXPECT_EQ(recorder->exitCode(), 0);
}

// Ended on purpose, by terminate() or by letting go of the process (which hangs
// the terminal up without hanging itself): the child is reaped quietly, on the
// loop that would have carried a report.
TEST_F(LocalProcessTest, TerminateOrDestroyReportsNothingAndLeavesNoZombie) {
    for (const bool destroy : {false, true}) {
        SCOPED_TRACE(destroy ? "destroyed" : "terminated");
        auto recorder = std::make_shared<Recorder>();
        auto process = LocalProcess::create(recorder);
        startShell(*process, destroy ? "printf up; exec cat" : "printf up; exec sleep 1000");
        ASSERT_TRUE(runUntil([&] { return recorder->contains("up"); }));
        const pid_t pid = process->shellPid();
        if (destroy) {
            process.reset();
        } else {
            process->terminate();
            EXPECT_FALSE(process->running());
            EXPECT_EQ(process->childfd(), -1);
        }
        ASSERT_TRUE(runUntil([&] { return isGone(pid); }));
        context.poll();
        EXPECT_EQ(recorder->reports, 0);
    }
    // A SIGTERM to process id 0 would hit this test's own process group.
    auto never = LocalProcess::create(std::make_shared<Recorder>());
    never->terminate();
    EXPECT_EQ(never->shellPid(), 0);
    EXPECT_FALSE(never->running());
}

TEST_F(LocalProcessTest, HostLoggingReportsFailuresWithoutLosingData) {
    auto failing = std::make_shared<Recorder>();
    auto other = LocalProcess::create(failing);
    other->setHostLogging(directory + "/missing");
    testing::internal::CaptureStdout();
    startShell(*other, "printf x; read y; printf z");
    ASSERT_TRUE(runUntil([&] { return failing->contains("x"); }));
    send(*other, "\n");
    ASSERT_TRUE(runUntil([&] { return finished(*other, *failing); }));
    const std::string printed = testing::internal::GetCapturedStdout();
    // Both dumps fail under the same name: the counter only moves on success.
    const std::string line =
        "Got error while logging data dump to " + directory + "/missing/log-0: No such file or directory\n";
    EXPECT_NE(printed.find(line + line), std::string::npos) << printed;
    EXPECT_EQ(failing->text(), "x\r\nz");
}

// A delegate queue of its own: an io_context run by a worker thread.
class WorkerQueue {
public:
    WorkerQueue() {
        thread = std::thread([this] { context.run(); });
    }
    ~WorkerQueue() {
        keepAlive.reset();
        context.stop();
        if (thread.joinable()) thread.join();
    }
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> keepAlive = asio::make_work_guard(context);
    std::thread thread;
};

TEST_F(LocalProcessTest, OtherQueueGetsEachChunkOnItsThreadSynchronouslyWithTheRead) {
    WorkerQueue worker;
    auto recorder = std::make_shared<Recorder>();
    auto process = LocalProcess::create(recorder, DispatchQueue(worker.context));
    ASSERT_FALSE(process->usesMainQueue());
    bool readWhileDelivering = false;
    recorder->onData = [&](std::span<const std::uint8_t>) {
        const auto before = process->diagnostics().systemReads;
        std::this_thread::sleep_for(100us);
        readWhileDelivering |= process->diagnostics().systemReads != before;
    };
    startShell(*process, "seq -w 1 100000 | cat");
    // The main loop is never run here: everything must arrive through the
    // worker's queue.
    ASSERT_TRUE(
        waitFor([&] { return process->diagnostics().endOfFileSeen && recorder->exitCode().has_value(); }));
    std::lock_guard lock(recorder->mutex);
    EXPECT_TRUE(recorder->output == shellSeq(100000));
    EXPECT_EQ(recorder->threads, (std::set<std::thread::id>{worker.thread.get_id()}));
    EXPECT_FALSE(readWhileDelivering);
    EXPECT_EQ(process->diagnostics().pending.chunksEnqueued, 0);
    EXPECT_EQ(recorder->lastExitCode, 0);
}

TEST_F(LocalProcessTest, StoppedDelegateQueueDropsOutputInsteadOfHangingTheReader) {
    WorkerQueue worker;
    worker.context.stop();
    auto recorder = std::make_shared<Recorder>();
    auto process = LocalProcess::create(recorder, DispatchQueue(worker.context));
    startShell(*process, "head -c 3000000 /dev/zero");
    ASSERT_TRUE(waitFor([&] { return process->diagnostics().endOfFileSeen; }));
    EXPECT_EQ(process->diagnostics().bytesRead, 3000000);
    EXPECT_EQ(recorder->text(), "");
}

TEST_F(LocalProcessTest, ReleasingTheLastReferenceDuringDeliveryEndsCleanly) {
    WorkerQueue worker;
    auto recorder = std::make_shared<Recorder>();
    auto process = LocalProcess::create(recorder, DispatchQueue(worker.context));
    std::weak_ptr<LocalProcess> weak = process;
    std::mutex holder;
    pid_t pid = 0;
    recorder->onData = [&](std::span<const std::uint8_t>) {
        // The read thread still holds the process for the hop: it ends up
        // destroying it itself.
        std::lock_guard lock(holder);
        if (process) {
            pid = process->shellPid();
            process.reset();
        }
    };
    {
        std::lock_guard lock(holder);
        startShell(*process, "printf up; exec sleep 1000");
    }
    ASSERT_TRUE(waitFor([&] { return weak.expired(); }));
    std::lock_guard lock(holder);
    // The pty closed with the process: the child was hung up, and is reaped on
    // the worker's loop.
    ASSERT_TRUE(waitFor([&] { return isGone(pid); }));
}

TEST(ChildExitMonitorTest, EachMechanismReportsOnTheQueueOrReapsQuietlyWhenCancelled) {
    for (const auto mechanism :
         {ChildExitMonitor::Mechanism::pidfd, ChildExitMonitor::Mechanism::waiterThread}) {
        SCOPED_TRACE(static_cast<int>(mechanism));
        WorkerQueue worker;
        const DispatchQueue queue(worker.context);
        std::mutex mutex;
        std::optional<int> status;
        std::thread::id reportedOn;

        const pid_t exiting = ::fork();
        if (exiting == 0) ::_exit(5);
        auto monitor = ChildExitMonitor::watch(
            exiting, queue,
            [&](int raw) {
                std::lock_guard lock(mutex);
                status = raw;
                reportedOn = std::this_thread::get_id();
            },
            mechanism);
        ASSERT_TRUE(monitor);
        EXPECT_EQ(monitor->mechanism(), mechanism);
        ASSERT_TRUE(waitFor([&] {
            std::lock_guard lock(mutex);
            return status.has_value();
        }));
        {
            std::lock_guard lock(mutex);
            EXPECT_EQ(status, 5 << 8);
            EXPECT_EQ(reportedOn, worker.thread.get_id());
        }
        EXPECT_TRUE(monitor->reaped());
        EXPECT_FALSE(monitor->signal(SIGTERM));

        const pid_t waiting = ::fork();
        if (waiting == 0) {
            ::pause();
            ::_exit(0);
        }
        std::atomic<bool> reported = false;
        auto cancelled = ChildExitMonitor::watch(
            waiting, queue, [&](int) { reported = true; }, mechanism);
        ASSERT_TRUE(cancelled);
        cancelled->cancel();
        EXPECT_TRUE(cancelled->signal(SIGKILL));
        ASSERT_TRUE(waitFor([&] { return cancelled->reaped(); }));
        EXPECT_TRUE(isGone(waiting));
        EXPECT_FALSE(reported);
    }
}

} // namespace
} // namespace TerminalEngine
