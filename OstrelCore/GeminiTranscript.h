// Reads Gemini CLI sessions: the line-oriented transcript (records rewritten under one id as a turn
// proceeds, rewinds that drop what came before) and the older single-document form; and finds
// which folder under ~/.gemini holds a project's sessions.
#pragma once

#include "OstrelCore/TranscriptReading.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace OstrelCore::GeminiTranscript {

// The names that Gemini's session layout uses.
namespace Schema {
inline constexpr std::string_view identifier = "id";
inline constexpr std::string_view kind = "type";
inline constexpr std::string_view content = "content";
inline constexpr std::string_view toolCalls = "toolCalls";
inline constexpr std::string_view toolCallStatus = "status";
inline constexpr std::string_view tokens = "tokens";
inline constexpr std::string_view promptTokens = "input";
inline constexpr std::string_view model = "model";
inline constexpr std::string_view sessionIdentifier = "sessionId";
inline constexpr std::string_view projectHash = "projectHash";
inline constexpr std::string_view conversationKind = "kind";
inline constexpr std::string_view summary = "summary";
inline constexpr std::string_view messages = "messages";
inline constexpr std::string_view metadataUpdate = "$set";
inline constexpr std::string_view rewind = "$rewindTo";
inline constexpr std::string_view userMessage = "user";
inline constexpr std::string_view geminiMessage = "gemini";
inline constexpr std::string_view errorMessage = "error";
inline constexpr std::string_view subagentConversation = "subagent";
inline constexpr std::string_view awaitingApproval = "awaiting_approval";
inline constexpr std::array<std::string_view, 3> pendingToolStatuses = {"validating", "scheduled",
                                                                        "executing"};
inline constexpr std::string_view sessionFilePrefix = "session-";
inline constexpr std::int64_t defaultContextWindow = 1048576;
inline constexpr std::int64_t gemmaContextWindow = 256000;
} // namespace Schema

// Name of the file in a session folder that records which project the folder belongs to.
inline constexpr std::string_view projectRootMarkerName = ".project_root";

// `lines` in file order. Absent when neither phase, context use nor title was found.
std::optional<TranscriptReading> parse(std::span<const std::string_view> lines);
// A whole single-document session with its `messages` array.
std::optional<TranscriptReading> parseLegacyDocument(std::string_view text);

std::optional<std::int64_t> contextWindow(std::string_view model);

// A message's `content` as one text: a text, an object's `text`, or an array of those joined.
std::string flattenContent(const nlohmann::json& content);

// Project identity. The canonical path has no trailing "/" and is lower-cased.
std::string canonicalPath(std::string_view path);
std::string projectHash(std::string_view projectPath); // SHA-256 of the path as given, lower-case hex
std::string projectSlug(std::string_view projectPath);
std::string transcriptDirectory(std::string_view projectPath, std::string_view home);
std::string legacyTranscriptDirectory(std::string_view projectPath, std::string_view home);
std::vector<std::string> candidateTranscriptDirectories(std::string_view projectPath, std::string_view home);
// The folder name that Gemini's project registry (~/.gemini/projects.json) gives the project.
std::optional<std::string> registeredIdentifier(std::string_view projectPath, std::string_view registryJSON);
std::optional<std::string> transcriptDirectory(std::string_view projectPath, std::string_view registryJSON,
                                               std::string_view home);
bool directoryOwnsProject(std::string_view projectRootMarker, std::string_view projectPath);
bool belongsToProject(std::span<const std::string_view> headLines, std::string_view projectPath);
bool isSubagentTranscript(std::span<const std::string_view> headLines);
bool isSessionFile(std::string_view name);

} // namespace OstrelCore::GeminiTranscript
