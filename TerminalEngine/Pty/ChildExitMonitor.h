// Tells a queue when a child process has exited, and reaps it. A watch that is cancelled still
// reaps its child when it exits, quietly, so that closed sessions leave no zombies behind.
#pragma once

#include "TerminalEngine/Pty/DispatchQueue.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sys/types.h>

#include <asio/posix/stream_descriptor.hpp>

namespace TerminalEngine {

class ChildExitMonitor : public std::enable_shared_from_this<ChildExitMonitor> {
public:
    enum class Mechanism { pidfd, waiterThread };
    using ExitHandler = std::function<void(int rawStatus)>;

    // Watches `pid`, a child of this process. When it exits, it is reaped with
    // waitpid(pid, &status, WNOHANG) (status starting at 0) and `onExit` runs on `queue` with the
    // raw wait status. By default the exit is noticed through a pidfd polled by the queue's own
    // loop; where pidfd_open is refused, a thread blocks in waitid() and hops to the queue.
    // `mechanism` forces one. The queue's context must stay alive while the watch is active.
    // Returns null when neither mechanism can be set up.
    static std::shared_ptr<ChildExitMonitor> watch(pid_t pid, const DispatchQueue& queue, ExitHandler onExit,
                                                   std::optional<Mechanism> mechanism = std::nullopt);

    Mechanism mechanism() const { return mechanism_; }
    pid_t pid() const { return pid_; }

    // Nothing is reported after this returns, not even an exit already noticed and queued.
    void cancel();

    // Sends a signal unless the child has been reaped: its id can't have been handed to another
    // process while we hold it. Returns whether the signal was sent.
    bool signal(int signalNumber);

    bool reaped() const;

private:
    struct Passkey {};

public:
    ChildExitMonitor(Passkey, pid_t pid, const DispatchQueue& queue, ExitHandler onExit, Mechanism mechanism);

private:
    void reapAndReport();
    bool reapLocked(int& status);

    const pid_t pid_;
    const DispatchQueue queue_;
    const Mechanism mechanism_;
    mutable std::mutex lock_;
    ExitHandler onExit_;
    bool cancelled_ = false;
    bool reaped_ = false;
    std::optional<asio::posix::stream_descriptor> pidDescriptor_;
};

} // namespace TerminalEngine
