// LocalProcess: the read side runs on the channel's thread ("sender"); chunks reach the delegate's
// queue through the chunk queue (main queue) or one synchronous hop per chunk (other queues); the
// exit report comes from a ChildExitMonitor on the delegate's queue.
#include "TerminalEngine/Pty/LocalProcess.h"

#include "TerminalEngine/Pty/ChildExitMonitor.h"
#include "TerminalEngine/Pty/StreamChannel.h"
#include "TerminalEngine/Terminal/EnvironmentVariables.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <unistd.h>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace TerminalEngine {

namespace {

// One synchronous hop onto another queue. The waiting reader must never hang on a queue whose
// loop has been stopped (its owner is shutting down, or has stopped it for good): then the chunk
// is dropped, because nobody is left to receive it, and reading goes on so the child never blocks
// on a full pty. A context destroyed with the hop still queued drops the hop, which wakes the
// reader the same way.
class SyncHop {
public:
    enum class State { queued, running, finished, abandoned };

    bool begin() {
        std::lock_guard lock(lock_);
        if (state_ != State::queued) return false;
        state_ = State::running;
        return true;
    }
    // Called when the posted work is destroyed, run or not.
    void release() {
        std::lock_guard lock(lock_);
        state_ = state_ == State::running ? State::finished : State::abandoned;
        changed_.notify_all();
    }
    // Waits for the hop; false when it was dropped instead.
    bool wait(const DispatchQueue& queue) {
        using namespace std::chrono_literals;
        std::unique_lock lock(lock_);
        for (;;) {
            if (state_ == State::finished) return true;
            if (state_ == State::abandoned) return false;
            // The periodic look at the loop is only the stopped-loop guard: a running loop wakes
            // us through the condition variable.
            if (!changed_.wait_for(lock, 50ms,
                                   [&] { return state_ == State::finished || state_ == State::abandoned; }) &&
                state_ == State::queued && queue.context().stopped()) {
                state_ = State::abandoned;
                return false;
            }
        }
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    State state_ = State::queued;
};

// Owned by the posted work; tells the hop when that work is gone.
class SyncHopTicket {
public:
    explicit SyncHopTicket(std::shared_ptr<SyncHop> hop)
        : hop_(std::move(hop)) {}
    SyncHopTicket(SyncHopTicket&& other) noexcept
        : hop_(std::move(other.hop_)) {}
    SyncHopTicket& operator=(SyncHopTicket&&) = delete;
    ~SyncHopTicket() {
        if (hop_) hop_->release();
    }
    bool begin() const { return hop_->begin(); }

private:
    std::shared_ptr<SyncHop> hop_;
};

bool runSynchronouslyOn(const DispatchQueue& queue, const std::function<void()>& work) {
    if (queue.runningInThisThread()) {
        work();
        return true;
    }
    if (queue.context().stopped()) return false;
    auto hop = std::make_shared<SyncHop>();
    queue.async([ticket = SyncHopTicket(hop), &work]() {
        if (ticket.begin()) work();
    });
    return hop->wait(queue);
}

std::uint64_t uptimeNanoseconds() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

// A completion on the channel's thread holds the process strongly while it runs. When the owner
// lets go meanwhile, that reference is the last one; the process is then released on its own
// queue, since its exit monitor lives on that queue's loop and must be torn down there.
void releaseOnQueue(std::shared_ptr<LocalProcess> self) {
    if (self.use_count() != 1) return;
    const DispatchQueue queue = self->dispatchQueue();
    queue.async([last = std::move(self)] {});
}

} // namespace

std::shared_ptr<LocalProcess> LocalProcess::create(std::weak_ptr<LocalProcessDelegate> delegate,
                                                   std::optional<DispatchQueue> dispatchQueue) {
    if (!dispatchQueue && !DispatchQueue::hasMain()) {
        std::fputs("LocalProcess::create: no queue given and no main queue registered\n", stderr);
        std::abort();
    }
    return std::make_shared<LocalProcess>(Passkey{}, std::move(delegate),
                                          dispatchQueue ? *dispatchQueue : DispatchQueue::main());
}

LocalProcess::LocalProcess(Passkey, std::weak_ptr<LocalProcessDelegate> delegate, DispatchQueue dispatchQueue)
    : delegate_(std::move(delegate))
    , dispatchQueue_(dispatchQueue)
    , usesMainQueue_(dispatchQueue.isMain()) {}

LocalProcess::~LocalProcess() {
    if (childMonitor_) childMonitor_->cancel();
    // Completions would find this object gone and be dropped anyway; stopping the channels now
    // lets their threads finish instead of waiting for output that nobody will read.
    if (io_) retiredIo_.push_back(std::move(io_));
    for (auto& channel : retiredIo_)
        channel->stop();
    for (auto& channel : retiredIo_)
        channel->join();
}

void LocalProcess::startProcess(const std::string& executable, const std::vector<std::string>& args,
                                const std::optional<std::vector<std::string>>& environment,
                                const std::optional<std::string>& execName,
                                const std::optional<std::string>& currentDirectory) {
    WindowSize size;
    if (auto delegate = delegate_.lock()) size = delegate->getWindowSize();

    std::vector<std::string> argv;
    argv.reserve(args.size() + 1);
    argv.push_back(execName.value_or(executable));
    argv.insert(argv.end(), args.begin(), args.end());
    const std::vector<std::string> env =
        environment ? *environment : getEnvironmentVariables("xterm-256color", /*trueColor=*/true);

    const auto child = PseudoTerminalHelpers::fork(executable, argv, env, currentDirectory, size);
    if (!child) return;

    // A second start leaves the first child to itself: it keeps running, is no longer read or
    // reported, and is still reaped when it exits.
    stopMonitor();
    retireChannels();
    pending_.forgetSuspension();

    running_ = true;
    childfd_ = child->masterDescriptor;
    shellPid_ = child->processId;

    std::weak_ptr<LocalProcess> weak = weak_from_this();
    auto monitor = ChildExitMonitor::watch(child->processId, dispatchQueue_, [weak](int rawStatus) {
        if (auto self = weak.lock()) self->childExited(rawStatus);
    });
    {
        std::lock_guard lock(monitorLock_);
        childMonitor_ = monitor;
        child_ = monitor;
    }

    auto channel = StreamChannel::open(child->masterDescriptor, static_cast<std::size_t>(readSize), "sender");
    {
        std::lock_guard lock(ioLock_);
        io_ = channel;
    }
    endOfFileSeen_ = false;
    issueRead(channel);
}

void LocalProcess::retireChannels() {
    std::lock_guard lock(ioLock_);
    if (io_) retiredIo_.push_back(std::move(io_));
    io_.reset();
    std::erase_if(retiredIo_, [](const auto& channel) { return channel->ended(); });
    for (auto& channel : retiredIo_)
        channel->stop();
}

std::shared_ptr<StreamChannel> LocalProcess::currentIo() const {
    std::lock_guard lock(ioLock_);
    return io_;
}

void LocalProcess::issueRead(const std::shared_ptr<StreamChannel>& channel) {
    ++readRequestsIssued_;
    std::weak_ptr<LocalProcess> weak = weak_from_this();
    const StreamChannel* source = channel.get();
    channel->read(static_cast<std::size_t>(readSize),
                  [weak, source](bool done, std::optional<std::span<const std::uint8_t>> data, int error) {
                      auto self = weak.lock();
                      if (!self) return;
                      self->readCompleted(source, done, data, error);
                      releaseOnQueue(std::move(self));
                  });
}

void LocalProcess::readCompleted(const StreamChannel* source, bool done,
                                 std::optional<std::span<const std::uint8_t>> data, int /*error*/) {
    // Re-arms go to the channel this completion came from, and only while it is still ours.
    auto sameChannel = [&]() -> std::shared_ptr<StreamChannel> {
        auto io = currentIo();
        return io.get() == source ? io : nullptr;
    };

    if (!data) {
        if (!done && running_) {
            if (auto io = sameChannel()) issueRead(io);
        }
        return;
    }
    if (debugIO_) {
        totalRead_ += static_cast<std::int64_t>(data->size());
        fmt::print("[READ] count={} received from host total={}\n", data->size(), totalRead_);
    }
    if (data->empty()) {
        // End of file: the slave side is closed. The exit report, if any, comes from the monitor.
        // A channel closed by terminate() reaches here too; its state is already down.
        if (!sameChannel()) return;
        childfd_ = -1;
        running_ = false;
        endOfFileSeen_ = true;
        return;
    }
    bytesRead_ += static_cast<std::int64_t>(data->size());
    PendingChunkQueue::Chunk chunk(data->begin(), data->end());
    logChunk(chunk);

    if (usesMainQueue_) {
        const auto outcome = pending_.enqueue(std::move(chunk), done);
        if (outcome.drainNeeded) scheduleDrain();
        if (done && outcome.room) {
            if (auto io = sameChannel()) issueRead(io);
        }
        return;
    }
    // The hop is the backpressure here: the next request waits for the delegate.
    deliverSynchronously(chunk);
    if (done) {
        if (auto io = sameChannel()) issueRead(io);
    }
}

void LocalProcess::deliverSynchronously(std::span<const std::uint8_t> slice) {
    const std::weak_ptr<LocalProcessDelegate> delegate = delegate_;
    runSynchronouslyOn(dispatchQueue_, [&] {
        if (auto d = delegate.lock()) d->dataReceived(slice);
    });
}

void LocalProcess::scheduleDrain() {
    dispatchQueue_.async([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->drainPending();
    });
}

void LocalProcess::drainPending() {
    const std::uint64_t start = uptimeNanoseconds();
    for (;;) {
        auto step = pending_.next();
        if (!step) return;
        if (step->resumeReading && running_) {
            if (auto io = currentIo()) issueRead(io);
        }
        if (auto delegate = delegate_.lock()) delegate->dataReceived(step->chunk);
        if (uptimeNanoseconds() - start >= pendingTimeSliceNs) {
            // Yield: drawing and input on this queue get their turn; the drain stays scheduled.
            scheduleDrain();
            return;
        }
    }
}

void LocalProcess::logChunk(std::span<const std::uint8_t> chunk) {
    std::optional<std::string> directory = loggingDir();
    if (!directory) return;
    const std::string path = *directory + "/log-" + std::to_string(logFileCounter_.load());
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int error = fd < 0 ? errno : 0;
    std::size_t written = 0;
    while (error == 0 && written < chunk.size()) {
        const ssize_t n = ::write(fd, chunk.data() + written, chunk.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0)
            error = errno;
        else
            written += static_cast<std::size_t>(n);
    }
    if (fd >= 0 && ::close(fd) != 0 && error == 0) error = errno;
    if (error != 0) {
        fmt::print("Got error while logging data dump to {}: {}\n", path, std::strerror(error));
        return;
    }
    ++logFileCounter_;
}

void LocalProcess::send(std::span<const std::uint8_t> data) {
    if (!running_) return;
    const std::int64_t number = sendCount_++;
    auto bytes = std::make_shared<const std::vector<std::uint8_t>>(data.begin(), data.end());
    if (debugIO_) fmt::print("[SEND-{}] Queuing data to client: [{}] \n", number, fmt::join(*bytes, ", "));
    auto channel = currentIo();
    if (!channel) return;
    const auto size = static_cast<std::int64_t>(bytes->size());
    channel->write(std::move(bytes), [weak = weak_from_this(), number, size](int error) {
        auto self = weak.lock();
        if (!self) return;
        // Counts the bytes of every finished write, as the trace line has always shown.
        const std::int64_t total = self->total_ += size;
        if (self->debugIO_) fmt::print("[SEND-{}] completed bytes={}\n", number, total);
        if (error != 0) fmt::print("Error writing data to the child, errno={}\n", error);
        releaseOnQueue(std::move(self));
    });
}

void LocalProcess::terminate() {
    std::shared_ptr<StreamChannel> channel;
    {
        std::lock_guard lock(ioLock_);
        channel = std::move(io_);
        io_.reset();
        // Kept so that destruction can still stop it if the child outlives the signal.
        if (channel) retiredIo_.push_back(channel);
    }
    if (channel) channel->close();
    childfd_ = -1;
    // The monitor is cancelled before the signal goes out, so that no exit report can slip in
    // between, whichever thread this runs on.
    stopMonitor();
    std::shared_ptr<ChildExitMonitor> child;
    {
        std::lock_guard lock(monitorLock_);
        child = child_;
    }
    if (child)
        child->signal(SIGTERM);
    else if (shellPid_ != 0)
        ::kill(shellPid_, SIGTERM);
}

std::shared_ptr<ChildExitMonitor> LocalProcess::stopMonitor() {
    running_ = false;
    std::shared_ptr<ChildExitMonitor> monitor;
    {
        std::lock_guard lock(monitorLock_);
        monitor = std::move(childMonitor_);
        childMonitor_.reset();
    }
    if (monitor) monitor->cancel();
    return monitor;
}

void LocalProcess::childExited(int rawStatus) {
    if (auto delegate = delegate_.lock()) delegate->processTerminated(*this, rawStatus);
    stopMonitor();
}

void LocalProcess::setHostLogging(std::optional<std::string> directory) {
    std::lock_guard lock(loggingLock_);
    loggingDir_ = std::move(directory);
}

std::optional<std::string> LocalProcess::loggingDir() const {
    std::lock_guard lock(loggingLock_);
    return loggingDir_;
}

int LocalProcess::resize(const WindowSize& size) {
    const int fd = childfd_.load();
    if (!running_ || fd < 0) return -1;
    return PseudoTerminalHelpers::setWinSize(fd, size);
}

bool LocalProcess::outputFinished() const {
    if (!endOfFileSeen_.load()) return false;
    return !usesMainQueue_ || !pending_.snapshot().pendingScheduled;
}

LocalProcess::Diagnostics LocalProcess::diagnostics() const {
    Diagnostics d;
    d.readRequestsIssued = readRequestsIssued_.load();
    if (auto io = currentIo()) d.systemReads = io->systemReads();
    d.bytesRead = bytesRead_.load();
    d.endOfFileSeen = endOfFileSeen_.load();
    d.pending = pending_.snapshot();
    return d;
}

} // namespace TerminalEngine
