// The tool calls an agent made, read from its transcript lines, and what the trace panel asks of
// them: which files were touched, which touches deserve a warning, and the session in numbers.
#pragma once

#include "OstrelCore/ToolEvent.h"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace OstrelCore {

struct FileTouch {
    std::string path; // also the identity
    std::int64_t edits = 0;
    std::optional<double> firstAt;
    std::optional<double> lastAt;

    bool operator==(const FileTouch&) const = default;
};

struct ToolFrequency {
    std::string name;
    std::int64_t count = 0;

    bool operator==(const ToolFrequency&) const = default;
};

struct TraceSummary {
    std::map<ToolCategory, std::int64_t> countsByCategory;
    std::int64_t total = 0;
    std::int64_t distinctFiles = 0;
    std::int64_t subagents = 0;
    std::int64_t sidechainEvents = 0;
    std::int64_t failures = 0;
    std::int64_t running = 0;
    std::vector<ToolFrequency> topTools;

    std::int64_t count(ToolCategory category) const;

    bool operator==(const TraceSummary&) const = default;
};

class ToolTrace {
public:
    enum class Provider : std::uint8_t { claude, codex, gemini };

    // Lines longer than this are only looked at on their first and last `edgeBytes` and read
    // without decoding: such lines are nearly always huge tool results, of which the trace needs
    // an identifier and an outcome, not the text.
    static constexpr std::size_t largeLineBytes = 262144;
    static constexpr std::size_t edgeBytes = 16384;
    static constexpr std::size_t targetLimit = 300;
    static constexpr std::size_t rawIdentifierLimit = 96;
    static constexpr std::size_t errorLimit = 200;

    // Tool calls in order of appearance, each closed by its result where one was seen. A legacy
    // Gemini session (one JSON document with "messages") may be passed whole as a single line.
    static std::vector<ToolEvent> events(std::span<const std::string_view> lines, Provider provider);
    static std::vector<ToolEvent> events(std::span<const std::string> lines, Provider provider);
    // The same over a whole transcript text, split at "\n" without copying the lines.
    static std::vector<ToolEvent> events(std::string_view transcript, Provider provider);

    static ToolCategory category(std::string_view name);

    static std::vector<FileTouch> filesTouched(std::span<const ToolEvent> events,
                                               std::optional<std::string_view> relativeTo);
    static std::string normalize(std::string_view path, std::optional<std::string_view> relativeTo);
    static std::vector<ToolEvent> sensitiveTouches(std::span<const ToolEvent> events);
    static bool isDestructiveCommand(std::string_view command);
    static bool isSensitivePath(std::string_view path);
    static TraceSummary summarize(std::span<const ToolEvent> events, int topCount);
    static std::vector<ToolEvent> recent(std::span<const ToolEvent> events, int limit);
};

} // namespace OstrelCore
