// A child program on a pseudo-terminal: starts it, moves its output to the owner without letting a
// flooding child freeze the owner's queue, writes input back, and reports the child's exit.
#pragma once

#include "TerminalEngine/Pty/DispatchQueue.h"
#include "TerminalEngine/Pty/PendingChunkQueue.h"
#include "TerminalEngine/Pty/PseudoTerminalHelpers.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

namespace TerminalEngine {

class ChildExitMonitor;
class LocalProcess;
class StreamChannel;

// The owner of a LocalProcess. Every call arrives on the process's dispatch queue.
class LocalProcessDelegate {
public:
    virtual ~LocalProcessDelegate() = default;

    // The child is gone. `exitCode` is the raw wait status, not decoded: exit(3) arrives as 768,
    // a child killed by a signal shows the signal number in the low seven bits.
    virtual void processTerminated(LocalProcess& source, std::optional<std::int32_t> exitCode) = 0;

    // Bytes from the child, whole chunks in the order read. The span is valid during the call.
    virtual void dataReceived(std::span<const std::uint8_t> slice) = 0;

    // The size the pty gets when the child starts.
    virtual WindowSize getWindowSize() = 0;
};

class LocalProcess : public std::enable_shared_from_this<LocalProcess> {
public:
    // Length of each read request, and the most a single read hands over.
    static constexpr std::int64_t readSize = 131072;
    static constexpr std::int64_t pendingChunkFlushThreshold = PendingChunkQueue::pendingChunkFlushThreshold;
    // Longest a drain runs on the delegate's queue before it yields to other work there.
    static constexpr std::uint64_t pendingTimeSliceNs = 4'000'000;
    static constexpr std::int64_t pendingHighWaterBytes = PendingChunkQueue::pendingHighWaterBytes;
    static constexpr std::int64_t pendingLowWaterBytes = PendingChunkQueue::pendingLowWaterBytes;

    // `dispatchQueue` is the queue on which the delegate is called; none means the main queue,
    // which must then be registered (DispatchQueue::setMain). On the main queue output goes
    // through the chunk queue; on any other queue each chunk is handed over synchronously with
    // the read, and a chunk meant for a queue whose loop has stopped (stop(), or ran out of work
    // and was not restarted) is dropped rather than left to hang the reader. The queue's context
    // must outlive this object. Completions hold the object weakly: dropping the last reference
    // releases it even while the child runs.
    static std::shared_ptr<LocalProcess> create(std::weak_ptr<LocalProcessDelegate> delegate,
                                                std::optional<DispatchQueue> dispatchQueue = std::nullopt);

    // Cancels the exit report and stops reading; the pty closes, which hangs the terminal up as
    // closing any terminal does, but the child is not signalled.
    ~LocalProcess();

    LocalProcess(const LocalProcess&) = delete;
    LocalProcess& operator=(const LocalProcess&) = delete;

    // Starts `executable` (a path, no PATH search) with argument zero `execName` (else
    // `executable`) followed by `args`, in `environment` (else the default terminal environment)
    // and `currentDirectory`. When the child can't be started, returns with `running` false.
    void startProcess(const std::string& executable, const std::vector<std::string>& args = {},
                      const std::optional<std::vector<std::string>>& environment = std::nullopt,
                      const std::optional<std::string>& execName = std::nullopt,
                      const std::optional<std::string>& currentDirectory = std::nullopt);

    // Writes to the child, asynchronously, in order and whole. Ignored unless `running`. Any thread.
    void send(std::span<const std::uint8_t> data);

    // Stops reading and sends SIGTERM to the child; no exit report follows.
    void terminate();

    // Writes each chunk read to "<directory>/log-<n>"; none turns it off.
    void setHostLogging(std::optional<std::string> directory);

    // Applies a new size to the pseudo-terminal while the child runs (TIOCSWINSZ).
    int resize(const WindowSize& size);
    // End of file was read and every chunk read before it has been delivered.
    bool outputFinished() const;

    bool running() const { return running_.load(); }
    std::int32_t childfd() const { return childfd_.load(); }
    pid_t shellPid() const { return shellPid_.load(); }
    bool usesMainQueue() const { return usesMainQueue_; }
    const DispatchQueue& dispatchQueue() const { return dispatchQueue_; }

    bool debugIO() const { return debugIO_.load(); }
    void setDebugIO(bool on) { debugIO_ = on; }
    std::int64_t sendCount() const { return sendCount_.load(); }
    std::int64_t total() const { return total_.load(); }
    std::optional<std::string> loggingDir() const;

    // Read-only view of the read side, for tests, benchmarks and diagnostics.
    struct Diagnostics {
        std::int64_t readRequestsIssued = 0; // read requests of `readSize` handed to the channel
        std::int64_t systemReads = 0;        // reads issued by the current channel
        std::int64_t bytesRead = 0;
        bool endOfFileSeen = false;
        PendingChunkQueue::Snapshot pending; // chunk queue state and counters (main queue only)
    };
    Diagnostics diagnostics() const;

private:
    struct Passkey {};

public:
    LocalProcess(Passkey, std::weak_ptr<LocalProcessDelegate> delegate, DispatchQueue dispatchQueue);

private:
    void issueRead(const std::shared_ptr<StreamChannel>& channel);
    void readCompleted(const StreamChannel* channel, bool done,
                       std::optional<std::span<const std::uint8_t>> data, int error);
    void scheduleDrain();
    void drainPending();
    void deliverSynchronously(std::span<const std::uint8_t> slice);
    void logChunk(std::span<const std::uint8_t> chunk);
    void childExited(int rawStatus);
    std::shared_ptr<ChildExitMonitor> stopMonitor();
    std::shared_ptr<StreamChannel> currentIo() const;
    void retireChannels();

    std::atomic<std::int32_t> childfd_{-1};
    std::atomic<pid_t> shellPid_{0};
    std::atomic<bool> debugIO_{false};
    std::atomic<std::int64_t> sendCount_{0};
    std::atomic<std::int64_t> total_{0};
    const std::weak_ptr<LocalProcessDelegate> delegate_;
    const DispatchQueue dispatchQueue_;

    mutable std::mutex ioLock_;
    std::shared_ptr<StreamChannel> io_;
    std::vector<std::shared_ptr<StreamChannel>> retiredIo_; // closed or replaced, maybe still running
    const bool usesMainQueue_;

    PendingChunkQueue pending_;

    std::atomic<std::int64_t> logFileCounter_{0};
    std::int64_t totalRead_ = 0; // read thread only
    std::mutex monitorLock_;
    std::shared_ptr<ChildExitMonitor> childMonitor_;
    std::shared_ptr<ChildExitMonitor> child_; // kept after the monitor stops, to signal safely
    std::atomic<bool> running_{false};
    mutable std::mutex loggingLock_;
    std::optional<std::string> loggingDir_;

    std::atomic<std::int64_t> readRequestsIssued_{0};
    std::atomic<std::int64_t> bytesRead_{0};
    std::atomic<bool> endOfFileSeen_{false};
};

} // namespace TerminalEngine
