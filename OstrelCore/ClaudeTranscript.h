// Reads the newest lines of a Claude transcript: model and context use, permission mode, phase,
// a title from the person's words, and the tool that waits for approval.
#pragma once

#include "OstrelCore/TranscriptReading.h"

#include <optional>
#include <span>
#include <string_view>

namespace OstrelCore::ClaudeTranscript {

// `lines` in file order, as cut by TranscriptTail. Absent when no line says anything.
std::optional<TranscriptReading> parse(std::span<const std::string_view> lines);

// Whether a file's head shows a session that a "/clear" started in place of an older one.
bool isClearSuccessor(std::span<const std::string_view> headLines);

} // namespace OstrelCore::ClaudeTranscript
