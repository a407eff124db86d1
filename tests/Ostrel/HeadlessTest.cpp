// The real `ostrel` binary run headless in a temporary HOME: its command line, its status lines, the
// sessions it starts, and a quit by SIGTERM that the next launch restores. Also the runner's own
// parsing and formatting.
#include "Ostrel/HeadlessRunner.h"
#include "Ostrel/LoginShell.h"
#include "Ostrel/Paths.h"
#include "OstrelCore/Text.h"
#include "WorkspaceHarness.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <regex>
#include <spawn.h>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace Ostrel {
namespace {

using namespace Testing;

std::vector<std::string> fieldsOf(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t at; (at = line.find("  ", start)) != std::string::npos; start = at + 2)
        fields.push_back(line.substr(start, at - start));
    fields.push_back(line.substr(start));
    return fields;
}

// One run of the binary with stdout on a pipe, stderr in a file.
class OstrelRun {
public:
    OstrelRun(const TemporaryHome& home, std::vector<std::string> arguments) {
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (home / "stderr").c_str(),
                                           O_WRONLY | O_CREAT | O_APPEND, 0600);
        arguments.insert(arguments.begin(), OSTREL_PATH);
        std::vector<char*> argv;
        for (auto& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        std::vector<std::string> environment = {"HOME=" + home.path(), "XDG_DATA_HOME=" + (home / "data"),
                                                "XDG_CONFIG_HOME=" + (home / "config"), "PATH=/usr/bin:/bin",
                                                "LANG=C"};
        std::vector<char*> envp;
        for (auto& entry : environment)
            envp.push_back(entry.data());
        envp.push_back(nullptr);
        if (::posix_spawn(&pid_, OSTREL_PATH, &actions, nullptr, argv.data(), envp.data()) != 0) pid_ = -1;
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        out_ = out[0];
    }
    ~OstrelRun() {
        if (pid_ > 0 && !status_) {
            ::kill(pid_, SIGKILL);
            wait();
        }
        if (out_ >= 0) ::close(out_);
    }

    pid_t pid() const { return pid_; }

    // The next line of stdout, none at its end or after the limit.
    std::optional<std::string> line(std::chrono::seconds limit = 60s) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            if (auto end = buffer_.find('\n'); end != std::string::npos) {
                std::string text = buffer_.substr(0, end);
                buffer_.erase(0, end + 1);
                return text;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return std::nullopt;
            pollfd ready{out_, POLLIN, 0};
            if (::poll(&ready, 1, static_cast<int>(left.count())) <= 0) continue;
            char chunk[4096];
            const ssize_t n = ::read(out_, chunk, sizeof chunk);
            if (n <= 0) return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }
    // Status lines until one per title in `titles` was seen, keyed by title.
    std::map<std::string, std::vector<std::string>> statusLines(const std::set<std::string>& titles) {
        std::map<std::string, std::vector<std::string>> seen;
        while (seen.size() < titles.size()) {
            auto text = line();
            if (!text) break;
            auto fields = fieldsOf(*text);
            if (fields.size() >= 4 && titles.count(fields[2])) seen[fields[2]] = fields;
        }
        return seen;
    }
    int wait() {
        if (!status_) {
            int raw = 0;
            while (::waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
            }
            status_ = raw;
        }
        return WIFEXITED(*status_) ? WEXITSTATUS(*status_) : 128 + WTERMSIG(*status_);
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string buffer_;
    std::optional<int> status_;
};

struct Child {
    pid_t pid;
    std::vector<std::string> argv;
    std::string cwd;
};

std::vector<Child> childrenOf(pid_t parent) {
    std::vector<Child> children;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        auto stat = Paths::readFile(entry.path().string() + "/stat");
        if (!stat) continue;
        // "pid (comm) state ppid ...": the name may hold blanks and parentheses.
        std::istringstream rest(stat->substr(stat->rfind(')') + 1));
        std::string state;
        pid_t ppid = 0;
        rest >> state >> ppid;
        if (ppid != parent) continue;
        Child child{std::stoi(name), {}, {}};
        auto cmdline = Paths::readFile(entry.path().string() + "/cmdline").value_or("");
        for (auto piece : OstrelCore::Text::split(cmdline, '\0'))
            child.argv.emplace_back(piece);
        std::error_code error;
        child.cwd = std::filesystem::read_symlink(entry.path() / "cwd", error).string();
        children.push_back(std::move(child));
    }
    return children;
}

// The folder of the one login shell among the children (the session of kind shell).
std::optional<std::string> shellFolder(pid_t parent) {
    const std::vector<std::string> loginShell = {LoginShell::path(), "-l"};
    for (const Child& child : childrenOf(parent))
        if (child.argv == loginShell) return child.cwd;
    return std::nullopt;
}

TEST(Headless, HelpDocumentsTheStatusLineAndUnusableCommandLinesExitWithTwo) {
    TemporaryHome home;
    std::filesystem::create_directories(home / "x");
    {
        OstrelRun help(home, {"--help"});
        std::string text;
        while (auto line = help.line())
            text += *line + "\n";
        EXPECT_EQ(help.wait(), 0);
        for (const char* expected :
             {"--project PATH", "--start KIND[:COMMAND]", "--headless", "--version",
              "TIME  PROJECT  TITLE  STATUS", "failed(CODE)", "SIGTERM", "--prompt TEXT", "model=NAME",
              "context=N%", "request=TOOL: TARGET", "resumes=TIME"})
            EXPECT_NE(text.find(expected), std::string::npos) << expected;
    }
    const std::vector<std::vector<std::string>> unusable = {
        {"--start", "shell"},
        {"--project", home / "x", "--start", "vim"},
        {"--project", home / "missing"},
        {"--project", home / "x", "--start", "shell:ls"},
        {"--project", home / "x", "--prompt", "hello"},
        {"--bogus"},
    };
    for (const auto& arguments : unusable) {
        OstrelRun run(home, arguments);
        EXPECT_EQ(run.wait(), 2) << arguments.front() << " " << arguments.back();
    }
    EXPECT_FALSE(std::filesystem::exists(home / "data/Ostrel/state.json"));
}

TEST(Headless, ShellRunsInItsProjectAndComesBackInTheSamePaneAfterSigterm) {
    TemporaryHome home;
    const std::string project = home / "x";
    std::filesystem::create_directories(project);
    const std::regex time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)");
    const std::set<std::string> titles = {"Shell", "Service"};

    const auto checkSlots = [&] {
        auto text = Paths::readFile(home / "data/Ostrel/state.json");
        ASSERT_TRUE(text);
        const auto state = nlohmann::json::parse(*text, nullptr, false);
        ASSERT_TRUE(state.is_object());
        const auto& records = state.at("restorable");
        ASSERT_EQ(records.size(), 2u);
        ASSERT_EQ(records[1].size(), 2u);
        std::map<std::string, int> slots;
        for (const auto& record : records[1])
            slots[record.at("kind").get<std::string>()] = record.at("visibleSlot").get<int>();
        EXPECT_EQ(slots, (std::map<std::string, int>{{"service", 1}, {"shell", 0}}));
    };

    {
        OstrelRun first(home, {"--headless", "--project", project, "--start", "shell", "--start",
                               "service:pwd > where.txt; exec sleep 60"});
        auto lines = first.statusLines(titles);
        ASSERT_EQ(lines.size(), 2u);
        for (const auto& [title, fields] : lines) {
            EXPECT_TRUE(std::regex_match(fields[0], time)) << fields[0];
            EXPECT_EQ(fields[1], "x");
            EXPECT_EQ(fields[3], "working");
        }
        MainLoop poll;
        ASSERT_TRUE(poll.runUntil([&] { return shellFolder(first.pid()) == project; }));
        ASSERT_TRUE(poll.runUntil([&] { return home.read("x/where.txt") == project + "\n"; }));
        ::kill(first.pid(), SIGTERM);
        EXPECT_EQ(first.wait(), 0);
    }
    checkSlots();

    {
        OstrelRun second(home, {});
        auto lines = second.statusLines(titles);
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines["Shell"][3], "working");
        MainLoop poll;
        EXPECT_TRUE(poll.runUntil([&] { return shellFolder(second.pid()) == project; }));
        ::kill(second.pid(), SIGTERM);
        EXPECT_EQ(second.wait(), 0);
    }
    checkSlots();
}

// A fake Claude handed its first prompt on the command line: the lines show it working, then
// waiting with its model, context and the tool it asks for, each printed once.
TEST(Headless, AgentLinesShowItWorkingThenWaitingWithToolAndTarget) {
    TemporaryHome home;
    const std::string project = home / "app";
    std::filesystem::create_directories(project);
    const std::string agent = "claude:exec python3 '" OSTREL_SOURCE_DIR
                              "/tests/agents/fake_claude.py' --ask 'Bash=make test' --model claude-sonnet-4 "
                              "--context 16000 --work 0.2";
    OstrelRun run(home, {"--headless", "--project", project, "--start", agent, "--prompt", "run the tests"});
    std::vector<std::vector<std::string>> lines;
    while (lines.empty() || lines.back()[3] != "waiting") {
        auto text = run.line(30s);
        ASSERT_TRUE(text) << (lines.empty() ? "no line" : lines.back()[3]);
        lines.push_back(fieldsOf(*text));
    }
    std::vector<std::string> statuses;
    for (const auto& fields : lines)
        if (statuses.empty() || statuses.back() != fields[3]) statuses.push_back(fields[3]);
    EXPECT_EQ(statuses, (std::vector<std::string>{"ready", "working", "waiting"}));
    const std::vector<std::string> waiting = {lines.back().begin() + 2, lines.back().end()};
    EXPECT_EQ(waiting, (std::vector<std::string>{"run the tests", "waiting", "model=claude-sonnet-4",
                                                 "context=10%", "request=Bash: make test"}));
    // A line per change, never the same facts twice.
    for (std::size_t i = 1; i < lines.size(); ++i)
        EXPECT_NE(std::vector<std::string>(lines[i].begin() + 2, lines[i].end()),
                  std::vector<std::string>(lines[i - 1].begin() + 2, lines[i - 1].end()));
    ::kill(run.pid(), SIGTERM);
    EXPECT_EQ(run.wait(), 0);
}

TEST(HeadlessRunner, StartRequestsNameAKindAndMaybeACommand) {
    using Start = HeadlessRunner::Start;
    struct Case {
        const char* text;
        std::optional<Start> expected; // none: an error
    };
    const Case cases[] = {
        {"claude", Start{SessionKind::claude, std::nullopt}},
        {"service:npm run dev -- --port 3000", Start{SessionKind::service, "npm run dev -- --port 3000"}},
        {"codex:codex resume 'a:b'", Start{SessionKind::codex, "codex resume 'a:b'"}},
        {"gemini:", Start{SessionKind::gemini, std::nullopt}},
        {"shell", Start{SessionKind::shell, std::nullopt}},
        {"shell:ls", std::nullopt},
        {"Claude", std::nullopt},
        {"", std::nullopt},
    };
    for (const Case& c : cases) {
        auto parsed = HeadlessRunner::parseStart(c.text);
        if (c.expected)
            EXPECT_EQ(std::get_if<Start>(&parsed) ? std::optional(std::get<Start>(parsed)) : std::nullopt,
                      c.expected)
                << c.text;
        else
            EXPECT_TRUE(std::holds_alternative<std::string>(parsed)) << c.text;
    }
}

TEST(HeadlessRunner, StatusLineFieldsNeverHoldTwoBlanks) {
    const auto at = std::chrono::system_clock::now();
    const auto line =
        HeadlessRunner::statusLine(at, "my  app\t", "Fix\nthe\x1b[31m  parser", {SessionStatus::failed(127)});
    const auto fields = fieldsOf(line);
    ASSERT_EQ(fields.size(), 4u) << line;
    EXPECT_EQ(fields[1], "my app");
    EXPECT_EQ(fields[2], "Fix the [31m parser");
    EXPECT_EQ(fields[3], "failed(127)");
    EXPECT_EQ(fieldsOf(HeadlessRunner::statusLine(at, "", "", {SessionStatus::idle()}))[1], "-");

    const HeadlessRunner::Facts facts{SessionStatus::waiting(), "claude  x\n", 42,
                                      OstrelCore::ApprovalPolicy::Request{"Bash", "make   test"},
                                      std::nullopt};
    const auto agentFields = fieldsOf(HeadlessRunner::statusLine(at, "p", "t", facts));
    EXPECT_EQ(
        std::vector<std::string>(agentFields.begin() + 3, agentFields.end()),
        (std::vector<std::string>{"waiting", "model=claude x", "context=42%", "request=Bash: make test"}));
}

} // namespace
} // namespace Ostrel
