// forkpty-based start of a child: every allocation happens before the fork, because the child of a
// threaded process may only make async-signal-safe calls until it has exec'd.
#include "TerminalEngine/Pty/PseudoTerminalHelpers.h"

#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace TerminalEngine {

static_assert(sizeof(WindowSize) == sizeof(::winsize));
static_assert(offsetof(::winsize, ws_row) == offsetof(WindowSize, rows));
static_assert(offsetof(::winsize, ws_col) == offsetof(WindowSize, cols));
static_assert(offsetof(::winsize, ws_xpixel) == offsetof(WindowSize, xpixel));
static_assert(offsetof(::winsize, ws_ypixel) == offsetof(WindowSize, ypixel));

namespace {

// forkpty opens the master without close-on-exec. Serialising our own forks lets us set the flag
// before any other child of ours can be forked and inherit a sibling's master (which would keep
// that sibling's terminal from ever hanging up).
std::mutex& forkLock() {
    static std::mutex lock;
    return lock;
}

::winsize toSystem(const WindowSize& size) {
    ::winsize result{};
    result.ws_row = size.rows;
    result.ws_col = size.cols;
    result.ws_xpixel = size.xpixel;
    result.ws_ypixel = size.ypixel;
    return result;
}

// A null-terminated array of pointers into `strings`, which outlive the fork.
std::vector<char*> cStringArray(std::span<const std::string> strings) {
    std::vector<char*> result;
    result.reserve(strings.size() + 1);
    for (const auto& s : strings)
        result.push_back(const_cast<char*>(s.c_str()));
    result.push_back(nullptr);
    return result;
}

} // namespace

std::optional<ForkedChild> PseudoTerminalHelpers::fork(const std::string& andExec,
                                                       std::span<const std::string> args,
                                                       std::span<const std::string> env,
                                                       const std::optional<std::string>& currentDirectory,
                                                       const WindowSize& desiredWindowSize) {
    std::vector<char*> envp;
    std::vector<char*> argv;
    try {
        envp = cStringArray(env);
        argv = cStringArray(args);
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
    const char* path = andExec.c_str();
    const char* directory = currentDirectory ? currentDirectory->c_str() : nullptr;
    ::winsize size = toSystem(desiredWindowSize);
    sigset_t emptyMask;
    sigemptyset(&emptyMask);

    std::lock_guard lock(forkLock());
    int master = -1;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, &size);
    if (pid == 0) {
        // The child: system calls only. Signal dispositions and the mask of this process (an
        // ignored SIGPIPE, signals blocked for worker threads) must not reach the program, nor
        // must descriptors that other threads opened without close-on-exec.
        for (int sig = 1; sig < NSIG; ++sig)
            ::signal(sig, SIG_DFL);
        ::sigprocmask(SIG_SETMASK, &emptyMask, nullptr);
        ::close_range(3, ~0U, 0);
        if (directory != nullptr && ::chdir(directory) != 0) {
        }
        ::execve(path, argv.data(), envp.data());
        ::_exit(127);
    }
    if (pid < 0) return std::nullopt;
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    return ForkedChild{pid, master};
}

int PseudoTerminalHelpers::setWinSize(int masterPtyDescriptor, const WindowSize& windowSize) {
    const ::winsize size = toSystem(windowSize);
    return ::ioctl(masterPtyDescriptor, TIOCSWINSZ, &size);
}

AvailableBytes PseudoTerminalHelpers::availableBytes(int fd) {
    int size = 0;
    const int status = ::ioctl(fd, FIONREAD, &size);
    return {static_cast<std::int32_t>(status), static_cast<std::int32_t>(size)};
}

} // namespace TerminalEngine
