// What a transcript says the agent is doing.
#pragma once

#include <cstdint>

namespace OstrelCore {

enum class AgentPhase : std::uint8_t { running, awaitingApproval, turnEnded };

} // namespace OstrelCore
