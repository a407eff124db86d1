// The default child environment, with the session variables present and absent.
#include "TerminalEngine/Terminal/EnvironmentVariables.h"

#include <cstdlib>
#include <optional>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

TEST(EnvironmentVariablesTest, DefaultEnvironmentCarriesTerminalIdentityAndSessionVariables) {
    const std::pair<const char*, const char*> session[] = {
        {"LOGNAME", "ann"}, {"USER", "ann"}, {"DISPLAY", ":1"}, {"LC_TYPE", "fr_FR"}, {"HOME", "/home/ann"}};
    std::vector<std::pair<std::string, std::optional<std::string>>> saved;
    for (const auto& [name, value] : session) {
        const char* current = std::getenv(name);
        saved.emplace_back(name, current ? std::optional<std::string>(current) : std::nullopt);
        ::setenv(name, value, 1);
    }
    EXPECT_EQ(getEnvironmentVariables("xterm-256color", true),
              (std::vector<std::string>{"TERM=xterm-256color", "COLORTERM=truecolor", "LANG=en_US.UTF-8",
                                        "LOGNAME=ann", "USER=ann", "DISPLAY=:1", "LC_TYPE=fr_FR", "USER=ann",
                                        "HOME=/home/ann"}));
    for (const auto& [name, value] : session)
        ::unsetenv(name);
    EXPECT_EQ(getEnvironmentVariables("vt100", false),
              (std::vector<std::string>{"TERM=vt100", "LANG=en_US.UTF-8"}));

    for (const auto& [name, value] : saved) {
        if (value) ::setenv(name.c_str(), value->c_str(), 1);
    }
}

} // namespace
} // namespace TerminalEngine
