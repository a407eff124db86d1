// The environment a child gets when its owner gives none: terminal identity, UTF-8, and the few
// variables of the user's own session that programs expect to find.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace TerminalEngine {

// "TERM=<termName>", "COLORTERM=truecolor" when asked, "LANG=en_US.UTF-8", then LOGNAME, USER,
// DISPLAY, LC_TYPE, USER and HOME copied from this process where set (USER is looked up twice, so
// it appears twice when set).
std::vector<std::string> getEnvironmentVariables(std::string_view termName, bool trueColor);

} // namespace TerminalEngine
