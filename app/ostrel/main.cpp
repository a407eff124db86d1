// The `ostrel` executable.
#include <cstdio>

#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
    CLI::App app{"Ostrel: a workspace for running several AI coding agents side by side", "ostrel"};
    app.set_version_flag("--version", "ostrel 0.1.0");
    CLI11_PARSE(app, argc, argv);
    std::puts("ostrel: the workspace has no view yet; see `ostrel --help`.");
    return 0;
}
