// The inspect subcommand over Ostrel::TranscriptInspector.
#include "InspectCommand.h"

#include "Ostrel/TranscriptInspector.h"

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <date/tz.h>

namespace OstrelApp {

std::function<int()> addInspectCommand(CLI::App& app) {
    struct Options {
        std::string file;
        std::string kind;
        bool json = false;
        int entries = 10;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("inspect", "Show what Ostrel reads from an agent's transcript file");
    command->add_option("FILE", options->file, "A transcript (.jsonl, or a Gemini session .json)")
        ->required();
    command
        ->add_option("--kind", options->kind,
                     "The agent that wrote it; guessed from the path and contents when left out")
        ->check(CLI::IsMember({"claude", "codex", "gemini"}));
    command->add_flag("--json", options->json, "Print the findings as one JSON document");
    command->add_option("--entries", options->entries, "How many of the newest feed entries to show")
        ->check(CLI::Range(0, 1000))
        ->capture_default_str();
    return [command, options]() -> int {
        if (!command->parsed()) return -1;
        const date::time_zone* zone = nullptr;
        try {
            zone = date::current_zone();
        } catch (const std::exception&) {
            zone = nullptr; // no zone database: times read as UTC
        }
        auto outcome =
            Ostrel::TranscriptInspector::inspect(options->file, OstrelCore::sessionKind(options->kind),
                                                 options->entries, std::chrono::system_clock::now(), zone);
        if (!outcome.inspection) {
            std::fprintf(stderr, "ostrel inspect: %s\n", outcome.error.c_str());
            return 1;
        }
        std::string out = options->json ? Ostrel::TranscriptInspector::json(*outcome.inspection)
                                        : Ostrel::TranscriptInspector::text(*outcome.inspection, zone);
        std::fwrite(out.data(), 1, out.size(), stdout);
        return 0;
    };
}

} // namespace OstrelApp
