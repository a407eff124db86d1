// A terminal wired to a real child: output reaches the screen, replies reach the child.
#include "TerminalEngine/Pty/HeadlessTerminal.h"

#include "support/Waiting.h"

#include <chrono>
#include <functional>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

using namespace std::chrono_literals;

class MainLoop {
public:
    MainLoop() { DispatchQueue::setMain(loop); }
    ~MainLoop() { DispatchQueue::clearMain(); }
    bool runUntil(const std::function<bool()>& done, std::chrono::seconds limit = 60s) {
        return OstrelTest::runUntil(loop, done, limit);
    }
    asio::io_context loop;
    // A loop that ran out of work stops and would ignore what is posted later (the last chunks of
    // output arrive after the exit report): keep it alive, as the application's loop is.
    asio::executor_work_guard<asio::io_context::executor_type> keepAlive = asio::make_work_guard(loop);
};

std::vector<std::string> shellEnv() {
    return {"PATH=/usr/bin:/bin", "TERM=xterm-256color", "LANG=C.UTF-8"};
}

TEST(HeadlessTerminal, RunsAProgramAnswersItsQueriesAndPassesOnResizes) {
    MainLoop main;
    bool ended = false;
    std::optional<std::int32_t> status;
    TerminalOptions options;
    options.cols = 30;
    options.rows = 5;
    auto host = HeadlessTerminal::create(std::nullopt, options, [&](std::optional<std::int32_t> code) {
        status = code;
        ended = true;
    });
    // The shell asks for the cursor position and prints the answer it reads back, then the size it
    // has once a line comes.
    host->process->startProcess("/bin/bash",
                                {"--norc", "-c",
                                 // The terminal leaves line mode before asking, so the reply is read
                                 // as it arrives whatever moment it comes back at.
                                 "stty -icanon -echo; printf 'ab\\e[6n'; IFS= read -r -d R reply; echo; "
                                 "echo \"got${reply#*[}\"; read -r line; stty size"},
                                shellEnv());
    ASSERT_TRUE(main.runUntil([&] { return host->terminal->lineText(1) == "got1;3"; }, 20s))
        << host->terminal->lineText(0) << "|" << host->terminal->lineText(1);
    host->resize(100, 30);
    host->send("\r");
    ASSERT_TRUE(main.runUntil([&] { return ended && host->process->outputFinished(); }, 20s));
    main.loop.poll();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(host->terminal->cols, 100);
    EXPECT_EQ(host->terminal->lineText(2), "30 100");
}

} // namespace
} // namespace TerminalEngine
