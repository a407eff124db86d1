// Default child environment.
#include "TerminalEngine/Terminal/EnvironmentVariables.h"

#include <array>
#include <cstdlib>

namespace TerminalEngine {

namespace {

// Inherited in this order; USER twice and the literal LC_TYPE are kept as the list has always
// been, because programs started by older sessions saw exactly this.
constexpr std::array<const char*, 6> inheritedNames = {"LOGNAME", "USER", "DISPLAY",
                                                       "LC_TYPE", "USER", "HOME"};

} // namespace

std::vector<std::string> getEnvironmentVariables(std::string_view termName, bool trueColor) {
    std::vector<std::string> result;
    result.reserve(3 + inheritedNames.size());
    result.push_back("TERM=" + std::string(termName));
    if (trueColor) result.emplace_back("COLORTERM=truecolor");
    result.emplace_back("LANG=en_US.UTF-8");
    for (const char* name : inheritedNames) {
        if (const char* value = std::getenv(name)) result.push_back(std::string(name) + "=" + value);
    }
    return result;
}

} // namespace TerminalEngine
