// How much of a context window an agent can use before it compacts, and how large the window of a
// model is when the transcript doesn't say.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace OstrelCore::ContextWindowBudget {

enum class Provider : std::uint8_t { claude, codex };

// Exact model name to window size, as last fetched from the public model catalogue; empty when
// nothing was fetched.
using ModelWindows = std::unordered_map<std::string, std::int64_t>;

inline constexpr std::int64_t standardWindow = 200000;
inline constexpr std::int64_t extendedWindow = 1000000; // models named with "[1m]"
inline constexpr std::int64_t openAIWindow = 400000;

// Claude compacts at four fifths of its window; Codex uses what it reports.
std::int64_t usableLimit(std::int64_t reportedWindow, Provider provider);

// The window of a model by name: the catalogue first, then what the name says, else the standard.
std::int64_t windowForModel(std::optional<std::string_view> model, const ModelWindows& catalogue);

} // namespace OstrelCore::ContextWindowBudget
