// ostrel-term end to end: real programs on real pseudo-terminals, their queries answered, and
// interactive ones driven with --input.
#include "support/TemporaryFolder.h"

#include <initializer_list>
#include <optional>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs ostrel-term with a time limit of its own, so that a hung program fails the test quickly.
Outcome ostrelTerm(std::vector<std::string> args) {
    args.insert(args.begin(), {OSTREL_TERM_PATH, "--timeout", "20"});
    int out[2], err[2];
    if (::pipe(out) != 0 || ::pipe(err) != 0) return {};
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        ::close(out[0]);
        ::close(err[0]);
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    Outcome run;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int open = 2;
    while (open > 0 && ::poll(fds, 2, 30000) > 0) {
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
            char buf[4096];
            ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
            if (n <= 0) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            } else {
                (i == 0 ? run.out : run.err).append(buf, static_cast<std::size_t>(n));
            }
        }
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

// The lines of the printed screen, trailing blanks dropped.
std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line.substr(0, line.find_last_not_of(' ') + 1));
    return out;
}

TEST(OstrelTerm, PrintsTheScreenOfTheSizeAskedForAsTextAndColoursAsJson) {
    Outcome text =
        ostrelTerm({"--cols", "33", "--rows", "7", "--", "sh", "-c", "printf 'hi\\n'; tput cols lines"});
    EXPECT_EQ(text.status, 0);
    EXPECT_EQ(text.out, "hi\n33\n7\n");

    Outcome json = ostrelTerm({"--json", "--", "printf", "\\e[31mhi\\e[0m"});
    ASSERT_EQ(json.status, 0);
    auto doc = nlohmann::json::parse(json.out, nullptr, false);
    ASSERT_FALSE(doc.is_discarded()) << json.out;
    const auto& cells = doc["lines"][0]["cells"];
    ASSERT_GE(cells.size(), 2u);
    EXPECT_EQ(cells[0]["text"], "h");
    EXPECT_EQ(cells[0]["fg"], 1);
    EXPECT_EQ(cells[1]["fg"], 1);
}

TEST(OstrelTerm, AnswersAProgramThatQueriesTheTerminal) {
    // The script asks and reads each answer back from its terminal, then prints them with ESC
    // spelled "^[" (read drops the final byte it stops at). The first two requests are the ones
    // terminfo lists for TERM=xterm-256color (u9, u7), sent through tput as programs do.
    const char* script = R"(
        tput u9;                IFS= read -rs -d c da
        tput cup 2 4; tput u7;  IFS= read -rs -d R cpr
        printf '\e[?2004h\e[?2004$p'; IFS= read -rs -d y mode
        printf '\e]10;?\e\\';   IFS= read -rs -d '\' color
        printf '\e[>1u\e[?u';   IFS= read -rs -d u kitty
        printf '\eP$qm\e\\';    IFS= read -rs -d '\' sgr
        printf '\e[H\e[2J'
        for v in "$da" "$cpr" "$mode" "$color" "$kitty" "$sgr"; do printf '%s\n' "${v//$'\e'/^[}"; done
    )";
    Outcome run = ostrelTerm({"--", "/bin/bash", "--norc", "--noprofile", "-c", script});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(lines(run.out),
              (std::vector<std::string>{"^[[?65;4;1;2;6;21;22;17;28", "^[[3;5", "^[[?2004;1$",
                                        "^[]10;rgb:e5e5/e5e5/e5e5^[", "^[[?1", "^[P1$r0m^["}));
}

TEST(OstrelTerm, InputEscapesReachTheProgramAsBytesAndUnknownOnesAreRefused) {
    Outcome run = ostrelTerm({"--input", "a\\tb\\x41\\r", "--", "/bin/bash", "--norc", "-c",
                              "IFS= read -rs line; printf '%q\\n' \"$line\""});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "$'a\\tbA'\n");

    Outcome refused = ostrelTerm({"--input", "\\q", "--", "true"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.err.find("unknown escape"), std::string::npos);
}

TEST(OstrelTerm, DrivesLessToTheEndOfAFile) {
    OstrelTest::TemporaryFolder folder;
    std::string text;
    for (int i = 1; i <= 100; ++i)
        text += "line " + std::to_string(i) + "\n";
    const std::string path = folder.write("lines.txt", text);
    // -X keeps less off the alternate screen, so that its last page stays after it quits.
    Outcome run = ostrelTerm({"--rows", "10", "--input", "G", "--input", "q", "--", "less", "-X", path});
    ASSERT_EQ(run.status, 0) << run.err;
    auto screen = lines(run.out);
    ASSERT_FALSE(screen.empty());
    EXPECT_EQ(screen.back(), "line 100");
    EXPECT_EQ(screen.front(), "line 92");
}

std::optional<std::string> findProgram(std::initializer_list<const char*> names) {
    for (const char* name : names)
        for (const char* folder : {"/usr/local/bin/", "/usr/bin/", "/bin/"})
            if (::access((folder + std::string(name)).c_str(), X_OK) == 0) return folder + std::string(name);
    return std::nullopt;
}

TEST(OstrelTerm, DrivesAnEditor) {
    auto vi = findProgram({"vim", "vi"});
    if (!vi) GTEST_SKIP() << "no vi on this machine";
    OstrelTest::TemporaryFolder folder;
    const std::string path = folder / "edit.txt";
    // Insert, leave insert mode, then write and quit: each step waits for the editor to draw.
    Outcome run = ostrelTerm({"--input", "ihello from vi\\e", "--input", ":wq\\r", "--", *vi, "-u", "NONE",
                              "-i", "NONE", "-N", "-n", path});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(folder.read("edit.txt"), "hello from vi\n");
}

} // namespace
