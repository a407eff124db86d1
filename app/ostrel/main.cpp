// The `ostrel` executable.
#include "InspectCommand.h"

#include <cstdio>

#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
    CLI::App app{"Ostrel: a workspace for running several AI coding agents side by side", "ostrel"};
    app.set_version_flag("--version", "ostrel 0.1.0");
    auto inspect = OstrelApp::addInspectCommand(app);
    CLI11_PARSE(app, argc, argv);
    if (int status = inspect(); status >= 0) return status;
    std::puts("ostrel: the workspace has no view yet; see `ostrel --help`.");
    return 0;
}
