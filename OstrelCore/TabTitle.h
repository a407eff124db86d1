// Tab titles for agent sessions from four sources: the title that Claude sets by OSC, the person's
// first words in a Claude transcript, Codex's commentary, and any text that needs cleaning.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace OstrelCore::TabTitle {

// Longest title shown whole; longer ones are cut, at a word where one is near.
inline constexpr std::size_t maxCharacters = 48;

// White space collapsed to single blanks; none when nothing is left.
std::optional<std::string> clean(std::string_view text);

// Claude's terminal title without its spinner glyph; none for the program's own name or a path.
std::optional<std::string> fromClaudeOSC(std::string_view title);

// A person's words from one Claude transcript line; none for anything the interface injected.
std::optional<std::string> fromClaudeUserLine(std::string_view line);
std::optional<std::string> fromClaudeUserRecord(const nlohmann::json& record);

// The first real sentence of a Codex commentary message from one Codex transcript line.
std::optional<std::string> fromCodexAgentMessageLine(std::string_view line);
std::optional<std::string> fromCodexAgentMessage(const nlohmann::ordered_json& record);

// The first sentence of at least 20 characters, so that openers such as "Done." are skipped.
std::optional<std::string> firstSentence(std::string_view text);

} // namespace OstrelCore::TabTitle
