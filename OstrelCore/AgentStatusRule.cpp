// Phase to silence verdict: only a tool waiting for approval needs the user; a running phase says
// nothing, since a quiet agent may still be thinking.
#include "OstrelCore/AgentStatusRule.h"

namespace OstrelCore::AgentStatusRule {

SilenceVerdict verdict(std::optional<AgentPhase> phase) {
    if (!phase) return SilenceVerdict::unknown;
    switch (*phase) {
    case AgentPhase::running: return SilenceVerdict::unknown;
    case AgentPhase::awaitingApproval: return SilenceVerdict::needsUser;
    case AgentPhase::turnEnded: return SilenceVerdict::finished;
    }
    return SilenceVerdict::unknown;
}

} // namespace OstrelCore::AgentStatusRule
