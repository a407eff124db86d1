// Codex's terminal-only signals.
#include "OstrelCore/CodexSignals.h"

namespace OstrelCore::CodexSignals {

bool isActionRequired(std::string_view title) {
    return title.find("Action Required") != std::string_view::npos;
}

} // namespace OstrelCore::CodexSignals
