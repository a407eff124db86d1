// Choosing the login shell among the account's, $SHELL and the fallback.
#include "Ostrel/LoginShell.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

TEST(LoginShell, TheFirstUsableCandidateWinsElseTheFallback) {
    const auto plainFile = std::filesystem::temp_directory_path() / "ostrel-not-a-shell";
    std::ofstream(plainFile) << "#!/bin/sh\n";
    std::filesystem::permissions(plainFile,
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    struct Case {
        const char* name;
        std::vector<std::optional<std::string>> candidates;
        std::string expected;
    };
    const Case cases[] = {
        {"account shell", {"/bin/bash", "/bin/sh"}, "/bin/bash"},
        {"no account entry", {std::nullopt, "/bin/bash"}, "/bin/bash"},
        {"account refuses logins", {"/usr/sbin/nologin", "/bin/bash"}, "/bin/bash"},
        {"false is no shell", {"/bin/false", std::nullopt}, "/bin/sh"},
        {"relative path", {"bash", "bin/bash"}, "/bin/sh"},
        {"missing file", {"/nonexistent/zsh", ""}, "/bin/sh"},
        {"not executable", {plainFile.string()}, "/bin/sh"},
        {"a folder", {"/bin"}, "/bin/sh"},
        {"nothing at all", {}, "/bin/sh"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Ostrel::LoginShell::choose(c.candidates), c.expected) << c.name;
    std::filesystem::remove(plainFile);
    EXPECT_EQ(Ostrel::LoginShell::path().front(), '/');
}
