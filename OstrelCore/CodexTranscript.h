// Reads the newest lines of a Codex transcript. Codex's records nest their values at varying
// depths across versions, so values are found by a bounded search for their key, not by a path.
#pragma once

#include "OstrelCore/TranscriptReading.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace OstrelCore::CodexTranscript {

// Objects at this many levels below the top are still searched; deeper ones are not.
inline constexpr int deepSearchDepth = 4;

// `lines` in file order, as cut by TranscriptTail. Absent when no line says anything.
std::optional<TranscriptReading> parse(std::span<const std::string_view> lines);

// Whether the session's working folder, as its head records it, is exactly `projectPath`.
bool belongsToProject(std::span<const std::string_view> headLines, std::string_view projectPath);

// The text value of `"key"` read without decoding, for lines too long or too damaged to decode. A
// backslash takes the next character literally; no other escape is decoded.
std::optional<std::string> rawStringValue(std::string_view key, std::string_view line);

// The value of `key` in `object` itself, or else in its object values in the order they were
// written, depth first, down to `deepSearchDepth`. Arrays are not entered.
const nlohmann::ordered_json* findDeep(const nlohmann::ordered_json& object, std::string_view key);

} // namespace OstrelCore::CodexTranscript
