// The pty system calls on a real child, without LocalProcess on top.
#include "TerminalEngine/Pty/PseudoTerminalHelpers.h"

#include "support/Waiting.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

TEST(PseudoTerminalHelpersTest, AvailableBytesCountsWhatWaitsOnTheMaster) {
    const std::vector<std::string> args = {"sh", "-c", "printf abc; read x"};
    const std::vector<std::string> env = {"PATH=/usr/bin:/bin"};
    // A working directory that can't be entered is ignored: the program still runs.
    const auto child = PseudoTerminalHelpers::fork("/bin/sh", args, env, "/nonexistent/dir", {24, 80, 0, 0});
    ASSERT_TRUE(child);
    OstrelTest::waitFor(
        [&] { return PseudoTerminalHelpers::availableBytes(child->masterDescriptor).size >= 3; });
    EXPECT_EQ(PseudoTerminalHelpers::availableBytes(child->masterDescriptor), (AvailableBytes{0, 3}));
    // Later children must not inherit this master, or its terminal would never hang up.
    EXPECT_EQ(::fcntl(child->masterDescriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);

    ::kill(child->processId, SIGKILL);
    ::waitpid(child->processId, nullptr, 0);
    ::close(child->masterDescriptor);
    EXPECT_EQ(PseudoTerminalHelpers::availableBytes(child->masterDescriptor).status, -1);
    EXPECT_EQ(PseudoTerminalHelpers::setWinSize(child->masterDescriptor, {1, 1, 0, 0}), -1);
}

} // namespace
} // namespace TerminalEngine
