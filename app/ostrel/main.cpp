// The `ostrel` executable: the command line, and the headless workspace as the default command.
// Each subcommand is one block below: its options, then what it runs.
#include "InspectCommand.h"
#include "Ostrel/HeadlessRunner.h"
#include "Ostrel/Localization.h"

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include <CLI/CLI.hpp>

namespace {

constexpr const char* version = "ostrel 0.1.0";

constexpr const char* headlessFooter = R"(
Without a subcommand Ostrel runs the workspace headless: there is no view yet, so this is also
what plain `ostrel` and `make run` do. It loads the saved state, starts again the sessions that
were alive at the last quit, adds the projects given with --project and starts the sessions given
with --start, then prints one line on stdout when a session appears and one each time its status
or one of its agent facts changes:

  TIME  PROJECT  TITLE  STATUS  [model=NAME]  [context=N%]  [request=TOOL: TARGET]  [resumes=TIME]
  2026-11-22T21:05:03  x  Shell  working
  2026-11-22T21:06:40  x  Claude Code  waiting  model=claude-sonnet-4  context=12%  request=Bash: make

TIME is the local time (YYYY-MM-DDTHH:MM:SS). Fields are separated by two blanks; white space
inside a name is folded to single blanks, so two blanks never occur within a field. STATUS is one
of ready, working, waiting, idle, done or failed(CODE) with the exit code. The fields after it
appear only while known, for agent sessions: the model, how full the context is (of what the agent
can fill before it compacts), the tool and target the agent asks to approve, and when a session
stopped by a usage limit will be resumed automatically.

Approvals: with a desktop notification server on the session bus, a waiting agent's notification
has Approve and Deny buttons that answer it (within 15 minutes, once); without a session bus
nothing is sent.

KIND is one of claude, codex, gemini, shell, service. COMMAND runs instead of the kind's default
command (a service has none; a shell takes none). --start applies to the --project named last,
--prompt to the --start named last: an agent never typed into stays ready, so a first prompt is
how a headless run hands an agent its work.

SIGINT, SIGTERM and SIGHUP quit as the application does: the state is saved while the sessions are
alive, so that they come back at the next launch in the same panes, then every session is ended.
Files: $XDG_DATA_HOME/Ostrel/state.json, settings in $XDG_CONFIG_HOME/Ostrel/settings.json,
where "restore.enabled": false starts without the sessions of the last quit and
"telemetry.enabled": false stops the usage events kept in $XDG_DATA_HOME/Ostrel (never sent).

Exit codes: 0 after a quit, 2 for a command line that can't be used.)";

// Walks the options in the order they were given, so that each --start goes with the --project
// before it.
std::variant<std::vector<Ostrel::HeadlessRunner::ProjectRequest>, std::string>
headlessRequests(const CLI::App& app, const CLI::Option* projectOption, const CLI::Option* startOption,
                 const CLI::Option* promptOption) {
    using Ostrel::HeadlessRunner;
    std::vector<HeadlessRunner::ProjectRequest> requests;
    std::map<const CLI::Option*, std::size_t> taken;
    for (const CLI::Option* option : app.parse_order()) {
        if (option != projectOption && option != startOption && option != promptOption) continue;
        const std::size_t index = taken[option]++;
        if (index >= option->results().size()) continue;
        const std::string& value = option->results()[index];
        if (option == projectOption) {
            auto folder = HeadlessRunner::resolveProjectFolder(value);
            if (folder.index() == 1) return std::get<1>(folder);
            requests.push_back({std::get<0>(folder), {}});
            continue;
        }
        if (option == promptOption) {
            if (requests.empty() || requests.back().starts.empty())
                return Ostrel::Localization::format("cli.promptNeedsStart", value);
            requests.back().starts.back().prompt = value;
            continue;
        }
        if (requests.empty()) return Ostrel::Localization::format("cli.startNeedsProject", value);
        auto start = HeadlessRunner::parseStart(value);
        if (auto* error = std::get_if<std::string>(&start)) return *error;
        requests.back().starts.push_back(std::get<HeadlessRunner::Start>(start));
    }
    return requests;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Ostrel: a workspace for running several AI coding agents side by side", "ostrel"};
    app.set_version_flag("--version", version);
    app.require_subcommand(0, 1);

    // Headless workspace: the default command.
    // Accepted for scripts that ask for it by name; while there is no view it changes nothing.
    bool headless = true;
    app.add_flag("--headless", headless,
                 "Run the workspace without a view (the default: there is no view yet)");
    auto* projectOption = app.add_option("--project", "Add the folder PATH as a project (repeatable)")
                              ->type_name("PATH")
                              ->expected(1)
                              ->allow_extra_args(false)
                              ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    auto* startOption =
        app.add_option("--start",
                       "Start a session of KIND, optionally running COMMAND, in the last --project "
                       "(repeatable)")
            ->type_name("KIND[:COMMAND]")
            ->expected(1)
            ->allow_extra_args(false)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    auto* promptOption =
        app.add_option("--prompt",
                       "Type TEXT and Enter into the session of the last --start once its screen has "
                       "settled (repeatable, one per --start)")
            ->type_name("TEXT")
            ->expected(1)
            ->allow_extra_args(false)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.footer(headlessFooter);

    // Subcommands: add the next one here, as { its CLI::App, what it runs }.
    // Each returns -1 when its subcommand wasn't chosen.
    std::vector<std::function<int()>> subcommands{OstrelApp::addInspectCommand(app)};

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        return code == 0 ? 0 : 2;
    }

    for (auto& run : subcommands)
        if (int status = run(); status >= 0) return status;

    auto requests = headlessRequests(app, projectOption, startOption, promptOption);
    if (auto* error = std::get_if<std::string>(&requests)) {
        std::fprintf(stderr, "ostrel: %s\n", error->c_str());
        return 2;
    }
    return Ostrel::HeadlessRunner::run(std::get<0>(requests), stdout, stderr);
}
