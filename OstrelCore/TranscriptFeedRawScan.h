// Readers for transcript lines too large to decode (a whole file read into a tool's result, a
// pasted log): they find tool calls and failures by substring search, in time that grows with the
// line only through a fast byte search.
#pragma once

#include "OstrelCore/TranscriptFeedRun.h"

#include <string_view>

namespace OstrelCore::TranscriptFeed::RawScan {

void claude(Run& run, std::string_view line, bool userRecord);
void codex(Run& run, std::string_view line);
void gemini(Run& run, std::string_view line);

// A JSON string's text from just after its opening quote, escapes decoded, cut after about
// `maxBytes` of output; always valid UTF-8.
std::string decodeString(std::string_view line, std::size_t start, std::size_t maxBytes);

// The first target key (in the order of `targetKeys`) with a text or array-of-texts value in a
// piece of JSON text that may be cut short.
std::optional<std::string> rawTarget(std::string_view json);

} // namespace OstrelCore::TranscriptFeed::RawScan
