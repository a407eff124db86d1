// Login environment capture against real login shells in a temporary HOME whose profile the test
// writes, and the merge into a session's environment.
#include "Ostrel/LoginEnv.h"

#include "TerminalEngine/Pty/DispatchQueue.h"
#include "support/TemporaryFolder.h"
#include "support/Waiting.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <gtest/gtest.h>

namespace LoginEnv = Ostrel::LoginEnv;
using Outcome = LoginEnv::Capture::Outcome;
using namespace std::chrono_literals;
using namespace std::string_literals;

namespace {

// Generous: a bound for a broken machine, never what a passing run waits for.
constexpr auto captureLimit = 30s;

constexpr const char* profile = "echo 'Welcome back! PATH=/banner/bin'\n"
                                "echo 'banner on stderr' >&2\n"
                                "export MULTI='line one\nline two'\n"
                                "export PATH=\"/opt/login/bin:$PATH\"\n";

using TemporaryHome = OstrelTest::TemporaryFolder;

LoginEnv::Environment environmentOf(const TemporaryHome& home) {
    return {"HOME=" + home.path(), "PATH=/usr/bin:/bin"};
}

bool contains(const LoginEnv::Environment& environment, const std::string& entry) {
    return std::find(environment.begin(), environment.end(), entry) != environment.end();
}

} // namespace

TEST(LoginEnv, OutputIsReadBehindTheLastMarkerAndSplitAtNul) {
    const std::string marker(LoginEnv::marker);
    struct Case {
        const char* name;
        std::string output;
        Outcome outcome;
        LoginEnv::Environment expected;
    };
    const Case cases[] = {
        {"banner is cut off",
         "Hello A=1\n" + marker + "A=2\0B=x\ny\0"s,
         Outcome::captured,
         {"A=2", "B=x\ny"}},
        {"marker printed by a profile",
         marker + "FAKE=1\0"s + marker + "REAL=1\0"s,
         Outcome::captured,
         {"REAL=1"}},
        {"pieces without = or bad UTF-8 dropped",
         marker + "noequals\0BAD=\xC3\x28\0OK=\xC3\xA9\0\0"s,
         Outcome::captured,
         {"OK=\xC3\xA9"}},
        {"no terminating NUL", marker + "A=1"s, Outcome::captured, {"A=1"}},
        {"no marker", "A=1\0B=2\0"s, Outcome::noMarker, {}},
        {"half a marker", "\0TY-ENV"s + "A=1\0"s, Outcome::noMarker, {}},
        {"nothing usable", "banner" + marker + "junk\0\0"s, Outcome::noEntries, {}},
    };
    for (const auto& c : cases) {
        const auto capture = LoginEnv::parseOutput(c.output);
        EXPECT_EQ(capture.outcome, c.outcome) << c.name;
        EXPECT_EQ(capture.environment.value_or(LoginEnv::Environment{}), c.expected) << c.name;
    }
}

TEST(LoginEnv, MergeKeepsTheSessionsValuesAndAppendsWhatItLacks) {
    const LoginEnv::Environment session{"PATH=/usr/bin", "ORPHAN"};
    const LoginEnv::Environment login{"HOME=/h", "PATH=/opt/bin", "ORPHAN=named", "HOME=/second", "broken"};
    const LoginEnv::Environment expected{"PATH=/usr/bin", "ORPHAN", "HOME=/h", "ORPHAN=named"};
    EXPECT_EQ(LoginEnv::merged(session, login), expected);
    LoginEnv::setCached(std::nullopt);
    EXPECT_EQ(LoginEnv::merged(session), std::nullopt);
    LoginEnv::setCached(login);
    EXPECT_EQ(LoginEnv::merged(session), expected);
    LoginEnv::setCached(std::nullopt);
}

// Bash is captured the way the application starts it, by a prewarm that hands the result to the
// main queue; a later capture that fails keeps what the first one found.
TEST(LoginEnv, LoginShellsGiveTheirEnvironmentWithoutTheBanner) {
    asio::io_context mainContext;
    TerminalEngine::DispatchQueue::setMain(mainContext);
    const auto prewarmAndWait = [&](const std::string& shell, const TemporaryHome& home) {
        auto work = asio::make_work_guard(mainContext);
        bool done = false;
        LoginEnv::prewarm(shell, environmentOf(home), captureLimit, [&] {
            done = true;
            work.reset();
        });
        mainContext.restart();
        mainContext.run();
        return done;
    };
    for (const auto& [shell, profileName] :
         {std::pair{"/bin/bash", ".bash_profile"}, {"/bin/sh", ".profile"}}) {
        SCOPED_TRACE(shell);
        TemporaryHome home;
        home.write(profileName, profile);
        LoginEnv::setCached(std::nullopt);
        std::optional<LoginEnv::Environment> environment;
        if (std::string_view(shell) == "/bin/bash") {
            ASSERT_TRUE(prewarmAndWait(shell, home));
            environment = LoginEnv::cached();
            ASSERT_TRUE(prewarmAndWait("/nonexistent/bin/zsh", home));
            EXPECT_EQ(LoginEnv::cached(), environment);
        } else {
            const auto capture = LoginEnv::captureWith(shell, environmentOf(home), captureLimit);
            ASSERT_EQ(capture.outcome, Outcome::captured);
            environment = capture.environment;
        }
        ASSERT_TRUE(environment);
        EXPECT_TRUE(contains(*environment, "MULTI=line one\nline two"));
        EXPECT_TRUE(contains(*environment, "HOME=" + home.path()));
        for (const auto& entry : *environment) {
            EXPECT_EQ(entry.find("Welcome"), std::string::npos) << entry;
            EXPECT_EQ(entry.find("stderr"), std::string::npos) << entry;
        }
        const auto merged = LoginEnv::merged({"PATH=/session/bin"}, *environment);
        EXPECT_EQ(
            std::count_if(merged.begin(), merged.end(), [](auto& e) { return e.rfind("PATH=", 0) == 0; }), 1);
        EXPECT_EQ(merged.front(), "PATH=/session/bin");
        EXPECT_TRUE(contains(merged, "MULTI=line one\nline two"));
    }
    LoginEnv::setCached(std::nullopt);
    TerminalEngine::DispatchQueue::clearMain();
}

TEST(LoginEnv, ShellsThatFailGiveNone) {
    struct Case {
        const char* name;
        std::string shell;
        const char* profile;
        Outcome outcome;
    };
    const Case cases[] = {
        {"missing shell", "/nonexistent/bin/zsh", "", Outcome::startFailed},
        {"not a program", "/etc/hostname", "", Outcome::startFailed},
        {"exits non-zero", "/bin/false", "", Outcome::exitFailed},
        {"exits zero silently", "/bin/true", "", Outcome::noMarker},
        {"profile exits", "/bin/bash", "echo leaving; exit 3\n", Outcome::exitFailed},
        {"profile prints without end", "/bin/bash", "yes\n", Outcome::outputTooLarge},
    };
    for (const auto& c : cases) {
        TemporaryHome home;
        home.write(".bash_profile", c.profile);
        const auto capture = LoginEnv::captureWith(c.shell, environmentOf(home), captureLimit);
        EXPECT_EQ(capture.outcome, c.outcome) << c.name;
        EXPECT_FALSE(capture.environment) << c.name;
    }
}

TEST(LoginEnv, HangingShellIsKilledWithItsProcessGroupAtTheLimit) {
    TemporaryHome home;
    home.write(".bash_profile", "sleep 1000 & echo $! > \"$HOME/sleeper\"\nwait\n");
    const auto capture = LoginEnv::captureWith("/bin/bash", environmentOf(home), 1s);
    EXPECT_EQ(capture.outcome, Outcome::timedOut);
    EXPECT_FALSE(capture.environment);

    std::string sleeper;
    std::ifstream(home / "sleeper") >> sleeper;
    ASSERT_FALSE(sleeper.empty());
    // The killed sleeper is reaped by whoever adopted it; wait for that, bounded, rather than race.
    auto alive = [&] {
        std::ifstream stat("/proc/" + sleeper + "/stat");
        std::string pid, command, state;
        return stat >> pid >> command >> state && state != "Z";
    };
    EXPECT_TRUE(OstrelTest::waitFor([&] { return !alive(); }, 5s));
}
