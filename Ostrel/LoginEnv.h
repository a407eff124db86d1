// The environment of the user's login shell, captured once in the background at start and
// merged into each session's environment, so that agents find the PATH the user's start-up files
// build even when the workspace itself was started with a thin environment.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Ostrel::LoginEnv {

using Environment = std::vector<std::string>; // "NAME=VALUE" entries

// The shell prints this before the environment, so whatever its start-up files print comes
// first and is cut off. NUL separators keep values with newlines whole.
inline constexpr std::string_view marker{"\0TY-ENV\0", 8};
inline constexpr std::string_view captureCommand = "printf '\\0TY-ENV\\0'; env -0";
inline constexpr std::chrono::milliseconds defaultLimit{10'000};
// An environment is a few kilobytes; a start-up file that prints without end is cut off here.
inline constexpr std::size_t maxOutputBytes = 16 * 1024 * 1024;

struct Capture {
    enum class Outcome : std::uint8_t {
        captured,
        startFailed,    // the shell couldn't be started
        exitFailed,     // it exited non-zero or was killed by a signal
        timedOut,       // it ran past the limit; it and its process group were killed
        outputTooLarge, // it printed more than maxOutputBytes; killed likewise
        noMarker,       // the marker never came
        noEntries,      // nothing usable behind the marker
    };

    Outcome outcome = Outcome::startFailed;
    std::optional<Environment> environment; // present exactly when captured

    bool operator==(const Capture&) const = default;
};

// Starts the capture with the user's login shell and this process's environment on the worker
// pool; the result is stored in `cached` on the main queue. Needs the main queue to be set.
void prewarm();
// The same with a given shell, environment and time limit; `done` runs on the main queue after
// the result was stored. A capture that fails leaves an earlier result in place, and a result
// that arrives after a newer capture was started is ignored.
void prewarm(std::string shellPath, Environment environment, std::chrono::milliseconds limit,
             std::function<void()> done = {});

// Main thread only. None until a capture has succeeded.
const std::optional<Environment>& cached();
void setCached(std::optional<Environment> environment);

// `env` with every variable of the login environment that it lacks appended, in the login
// environment's order; the session's own values win. None while nothing is cached: the caller
// then starts the session's shell as a login shell instead.
std::optional<Environment> merged(const Environment& env);
Environment merged(const Environment& env, const Environment& login);

// Runs `shellPath -l -i -c captureCommand` in a session of its own (no controlling terminal, so
// an interactive shell can't take over the workspace's terminal), in HOME when that is a folder,
// stdin from /dev/null, stdout and stderr drained together. Blocks up to `limit`.
Capture captureWith(const std::string& shellPath, const Environment& environment,
                    std::chrono::milliseconds limit = defaultLimit);

// Cuts everything up to the last marker, splits the rest at NUL bytes and keeps the pieces that
// are valid UTF-8 and hold a "=".
Capture parseOutput(std::string_view output);

} // namespace Ostrel::LoginEnv
