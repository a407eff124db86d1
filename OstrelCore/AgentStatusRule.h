// What an agent's silence means, judged by the phase its transcript shows. The session controller
// asks only after several seconds without output, and maps the verdict onto the session status.
#pragma once

#include "OstrelCore/AgentPhase.h"

#include <cstdint>
#include <optional>

namespace OstrelCore {

enum class SilenceVerdict : std::uint8_t { needsUser, finished, unknown };

namespace AgentStatusRule {

SilenceVerdict verdict(std::optional<AgentPhase> phase);

} // namespace AgentStatusRule
} // namespace OstrelCore
