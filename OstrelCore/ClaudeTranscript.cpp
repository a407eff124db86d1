// Claude transcript reader: scans from the newest line, decodes only lines that carry a marker of
// something still wanted, and stops as soon as nothing is.
#include "OstrelCore/ClaudeTranscript.h"

#include "OstrelCore/ByteSearch.h"
#include "OstrelCore/JSONRead.h"
#include "OstrelCore/TabTitle.h"

#include <array>

namespace OstrelCore::ClaudeTranscript {
namespace {

using nlohmann::json;

constexpr std::string_view clearCommand = "<command-name>/clear</command-name>";

// Marker bits, in the order of `markerTexts`.
enum Marker : std::uint32_t {
    assistantLine = 1u << 0,
    userLine = 1u << 1,
    usageCounts = 1u << 2,
    permissionMode = 1u << 3,
    toolAnswer = 1u << 4,
    clearLine = 1u << 5,
};
constexpr std::array<std::string_view, 6> markerTexts = {
    R"("type":"assistant")", R"("type":"user")",    R"("input_tokens")",
    R"("permissionMode")",   R"("toolUseResult":)", clearCommand,
};

// Keys of a tool's input that name what it works on, most telling first.
constexpr std::array<std::string_view, 11> targetKeys = {"file_path", "notebook_path", "pattern", "url",
                                                         "query",     "command",       "cmd",     "path",
                                                         "skill",     "description",   "prompt"};

const ByteSearch::MarkerSet& markers() {
    static const ByteSearch::MarkerSet set(markerTexts);
    return set;
}

bool isType(const json& block, std::string_view type) {
    const std::string* t = JSONRead::text(block, "type");
    return t && *t == type;
}

struct Wants {
    bool usage = true, phase = true, permission = true, title = true;
    bool any() const { return usage || phase || permission || title; }
};

// Markers worth looking for, given what is still wanted.
std::uint32_t markersFor(const Wants& w) {
    std::uint32_t m = 0;
    if (w.phase) m |= assistantLine;
    if (w.phase || w.title || w.usage) m |= userLine;
    if (w.usage) m |= usageCounts;
    if (w.permission) m |= permissionMode;
    if (w.title && !w.phase) m |= toolAnswer; // a tool's answer gives no title
    if (w.usage) m |= clearLine;              // a clear resets the context
    return m;
}

bool worthDecoding(std::uint32_t found, const Wants& w) {
    if ((found & assistantLine) && w.phase) return true;
    if (found & userLine) {
        if (w.phase) return true;
        if (w.title && !(found & toolAnswer)) return true;
        if (w.usage && (found & clearLine)) return true;
    }
    return ((found & usageCounts) && w.usage) || ((found & permissionMode) && w.permission);
}

std::optional<std::int64_t> contextCounts(const json* message) {
    const json* usage = message ? JSONRead::object(*message, "usage") : nullptr;
    if (!usage) return std::nullopt;
    auto count = [&](std::string_view key) { return JSONRead::integer(*usage, key).value_or(0); };
    return JSONRead::checkedSum(
        {count("input_tokens"), count("cache_read_input_tokens"), count("cache_creation_input_tokens")});
}

void readAssistantPhase(const json* message, TranscriptReading& reading) {
    const json* content = message ? JSONRead::member(*message, "content") : nullptr;
    if (content && content->is_array()) {
        bool toolUse = false, text = false;
        for (const auto& block : *content) {
            toolUse = toolUse || isType(block, "tool_use");
            text = text || isType(block, "text");
        }
        reading.phase = toolUse ? AgentPhase::awaitingApproval
                        : text  ? AgentPhase::turnEnded
                                : AgentPhase::running;
        if (!toolUse) return;
        for (auto it = content->rbegin(); it != content->rend(); ++it) {
            const std::string* name = JSONRead::text(*it, "name");
            if (!isType(*it, "tool_use") || !name) continue;
            reading.pendingToolName = *name;
            reading.pendingToolTarget = std::string();
            const json* input = JSONRead::object(*it, "input");
            for (auto key : targetKeys) {
                const std::string* target = input ? JSONRead::text(*input, key) : nullptr;
                if (target && !target->empty()) {
                    reading.pendingToolTarget = *target;
                    break;
                }
            }
            return;
        }
        return;
    }
    const std::string* text = content ? JSONRead::text(*content) : nullptr;
    reading.phase = text && !text->empty() ? AgentPhase::turnEnded : AgentPhase::running;
}

} // namespace

std::optional<TranscriptReading> parse(std::span<const std::string_view> lines) {
    TranscriptReading reading;
    Wants want;
    for (auto it = lines.rbegin(); it != lines.rend() && want.any(); ++it) {
        std::string_view line = *it;
        if (line.empty() || line.front() != '{') continue;
        std::uint32_t found = markers().scan(line, markersFor(want));
        if (!worthDecoding(found, want)) continue;
        auto record = JSONRead::parseObject(line);
        if (!record || JSONRead::isTrue(*record, "isSidechain")) continue;

        if (want.permission && (found & permissionMode)) {
            if (const std::string* mode = JSONRead::text(*record, "permissionMode")) {
                reading.permissionMode = *mode;
                want.permission = false;
            }
        }
        const json* message = JSONRead::object(*record, "message");
        if (want.usage && (found & usageCounts)) {
            auto used = contextCounts(message);
            if (used && *used >= 1) {
                reading.contextUsed = *used;
                const std::string* model = message ? JSONRead::text(*message, "model") : nullptr;
                reading.model = model ? std::optional<std::string>(*model) : std::nullopt;
                want.usage = false;
            }
        }

        const std::string* type = JSONRead::text(*record, "type");
        if (!type) continue;
        if (*type == "assistant") {
            if (want.phase) {
                readAssistantPhase(message, reading);
                want.phase = false;
            }
        } else if (*type == "user") {
            if (JSONRead::isTrue(*record, "isMeta")) continue;
            const std::string* text = message ? JSONRead::text(*message, "content") : nullptr;
            bool clear = text && text->find(clearCommand) != std::string::npos;
            if (want.phase) {
                reading.phase = clear ? AgentPhase::turnEnded : AgentPhase::running;
                want.phase = false;
            }
            if (clear && want.usage) { // usage from before a clear no longer counts
                reading.contextUsed = 0;
                reading.model.reset();
                want.usage = false;
            }
            if (want.title && !JSONRead::member(*record, "toolUseResult")) {
                if (auto title = TabTitle::fromClaudeUserRecord(*record)) {
                    reading.sessionTitle = std::move(title);
                    want.title = false;
                }
            }
        }
    }
    if (reading == TranscriptReading{}) return std::nullopt;
    return reading;
}

bool isClearSuccessor(std::span<const std::string_view> headLines) {
    for (std::string_view line : headLines) {
        if (line.empty() || line.front() != '{' || !ByteSearch::contains(line, markerTexts[1])) continue;
        auto record = JSONRead::parseObject(line);
        if (!record) continue;
        const std::string* type = JSONRead::text(*record, "type");
        if (!type || *type != "user" || JSONRead::isTrue(*record, "isMeta") ||
            JSONRead::isTrue(*record, "isSidechain"))
            continue;
        const json* message = JSONRead::object(*record, "message");
        const json* content = message ? JSONRead::member(*message, "content") : nullptr;
        if (!content) continue;
        const std::string* text = JSONRead::text(*content);
        if (content->is_array()) {
            for (const auto& block : *content) {
                if (isType(block, "text")) {
                    text = JSONRead::text(block, "text");
                    break;
                }
            }
        }
        if (text) return text->find(clearCommand) != std::string::npos;
    }
    return false;
}

} // namespace OstrelCore::ClaudeTranscript
