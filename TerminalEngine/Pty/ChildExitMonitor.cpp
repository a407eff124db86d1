// Exit notification through a pidfd on the queue's loop, or a blocking waitid() thread where the
// kernel refuses pidfds. Neither touches SIGCHLD, which other parts of the process may own.
#include "TerminalEngine/Pty/ChildExitMonitor.h"

#include <cerrno>
#include <csignal>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

#include <asio/post.hpp>

namespace TerminalEngine {

namespace {

int openPidDescriptor(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

} // namespace

ChildExitMonitor::ChildExitMonitor(Passkey, pid_t pid, const DispatchQueue& queue, ExitHandler onExit,
                                   Mechanism mechanism)
    : pid_(pid)
    , queue_(queue)
    , mechanism_(mechanism)
    , onExit_(std::move(onExit)) {}

std::shared_ptr<ChildExitMonitor> ChildExitMonitor::watch(pid_t pid, const DispatchQueue& queue,
                                                          ExitHandler onExit,
                                                          std::optional<Mechanism> mechanism) {
    if (mechanism.value_or(Mechanism::pidfd) == Mechanism::pidfd) {
        const int fd = openPidDescriptor(pid);
        if (fd >= 0) {
            auto monitor = std::make_shared<ChildExitMonitor>(Passkey{}, pid, queue, std::move(onExit),
                                                              Mechanism::pidfd);
            asio::error_code error;
            monitor->pidDescriptor_.emplace(queue.context());
            monitor->pidDescriptor_->assign(fd, error);
            if (!error) {
                // The wait holds the monitor: it outlives its owner until the child is reaped.
                monitor->pidDescriptor_->async_wait(asio::posix::stream_descriptor::wait_read,
                                                    [monitor](const asio::error_code& waitError) {
                                                        if (!waitError) monitor->reapAndReport();
                                                    });
                return monitor;
            }
            ::close(fd);
            onExit = std::move(monitor->onExit_);
        }
        if (mechanism) return nullptr;
    }

    auto monitor =
        std::make_shared<ChildExitMonitor>(Passkey{}, pid, queue, std::move(onExit), Mechanism::waiterThread);
    try {
        std::thread([monitor] {
            siginfo_t info{};
            // WNOWAIT: the child stays a zombie, so that the reap below happens under the lock that
            // signal() takes.
            while (::waitid(P_PID, static_cast<id_t>(monitor->pid_), &info, WEXITED | WNOWAIT) != 0 &&
                   errno == EINTR) {
            }
            std::lock_guard lock(monitor->lock_);
            if (monitor->cancelled_) {
                int status = 0;
                monitor->reapLocked(status);
                return;
            }
            // Posted under the lock: until cancel() has run, the queue's context is alive.
            monitor->queue_.async([monitor] { monitor->reapAndReport(); });
        }).detach();
    } catch (const std::system_error&) {
        return nullptr;
    }
    return monitor;
}

void ChildExitMonitor::cancel() {
    ExitHandler released;
    std::lock_guard lock(lock_);
    cancelled_ = true;
    released = std::move(onExit_);
    onExit_ = nullptr;
}

bool ChildExitMonitor::signal(int signalNumber) {
    std::lock_guard lock(lock_);
    if (reaped_) return false;
    return ::kill(pid_, signalNumber) == 0;
}

bool ChildExitMonitor::reaped() const {
    std::lock_guard lock(lock_);
    return reaped_;
}

bool ChildExitMonitor::reapLocked(int& status) {
    if (reaped_) return false;
    const pid_t result = ::waitpid(pid_, &status, WNOHANG);
    // ECHILD: somebody else reaped it (SIGCHLD ignored, say); either way the id is gone.
    reaped_ = result == pid_ || (result < 0 && errno == ECHILD);
    return true;
}

void ChildExitMonitor::reapAndReport() {
    ExitHandler handler;
    int status = 0;
    {
        std::lock_guard lock(lock_);
        if (!reapLocked(status)) return;
        if (!cancelled_) handler = std::move(onExit_);
        onExit_ = nullptr;
    }
    if (pidDescriptor_) {
        asio::error_code ignored;
        pidDescriptor_->close(ignored);
    }
    if (handler) handler(status);
}

} // namespace TerminalEngine
