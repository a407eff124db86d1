// Login environment capture: a login shell run once with a time limit, its output parsed behind a
// marker, the result kept on the main thread.
#include "Ostrel/LoginEnv.h"

#include "Ostrel/LoginShell.h"
#include "Ostrel/WorkerPool.h"
#include "OstrelCore/Text.h"
#include "TerminalEngine/Pty/DispatchQueue.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unordered_set>
#include <utility>

namespace Ostrel::LoginEnv {
namespace {

using Clock = std::chrono::steady_clock;

// Without a pidfd, the exit of the shell is noticed by polling at this interval.
constexpr std::chrono::milliseconds exitPollInterval{20};
constexpr std::size_t readChunk = 64 * 1024;
// Keeps the deadline arithmetic and poll's int time-out in range whatever limit is asked for.
constexpr std::chrono::milliseconds longestLimit = std::chrono::hours(24);

struct MainState {
    std::optional<Environment> cached;
    std::uint64_t generation = 0;
};

MainState& mainState() {
    static MainState state;
    return state;
}

class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd)
        : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept
        : fd_(std::exchange(other.fd_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    void reset() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }

private:
    int fd_ = -1;
};

struct Pipe {
    FileDescriptor read;
    FileDescriptor write;

    static std::optional<Pipe> make() {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) return std::nullopt;
        return Pipe{FileDescriptor(fds[0]), FileDescriptor(fds[1])};
    }
};

// posix_spawn's attribute and file-action objects, destroyed on every path.
struct SpawnSetup {
    posix_spawnattr_t attributes{};
    posix_spawn_file_actions_t actions{};

    SpawnSetup() {
        ::posix_spawnattr_init(&attributes);
        ::posix_spawn_file_actions_init(&actions);
    }
    ~SpawnSetup() {
        ::posix_spawn_file_actions_destroy(&actions);
        ::posix_spawnattr_destroy(&attributes);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;
};

std::optional<std::string> homeFolder(const Environment& environment) {
    for (const auto& entry : environment) {
        if (!OstrelCore::Text::startsWith(entry, "HOME=")) continue;
        std::string home = entry.substr(5);
        struct stat info {};
        if (!home.empty() && ::stat(home.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return home;
        return std::nullopt;
    }
    return std::nullopt;
}

std::optional<pid_t> spawnShell(const std::string& shellPath, const Environment& environment, int output,
                                int errors) {
    SpawnSetup setup;
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    // A session of its own: no controlling terminal to fight over, and one process group that
    // the time limit can kill whole. Signal state is reset because the workspace ignores some.
    ::posix_spawnattr_setflags(&setup.attributes,
                               POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    ::posix_spawnattr_setsigmask(&setup.attributes, &none);
    ::posix_spawnattr_setsigdefault(&setup.attributes, &all);

    ::posix_spawn_file_actions_addopen(&setup.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&setup.actions, output, STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&setup.actions, errors, STDERR_FILENO);
    ::posix_spawn_file_actions_addclosefrom_np(&setup.actions, STDERR_FILENO + 1);
    if (auto home = homeFolder(environment))
        ::posix_spawn_file_actions_addchdir_np(&setup.actions, home->c_str());

    const std::string command(captureCommand);
    std::array<const char*, 6> argv{shellPath.c_str(), "-l", "-i", "-c", command.c_str(), nullptr};
    std::vector<const char*> envp;
    envp.reserve(environment.size() + 1);
    for (const auto& entry : environment)
        envp.push_back(entry.c_str());
    envp.push_back(nullptr);

    pid_t pid = -1;
    // posix_spawn's interface predates const; neither array is written to.
    const int failure =
        ::posix_spawn(&pid, shellPath.c_str(), &setup.actions, &setup.attributes,
                      const_cast<char* const*>(argv.data()), const_cast<char* const*>(envp.data()));
    if (failure != 0) return std::nullopt;
    return pid;
}

FileDescriptor openPidfd(pid_t pid) {
#ifdef SYS_pidfd_open
    return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
#else
    (void)pid;
    return FileDescriptor();
#endif
}

// Reads what the pipe holds now, closing it at its end. `sink` is null for a stream that is read
// only so that the child never blocks on a full pipe.
void readAvailable(FileDescriptor& fd, std::string* sink) {
    char buffer[readChunk];
    for (;;) {
        const ssize_t count = ::read(fd.get(), buffer, sizeof buffer);
        if (count > 0) {
            if (!sink) continue;
            sink->append(buffer, static_cast<std::size_t>(count));
            if (sink->size() > maxOutputBytes) return;
            continue;
        }
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        fd.reset();
        return;
    }
}

struct ShellRun {
    Capture::Outcome failure = Capture::Outcome::captured; // `captured` means it ran and exited 0
    std::string output;
};

void killGroup(pid_t pid) {
    // The shell leads its own process group, so this reaches what its start-up files started.
    ::kill(-pid, SIGKILL);
    ::kill(pid, SIGKILL);
}

int reap(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

ShellRun runShell(const std::string& shellPath, const Environment& environment,
                  std::chrono::milliseconds limit) {
    ShellRun run;
    auto output = Pipe::make();
    auto errors = Pipe::make();
    if (!output || !errors) {
        run.failure = Capture::Outcome::startFailed;
        return run;
    }
    const auto spawned = spawnShell(shellPath, environment, output->write.get(), errors->write.get());
    output->write.reset();
    errors->write.reset();
    if (!spawned) {
        run.failure = Capture::Outcome::startFailed;
        return run;
    }
    const pid_t pid = *spawned;
    ::fcntl(output->read.get(), F_SETFL, O_NONBLOCK);
    ::fcntl(errors->read.get(), F_SETFL, O_NONBLOCK);
    FileDescriptor exitSignal = openPidfd(pid);

    const auto deadline = Clock::now() + std::clamp(limit, std::chrono::milliseconds(0), longestLimit);
    std::optional<int> status;
    while (!status) {
        if (run.output.size() > maxOutputBytes) {
            killGroup(pid);
            reap(pid);
            run.failure = Capture::Outcome::outputTooLarge;
            return run;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            killGroup(pid);
            reap(pid);
            run.failure = Capture::Outcome::timedOut;
            return run;
        }
        std::array<pollfd, 3> watched{};
        std::size_t count = 0;
        if (output->read.valid()) watched[count++] = {output->read.get(), POLLIN, 0};
        if (errors->read.valid()) watched[count++] = {errors->read.get(), POLLIN, 0};
        if (exitSignal.valid()) watched[count++] = {exitSignal.get(), POLLIN, 0};
        const auto wait = exitSignal.valid() ? left : std::min(left, exitPollInterval);
        const int ready = ::poll(watched.data(), count, static_cast<int>(wait.count()));
        if (ready < 0 && errno != EINTR) {
            killGroup(pid);
            reap(pid);
            run.failure = Capture::Outcome::exitFailed;
            return run;
        }
        if (output->read.valid()) readAvailable(output->read, &run.output);
        if (errors->read.valid()) readAvailable(errors->read, nullptr);

        // The shell's exit, not the end of its pipes, ends the capture: a daemon that a start-up
        // file left running may hold the pipes open for ever. Everything `env` wrote is in the
        // pipe by then, because `env` finished before the shell did.
        if (exitSignal.valid()) {
            const bool exited = std::any_of(
                watched.begin(), watched.begin() + static_cast<std::ptrdiff_t>(count),
                [&](const pollfd& p) { return p.fd == exitSignal.get() && (p.revents & POLLIN); });
            if (exited) status = reap(pid);
        } else {
            int waited = 0;
            const pid_t result = ::waitpid(pid, &waited, WNOHANG);
            if (result == pid)
                status = waited;
            else if (result < 0 && errno != EINTR)
                status = -1;
        }
    }
    if (output->read.valid()) readAvailable(output->read, &run.output);
    if (run.output.size() > maxOutputBytes) {
        run.failure = Capture::Outcome::outputTooLarge;
        return run;
    }
    if (*status < 0 || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0)
        run.failure = Capture::Outcome::exitFailed;
    return run;
}

std::string_view nameOf(std::string_view entry) {
    const auto equals = entry.find('=');
    return equals == std::string_view::npos ? std::string_view{} : entry.substr(0, equals);
}

} // namespace

Capture parseOutput(std::string_view output) {
    // The last marker is the real one: `env -0` prints NAME=VALUE entries, which the marker (no
    // "=") can't pass for, while a start-up file could print anything, the marker included.
    const auto at = output.rfind(marker);
    if (at == std::string_view::npos) return Capture{Capture::Outcome::noMarker, std::nullopt};
    Environment environment;
    for (auto piece : OstrelCore::Text::split(output.substr(at + marker.size()), '\0')) {
        if (piece.find('=') == std::string_view::npos || !OstrelCore::Text::isValidUtf8(piece)) continue;
        environment.emplace_back(piece);
    }
    if (environment.empty()) return Capture{Capture::Outcome::noEntries, std::nullopt};
    return Capture{Capture::Outcome::captured, std::move(environment)};
}

Capture captureWith(const std::string& shellPath, const Environment& environment,
                    std::chrono::milliseconds limit) {
    ShellRun run = runShell(shellPath, environment, limit);
    if (run.failure != Capture::Outcome::captured) return Capture{run.failure, std::nullopt};
    return parseOutput(run.output);
}

void prewarm() {
    prewarm(LoginShell::path(), LoginShell::processEnvironment(), defaultLimit);
}

void prewarm(std::string shellPath, Environment environment, std::chrono::milliseconds limit,
             std::function<void()> done) {
    if (!TerminalEngine::DispatchQueue::hasMain()) return;
    const auto mainQueue = TerminalEngine::DispatchQueue::main();
    const std::uint64_t generation = ++mainState().generation;
    WorkerPool::run([mainQueue, generation, limit, shellPath = std::move(shellPath),
                     environment = std::move(environment), done = std::move(done)]() mutable {
        Capture capture = captureWith(shellPath, environment, limit);
        mainQueue.async(
            [generation, result = std::move(capture.environment), done = std::move(done)]() mutable {
                auto& state = mainState();
                if (generation == state.generation && result) state.cached = std::move(result);
                if (done) done();
            });
    });
}

const std::optional<Environment>& cached() {
    return mainState().cached;
}

void setCached(std::optional<Environment> environment) {
    mainState().cached = std::move(environment);
}

std::optional<Environment> merged(const Environment& env) {
    const auto& login = cached();
    if (!login) return std::nullopt;
    return merged(env, *login);
}

Environment merged(const Environment& env, const Environment& login) {
    std::unordered_set<std::string_view> names;
    for (const auto& entry : env)
        if (entry.find('=') != std::string::npos) names.insert(nameOf(entry));
    Environment result = env;
    for (const auto& entry : login) {
        if (entry.find('=') == std::string::npos) continue;
        // Inserting as we go keeps the first of two login entries with the same name, which is
        // the one getenv would have found.
        if (names.insert(nameOf(entry)).second) result.push_back(entry);
    }
    return result;
}

} // namespace Ostrel::LoginEnv
