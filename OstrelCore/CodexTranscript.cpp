// Codex transcript reader: substring tests decide phase without decoding; titles, usage, model
// and window come from a bounded key search over the records that carry their markers.
#include "OstrelCore/CodexTranscript.h"

#include "OstrelCore/ByteSearch.h"
#include "OstrelCore/JSONRead.h"
#include "OstrelCore/TabTitle.h"

#include <array>

namespace OstrelCore::CodexTranscript {
namespace {

using nlohmann::ordered_json;

enum Marker : std::uint32_t {
    commentary = 1u << 0,
    taskComplete = 1u << 1,
    taskStarted = 1u << 2,
    userMessage = 1u << 3,
    turnAborted = 1u << 4,
    tokenUsage = 1u << 5,
    modelKey = 1u << 6,
};
constexpr std::array<std::string_view, 7> markerTexts = {
    R"("phase":"commentary")",
    R"("type":"task_complete")",
    R"("type":"task_started")",
    R"("type":"user_message")",
    R"("type":"turn_aborted")",
    "token_usage",
    R"("model")",
};

const ByteSearch::MarkerSet& markers() {
    static const ByteSearch::MarkerSet set(markerTexts);
    return set;
}

struct Wants {
    bool phase = true, title = true, usage = true, model = true, window = true;
    bool any() const { return phase || title || usage || model || window; }
};

std::uint32_t markersFor(const Wants& w) {
    std::uint32_t m = 0;
    if (w.title) m |= commentary | userMessage;
    if (w.phase) m |= taskComplete | taskStarted | userMessage | turnAborted;
    if (w.usage) m |= tokenUsage;
    if (w.model || w.window) m |= modelKey;
    return m;
}

const ordered_json* findDeepAt(const ordered_json& object, std::string_view key, int depth) {
    if (depth > deepSearchDepth || !object.is_object()) return nullptr;
    if (auto it = object.find(key); it != object.end()) return &*it;
    for (const auto& value : object) {
        if (!value.is_object()) continue;
        if (const ordered_json* found = findDeepAt(value, key, depth + 1)) return found;
    }
    return nullptr;
}

// Decodes a line at most once, on first need.
class LazyRecord {
public:
    explicit LazyRecord(std::string_view line)
        : line_(line) {}
    const ordered_json* get() {
        if (!tried_) {
            tried_ = true;
            record_ = JSONRead::parseObject<ordered_json>(line_);
        }
        return record_ ? &*record_ : nullptr;
    }

private:
    std::string_view line_;
    bool tried_ = false;
    std::optional<ordered_json> record_;
};

} // namespace

const ordered_json* findDeep(const ordered_json& object, std::string_view key) {
    return findDeepAt(object, key, 0);
}

std::optional<TranscriptReading> parse(std::span<const std::string_view> lines) {
    TranscriptReading reading;
    Wants want;
    std::optional<std::string> commentaryTitle; // the commentary nearest behind the person's message
    for (auto it = lines.rbegin(); it != lines.rend() && want.any(); ++it) {
        std::string_view line = *it;
        if (line.empty() || line.front() != '{') continue;
        std::uint32_t found = markers().scan(line, markersFor(want));
        if (found == 0) continue;
        LazyRecord record(line);

        if (want.title && (found & commentary)) {
            if (const ordered_json* r = record.get())
                if (auto title = TabTitle::fromCodexAgentMessage(*r)) commentaryTitle = std::move(title);
        }
        if (want.phase) {
            // An aborted turn counts as running: the person interrupted and usually types next.
            if (found & taskComplete) {
                reading.phase = AgentPhase::turnEnded;
                want.phase = false;
            } else if (found & (taskStarted | userMessage | turnAborted)) {
                reading.phase = AgentPhase::running;
                want.phase = false;
            }
        }
        if (want.title && (found & userMessage)) {
            const ordered_json* r = record.get();
            const ordered_json* message = r ? findDeep(*r, "message") : nullptr;
            const std::string* text = message ? JSONRead::text(*message) : nullptr;
            if (auto cleaned = text ? TabTitle::clean(*text) : std::nullopt) {
                reading.sessionTitle = commentaryTitle ? std::move(commentaryTitle) : std::move(cleaned);
                want.title = false;
            }
        }
        if ((want.usage && (found & tokenUsage)) || ((want.model || want.window) && (found & modelKey))) {
            const ordered_json* r = record.get();
            if (!r) continue;
            if (want.model) {
                const ordered_json* model = findDeep(*r, "model");
                const std::string* name = model ? JSONRead::text(*model) : nullptr;
                if (name && !name->empty()) {
                    reading.model = *name;
                    want.model = false;
                }
            }
            if (want.usage) {
                const ordered_json* last = findDeep(*r, "last_token_usage");
                if (last && last->is_object()) {
                    auto used = JSONRead::checkedSum({JSONRead::integer(*last, "input_tokens").value_or(0),
                                                      JSONRead::integer(*last, "output_tokens").value_or(0)});
                    if (used && *used >= 1) {
                        reading.contextUsed = *used;
                        want.usage = false;
                    }
                }
            }
            if (want.window) {
                const ordered_json* window = findDeep(*r, "model_context_window");
                auto size = window ? JSONRead::integer(*window) : std::nullopt;
                if (size && *size >= 1) {
                    reading.contextWindow = *size;
                    want.window = false;
                }
            }
        }
    }
    if (reading == TranscriptReading{}) return std::nullopt;
    return reading;
}

bool belongsToProject(std::span<const std::string_view> headLines, std::string_view projectPath) {
    for (std::string_view line : headLines) {
        if (line.empty() || line.front() != '{' || !ByteSearch::contains(line, R"("cwd")")) continue;
        std::optional<std::string> cwd;
        if (auto record = JSONRead::parseObject<ordered_json>(line)) {
            const ordered_json* value = findDeep(*record, "cwd");
            if (const std::string* text = value ? JSONRead::text(*value) : nullptr) cwd = *text;
        }
        if (!cwd) cwd = rawStringValue("cwd", line); // a head block may cut the first record short
        if (cwd) return *cwd == projectPath;
    }
    return false;
}

std::optional<std::string> rawStringValue(std::string_view key, std::string_view line) {
    std::string needle;
    needle.reserve(key.size() + 2);
    needle.append("\"").append(key).append("\"");
    for (std::size_t at = ByteSearch::find(line, needle); at != ByteSearch::npos;
         at = ByteSearch::find(line, needle, at + 1)) {
        std::size_t i = at + needle.size();
        auto skipBlanks = [&] {
            while (i < line.size() && line[i] == ' ')
                ++i;
        };
        skipBlanks();
        if (i >= line.size()) return std::nullopt;
        if (line[i] != ':') continue; // the name stood as a value here; look at the next one
        ++i;
        skipBlanks();
        if (i >= line.size()) return std::nullopt;
        if (line[i] != '"') continue;
        ++i;
        std::string value;
        for (; i < line.size(); ++i) {
            if (line[i] == '"') return value;
            if (line[i] == '\\') {
                if (++i >= line.size()) return std::nullopt;
            }
            value.push_back(line[i]);
        }
        return std::nullopt;
    }
    return std::nullopt;
}

} // namespace OstrelCore::CodexTranscript
