// `ostrel inspect FILE [--kind claude|codex|gemini] [--json]`: shows what the workspace reads
// from a transcript, so a user can see why a session shows what it shows.
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace OstrelApp {

// Adds the subcommand; when it is chosen, `run` returns its exit status.
std::function<int()> addInspectCommand(CLI::App& app);

} // namespace OstrelApp
