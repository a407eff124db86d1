// One tool call of an agent as its transcript records it, and the kinds of tool the trace knows.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace OstrelCore {

enum class ToolCategory : std::uint8_t { read, edit, write, execute, search, web, task, todo, other };

std::string_view toString(ToolCategory category);

struct ToolEvent {
    std::string id;   // the call's identifier in the transcript; also the event's identity
    std::string name; // as the agent wrote it
    ToolCategory category = ToolCategory::other;
    std::optional<std::string> target;     // what the call works on, at most 300 characters
    std::optional<double> timestamp;       // seconds since 1970, start of the call
    bool isSidechain = false;              // made by a subagent
    std::optional<bool> succeeded;         // absent while no result was seen: still running
    std::optional<double> durationSeconds; // from call to result
    std::optional<std::string> error;      // short failure text

    bool operator==(const ToolEvent&) const = default;
};

} // namespace OstrelCore
