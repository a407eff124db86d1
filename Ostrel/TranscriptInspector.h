// What the workspace reads from one transcript file, laid out for a person: the reading a live
// session would get, the newest feed entries, the tool trace with touched files and warnings,
// and any rate-limit block. Behind `ostrel inspect`.
#pragma once

#include "OstrelCore/RateLimitBlock.h"
#include "OstrelCore/SessionKind.h"
#include "OstrelCore/ToolTrace.h"
#include "OstrelCore/TranscriptFeed.h"
#include "OstrelCore/TranscriptReading.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace date {
class time_zone;
}

namespace Ostrel {

struct TranscriptInspection {
    std::string path;
    std::uint64_t size = 0;
    OstrelCore::SessionKind kind = OstrelCore::SessionKind::claude;
    bool kindGuessed = false;
    bool legacyDocument = false;     // a Gemini session written as one JSON document
    bool tailCutInCharacter = false; // the newest window starts inside a character: no reading this time
    std::optional<OstrelCore::TranscriptReading> reading;
    std::int64_t contextWindow = 0; // the reading's, else the model's
    std::int64_t usableContext = 0;
    std::vector<OstrelCore::TranscriptFeed::Entry> feed;
    std::vector<OstrelCore::ToolEvent> events;
    OstrelCore::TraceSummary summary;
    std::vector<OstrelCore::FileTouch> files;
    std::vector<OstrelCore::ToolEvent> sensitive;
    std::vector<OstrelCore::ToolEvent> destructive;
    std::optional<OstrelCore::RateLimitBlock> rateLimit;
};

class TranscriptInspector {
public:
    // The whole file is read for the tool trace only up to this size (from its end).
    static constexpr std::size_t traceBytesLimit = 64u << 20;

    // The agent that wrote a file: from its folder ("/.claude/", "/.codex/", "/.gemini/"), else
    // from the shape of its first records.
    static std::optional<OstrelCore::SessionKind> guessKind(const std::string& path, std::string_view head);

    struct Outcome {
        std::optional<TranscriptInspection> inspection;
        std::string error; // set when there is no inspection
    };
    static Outcome inspect(const std::string& path, std::optional<OstrelCore::SessionKind> kind,
                           int feedEntries, std::chrono::system_clock::time_point now,
                           const date::time_zone* zone);

    static std::string text(const TranscriptInspection& inspection, const date::time_zone* zone);
    static std::string json(const TranscriptInspection& inspection);
};

} // namespace Ostrel
