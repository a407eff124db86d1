// Resolving the login shell from the account database and the environment.
#include "Ostrel/LoginShell.h"

#include <array>
#include <cstdlib>
#include <pwd.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

extern char** environ;

namespace Ostrel::LoginShell {
namespace {

// Accounts that may not log in carry one of these as their shell; a session can't run in them.
constexpr std::array<std::string_view, 2> refusingShells{"nologin", "false"};

bool isUsable(const std::string& candidate) {
    if (candidate.empty() || candidate.front() != '/') return false;
    const std::string_view name = std::string_view(candidate).substr(candidate.rfind('/') + 1);
    for (auto refusing : refusingShells)
        if (name == refusing) return false;
    struct stat info {};
    return ::stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           ::access(candidate.c_str(), X_OK) == 0;
}

std::optional<std::string> accountShell() {
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::string buffer(size > 0 ? static_cast<std::size_t>(size) : 16384, '\0');
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found ||
        !found->pw_shell)
        return std::nullopt;
    return std::string(found->pw_shell);
}

std::optional<std::string> environmentShell() {
    const char* shell = std::getenv("SHELL");
    return shell ? std::optional<std::string>(shell) : std::nullopt;
}

} // namespace

std::string path() {
    return choose({accountShell(), environmentShell()});
}

std::string choose(const std::vector<std::optional<std::string>>& candidates) {
    for (const auto& candidate : candidates)
        if (candidate && isUsable(*candidate)) return *candidate;
    return fallbackShell;
}

std::vector<std::string> processEnvironment() {
    std::vector<std::string> entries;
    for (char** entry = environ; entry && *entry; ++entry)
        entries.emplace_back(*entry);
    return entries;
}

} // namespace Ostrel::LoginShell
