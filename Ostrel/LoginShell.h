// The user's login shell: the program that starts sessions and builds the user's PATH from its
// start-up files.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace Ostrel::LoginShell {

inline constexpr const char* fallbackShell = "/bin/sh";

// The shell of the user's account, else $SHELL, else /bin/sh.
std::string path();

// The first candidate that is an absolute path to an executable file and not a shell that
// refuses logins (nologin, false); /bin/sh when none is.
std::string choose(const std::vector<std::optional<std::string>>& candidates);

// The environment this process was started with, as "NAME=VALUE" entries.
std::vector<std::string> processEnvironment();

} // namespace Ostrel::LoginShell
