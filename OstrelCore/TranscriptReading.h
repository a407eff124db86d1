// What the newest lines of an agent's transcript say about the session. Every field is optional:
// a reader fills what it finds and leaves the rest absent.
#pragma once

#include "OstrelCore/AgentPhase.h"

#include <cstdint>
#include <optional>
#include <string>

namespace OstrelCore {

struct TranscriptReading {
    std::optional<std::string> model;
    std::optional<std::int64_t> contextUsed;
    std::optional<std::int64_t> contextWindow;
    std::optional<std::string> permissionMode; // Claude only
    std::optional<AgentPhase> phase;
    std::optional<std::string> sessionTitle;      // already cleaned for display
    std::optional<std::string> pendingToolName;   // Claude only
    std::optional<std::string> pendingToolTarget; // Claude only; empty when the tool names no target

    bool operator==(const TranscriptReading&) const = default;
};

} // namespace OstrelCore
