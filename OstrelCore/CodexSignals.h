// Signals that Codex shows only in its terminal, not in its transcript.
#pragma once

#include <string_view>

namespace OstrelCore::CodexSignals {

// Codex puts "Action Required" in its window title while an approval prompt is open.
bool isActionRequired(std::string_view title);

} // namespace OstrelCore::CodexSignals
