// Notices when Claude reports "Set model to …" in its terminal, and turns the label it shows
// ("Opus 4.1", "Sonnet", "claude-opus-4-1") into a model identifier.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace OstrelCore::ClaudeModelSwitch {

// The first line of raw terminal output (escapes stripped) that names a model switch.
std::optional<std::string> detectInTerminalText(std::string_view text);
// One line of plain text.
std::optional<std::string> detectInLine(std::string_view line);
// "Opus 4.1" → "claude-opus-4.1", "Sonnet" → "claude-sonnet", "claude-opus-4-1" as it stands.
std::optional<std::string> identifier(std::string_view label);

} // namespace OstrelCore::ClaudeModelSwitch
