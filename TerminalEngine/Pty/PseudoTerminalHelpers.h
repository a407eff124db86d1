// Stateless system calls round a pseudo-terminal: start a program on a new one, resize it, and ask
// how many bytes wait on its master side.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <sys/types.h>

namespace TerminalEngine {

// The size record handed to the pty; same fields, same order as the system's `winsize`.
struct WindowSize {
    std::uint16_t rows = 0;
    std::uint16_t cols = 0;
    std::uint16_t xpixel = 0;
    std::uint16_t ypixel = 0;
    bool operator==(const WindowSize&) const = default;
};

// What `fork` hands back: the child's process id and the master side of its pty.
struct ForkedChild {
    pid_t processId = 0;
    int masterDescriptor = -1;
    bool operator==(const ForkedChild&) const = default;
};

// Result of FIONREAD: the ioctl's return value and the byte count it reported.
struct AvailableBytes {
    std::int32_t status = 0;
    std::int32_t size = 0;
    bool operator==(const AvailableBytes&) const = default;
};

class PseudoTerminalHelpers {
public:
    // Starts `andExec` (a path; no PATH search) with `args` (argument zero included) and `env`
    // ("NAME=value" each) on a new pty of `desiredWindowSize`, in `currentDirectory` when given
    // (a directory that can't be entered is ignored). Returns none when the pty or the process
    // can't be made. The master descriptor is close-on-exec, so later children don't inherit it.
    static std::optional<ForkedChild> fork(const std::string& andExec, std::span<const std::string> args,
                                           std::span<const std::string> env,
                                           const std::optional<std::string>& currentDirectory,
                                           const WindowSize& desiredWindowSize);

    // One TIOCSWINSZ; returns the ioctl's result (0, or -1 with errno set).
    static int setWinSize(int masterPtyDescriptor, const WindowSize& windowSize);

    // One FIONREAD.
    static AvailableBytes availableBytes(int fd);
};

} // namespace TerminalEngine
