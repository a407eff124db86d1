// The feed's handlers for the three transcript layouts, and the entry's JSON form. Lines are read
// oldest first; each line is tested by substring before it is decoded, and giant lines go to the
// raw scanners instead of the decoder.
#include "OstrelCore/TranscriptFeed.h"

#include "OstrelCore/ByteSearch.h"
#include "OstrelCore/GeminiTranscript.h"
#include "OstrelCore/JSONRead.h"
#include "OstrelCore/Text.h"
#include "OstrelCore/TranscriptFeedRawScan.h"
#include "OstrelCore/TranscriptFeedRun.h"

namespace OstrelCore::TranscriptFeed {
namespace {

using nlohmann::json;

constexpr std::array<std::string_view, 5> roleNames = {"user", "assistant", "tool", "error", "notice"};

constexpr std::string_view compactedNotice = "context_compacted";
constexpr std::string_view abortedNotice = "turn_aborted";

// Markers of a line, looked for only in the ends of a large line.
std::uint32_t scanLine(const ByteSearch::MarkerSet& set, std::string_view line) {
    std::uint32_t all = (1u << set.size()) - 1u;
    if (line.size() <= largeLineBytes) return set.scan(line, all);
    return set.scan(line.substr(0, searchWindowBytes), all) |
           set.scan(line.substr(line.size() - searchWindowBytes), all);
}

std::optional<Date> timestampOf(const json& record) {
    const std::string* text = JSONRead::text(record, "timestamp");
    return text ? InternetDateTime::parseMilliseconds(*text) : std::nullopt;
}

std::string_view textOr(const std::string* text, std::string_view fallback = {}) {
    return text ? std::string_view(*text) : fallback;
}

bool isType(const json& value, std::string_view type) {
    const std::string* t = JSONRead::text(value, "type");
    return t && *t == type;
}

// ---- Claude ------------------------------------------------------------------------------------

enum ClaudeMarker : std::uint32_t {
    claudeAssistant = 1,
    claudeUser = 2,
    claudeSidechain = 4,
    claudeMeta = 8,
    claudeToolAnswer = 16,
    claudeFailure = 32,
};

const ByteSearch::MarkerSet& claudeMarkers() {
    static const ByteSearch::MarkerSet set(
        std::array<std::string_view, 6>{R"("type":"assistant")", R"("type":"user")", R"("isSidechain":true)",
                                        R"("isMeta":true)", R"("toolUseResult":)", R"("is_error":true)"});
    return set;
}

// A tool result's text: a text, or the text of its first text block.
std::string_view resultText(const json& block) {
    const json* content = JSONRead::member(block, "content");
    if (!content) return {};
    if (const std::string* text = JSONRead::text(*content)) return *text;
    if (content->is_array())
        for (const auto& part : *content)
            if (isType(part, "text")) return textOr(JSONRead::text(part, "text"));
    return {};
}

void readClaude(Run& run, std::string_view line) {
    std::uint32_t found = scanLine(claudeMarkers(), line);
    if (!(found & (claudeAssistant | claudeUser)) || (found & (claudeSidechain | claudeMeta))) return;
    // A tool's answer gives an entry only when it reports a failure; the rest of it, often a whole
    // file, is not worth decoding.
    if (!(found & claudeAssistant) && (found & claudeToolAnswer) && !(found & claudeFailure)) return;
    if (line.size() > rawLineBytes) {
        RawScan::claude(run, line, (found & claudeUser) != 0);
        return;
    }
    auto record = JSONRead::parseObject(line);
    if (!record || JSONRead::isTrue(*record, "isSidechain") || JSONRead::isTrue(*record, "isMeta")) return;
    const json* message = JSONRead::object(*record, "message");
    const std::string* type = JSONRead::text(*record, "type");
    if (!message || !type) return;
    run.beginRecord(textOr(JSONRead::text(*record, "uuid")), line, timestampOf(*record));
    if (JSONRead::isTrue(*record, "isCompactSummary")) {
        run.addText(Role::notice, compactedNotice);
        return;
    }
    const json* content = JSONRead::member(*message, "content");
    if (!content) return;
    if (*type == "assistant") {
        if (const std::string* text = JSONRead::text(*content)) {
            run.addText(Role::assistant, *text);
        } else if (content->is_array()) {
            for (const auto& block : *content) {
                if (isType(block, "text")) {
                    run.addText(Role::assistant, textOr(JSONRead::text(block, "text")));
                } else if (isType(block, "tool_use")) {
                    const std::string* name = JSONRead::text(block, "name");
                    const json* input = JSONRead::member(block, "input");
                    run.addTool(Role::tool, name ? std::optional<std::string>(*name) : std::nullopt,
                                input ? targetOf(*input) : std::nullopt, textOr(JSONRead::text(block, "id")));
                }
            }
        }
    } else if (*type == "user") {
        // The words of a tool's answer are the tool's, not the person's: only failures count.
        bool toolAnswer = JSONRead::member(*record, "toolUseResult") != nullptr;
        if (const std::string* text = JSONRead::text(*content); text && !toolAnswer) {
            addUserText(run, *text);
        } else if (content->is_array()) {
            for (const auto& block : *content) {
                if (isType(block, "tool_result")) {
                    if (JSONRead::isTrue(block, "is_error"))
                        run.fail(textOr(JSONRead::text(block, "tool_use_id")), resultText(block));
                } else if (isType(block, "text") && !toolAnswer) {
                    addUserText(run, textOr(JSONRead::text(block, "text")));
                }
            }
        }
    }
}

// ---- Codex -------------------------------------------------------------------------------------

const ByteSearch::MarkerSet& codexMarkers() {
    // "context_compacted" carries none of the others, yet it is worth a notice.
    static const ByteSearch::MarkerSet set(std::array<std::string_view, 5>{
        "_call", R"("user_message")", R"("agent_message")", R"("turn_aborted")", R"("context_compacted")"});
    return set;
}

// The number at the start of `text`, if it is one.
std::optional<long long> leadingNumber(std::string_view text) {
    std::size_t end = 0;
    if (end < text.size() && text[end] == '-') ++end;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9')
        ++end;
    return Text::parseInteger(text.substr(0, end));
}

std::string_view behindOutputHeader(std::string_view text) {
    constexpr std::string_view header = "\nOutput:\n";
    std::size_t at = text.find(header);
    return at == std::string_view::npos ? std::string_view() : text.substr(at + header.size());
}

// The failure text of a call's output, when the output reports a failure (the text may be empty).
std::optional<std::string> codexFailure(const json& output) {
    std::string_view text;
    if (const std::string* s = JSONRead::text(output)) {
        text = *s;
    } else if (output.is_object()) {
        if (const std::string* s = JSONRead::text(output, "output"))
            text = *s;
        else if (const std::string* s = JSONRead::text(output, "content"))
            text = *s;
        else
            return std::nullopt;
    } else {
        return std::nullopt;
    }
    if (Text::startsWith(Text::trimStart(text), "{")) {
        auto decoded = JSONRead::parseObject(text);
        const json* metadata = decoded ? JSONRead::object(*decoded, "metadata") : nullptr;
        auto code = metadata ? JSONRead::integer(*metadata, "exit_code") : std::nullopt;
        if (code && *code != 0) return std::string(textOr(JSONRead::text(*decoded, "output")));
        return std::nullopt;
    }
    // The shell tools' plain-text reports: "exited with code N", and in later versions a header
    // with "Exit code: N" or "Process exited with code N" before "Output:".
    constexpr std::array<std::string_view, 2> leads = {"exited with code ", "Exit code: "};
    for (auto lead : leads) {
        if (!Text::startsWith(text, lead)) continue;
        auto code = leadingNumber(text.substr(lead.size()));
        if (code && *code != 0) return std::string(behindOutputHeader(text));
        return std::nullopt;
    }
    std::size_t headerEnd = text.find("\nOutput:\n");
    std::string_view header = text.substr(0, headerEnd);
    constexpr std::string_view processLine = "Process exited with code ";
    if (std::size_t at = header.find(processLine);
        at != std::string_view::npos && headerEnd != std::string_view::npos) {
        auto code = leadingNumber(header.substr(at + processLine.size()));
        if (code && *code != 0) return std::string(behindOutputHeader(text));
    }
    return std::nullopt;
}

// What a Codex tool call works on: its input or arguments (an object, or JSON text of one), or the
// file an apply_patch changes.
std::optional<std::string> codexTarget(const json& payload, std::string_view tool) {
    for (std::string_view key : {"input", "arguments"}) {
        const json* value = JSONRead::member(payload, key);
        if (!value) continue;
        if (value->is_object()) {
            if (tool == "apply_patch")
                for (std::string_view patchKey : {"input", "patch"})
                    if (auto file = patchTarget(textOr(JSONRead::text(*value, patchKey)))) return file;
            if (auto target = targetOf(*value)) return target;
            continue;
        }
        const std::string* text = JSONRead::text(*value);
        if (!text) continue;
        if (auto decoded = JSONRead::parseObject(*text)) {
            if (tool == "apply_patch") {
                for (std::string_view patchKey : {"input", "patch"})
                    if (auto file = patchTarget(textOr(JSONRead::text(*decoded, patchKey)))) return file;
                if (const json* command = JSONRead::array(*decoded, "command"))
                    for (const auto& part : *command)
                        if (auto file = patchTarget(textOr(JSONRead::text(part)))) return file;
            }
            if (auto target = targetOf(*decoded)) return target;
        } else if (tool == "apply_patch") {
            if (auto file = patchTarget(*text)) return file;
        }
    }
    if (const json* action = JSONRead::object(payload, "action")) return targetOf(*action); // local shell
    return std::nullopt;
}

// Whether a call's output line could report a failure: an exit code that isn't a plain 0, or one
// of the shell tools' plain-text reports. Most outputs are long and successful; they are passed
// over without decoding.
bool mayReportFailure(std::string_view line) {
    constexpr std::array<std::string_view, 3> reports = {"exited with code ",
                                                         "Exit code: ", "Process exited with code "};
    for (auto report : reports)
        if (ByteSearch::contains(line, report)) return true;
    constexpr std::string_view exitCode = "exit_code";
    for (std::size_t at = ByteSearch::find(line, exitCode); at != ByteSearch::npos;
         at = ByteSearch::find(line, exitCode, at + 1)) {
        std::size_t i = at + exitCode.size();
        if (i < line.size() && line[i] == '\\') ++i; // the key inside an escaped JSON text
        if (i >= line.size() || line[i] != '"') continue;
        ++i;
        while (i < line.size() && line[i] == ' ')
            ++i;
        if (i >= line.size() || line[i] != ':') continue;
        ++i;
        while (i < line.size() && line[i] == ' ')
            ++i;
        bool zero = i < line.size() && line[i] == '0' &&
                    (i + 1 >= line.size() || line[i + 1] < '0' || line[i + 1] > '9');
        if (!zero) return true;
    }
    return false;
}

void readCodex(Run& run, std::string_view line) {
    if (scanLine(codexMarkers(), line) == 0) return;
    if (line.size() > rawLineBytes) {
        RawScan::codex(run, line);
        return;
    }
    if (ByteSearch::contains(line, R"(_call_output")") && !mayReportFailure(line)) return;
    auto record = JSONRead::parseObject(line);
    if (!record) return;
    // Early sessions wrote response items bare, without the envelope.
    const json* payload = JSONRead::object(*record, "payload");
    if (!payload) payload = &*record;
    const std::string* type = JSONRead::text(*payload, "type");
    if (!type) return;
    auto at = timestampOf(*record);

    if (*type == "user_message" || *type == "agent_message") {
        const std::string* message = JSONRead::text(*payload, "message");
        if (!message) return;
        run.beginRecord({}, line, at);
        if (*type == "user_message")
            addUserText(run, *message);
        else
            run.addText(Role::assistant, *message);
    } else if (*type == "function_call" || *type == "custom_tool_call" || *type == "local_shell_call") {
        std::string_view callId = textOr(JSONRead::text(*payload, "call_id"));
        const std::string* name = JSONRead::text(*payload, "name");
        std::string tool = (*type == "local_shell_call" || !name) ? std::string("shell") : *name;
        auto target = codexTarget(*payload, tool);
        run.beginRecord(callId, line, at);
        run.addTool(Role::tool, std::move(tool), std::move(target), callId);
    } else if (*type == "function_call_output" || *type == "custom_tool_call_output" ||
               *type == "local_shell_call_output") {
        const json* output = JSONRead::member(*payload, "output");
        if (auto failure = output ? codexFailure(*output) : std::nullopt)
            run.fail(textOr(JSONRead::text(*payload, "call_id")), *failure);
    } else if (*type == "web_search_call") {
        const json* action = JSONRead::object(*payload, "action");
        const std::string* query = action ? JSONRead::text(*action, "query") : nullptr;
        std::optional<std::string> target;
        if (query)
            if (std::string clamped = clamp(*query, targetCharacters); !clamped.empty())
                target = std::move(clamped);
        const std::string* status = JSONRead::text(*payload, "status");
        run.beginRecord(textOr(JSONRead::text(*payload, "id")), line, at);
        run.addTool(status && *status == "failed" ? Role::error : Role::tool, "web_search", std::move(target),
                    {});
    } else if (*type == "turn_aborted") {
        const std::string* reason = JSONRead::text(*payload, "reason");
        run.beginRecord(textOr(JSONRead::text(*payload, "turn_id")), line, at);
        run.addText(Role::notice, reason && !reason->empty() ? std::string(abortedNotice) + ": " + *reason
                                                             : std::string(abortedNotice));
    } else if (*type == "context_compacted") {
        run.beginRecord({}, line, at);
        run.addText(Role::notice, compactedNotice);
    }
}

// ---- Gemini ------------------------------------------------------------------------------------

const ByteSearch::MarkerSet& geminiMarkers() {
    static const ByteSearch::MarkerSet set(
        std::array<std::string_view, 3>{R"("type":"user")", R"("type":"gemini")", R"("type":"error")"});
    return set;
}

// A tool call's result: a text, the `error` or `output` of an object, or of the response inside
// the first function response of an array.
std::string_view geminiResultText(const json& call) {
    const json* result = JSONRead::member(call, "result");
    if (!result) return {};
    if (const std::string* text = JSONRead::text(*result)) return *text;
    const json* holder = result->is_object() ? result : nullptr;
    if (result->is_array() && !result->empty()) {
        const json& first = result->front();
        if (const std::string* text = JSONRead::text(first)) return *text;
        const json* response = JSONRead::object(first, "functionResponse");
        holder = response ? JSONRead::object(*response, "response") : nullptr;
    }
    if (!holder) return {};
    if (const std::string* error = JSONRead::text(*holder, "error")) return *error;
    return textOr(JSONRead::text(*holder, "output"));
}

void readGeminiRecord(Run& run, const json& record, std::string_view line) {
    const std::string* type = JSONRead::text(record, "type");
    if (!type || (*type != "user" && *type != "gemini" && *type != "error")) return;
    auto at = timestampOf(record);
    run.beginRewritableRecord(textOr(JSONRead::text(record, "id")), line, at);
    const json* content = JSONRead::member(record, "content");
    std::string text = content ? GeminiTranscript::flattenContent(*content) : std::string();
    if (*type == "user") {
        std::string_view trimmed = Text::trim(text);
        run.addText(Text::startsWith(trimmed, "/") ? Role::notice : Role::user, trimmed);
        return;
    }
    if (*type == "error") {
        run.addText(Role::error, text);
        return;
    }
    run.addText(Role::assistant, text);
    const json* calls = JSONRead::array(record, "toolCalls");
    if (!calls) return;
    for (const auto& call : *calls) {
        if (!call.is_object()) continue;
        const std::string* name = JSONRead::text(call, "name");
        const std::string* status = JSONRead::text(call, "status");
        const json* args = JSONRead::member(call, "args");
        bool failed = status && (*status == "error" || *status == "cancelled");
        auto callAt = timestampOf(call);
        run.addTool(
            failed ? Role::error : Role::tool, name ? std::optional<std::string>(*name) : std::nullopt,
            args ? targetOf(*args) : std::nullopt, {},
            failed ? clamp(geminiResultText(call), textCharacters) : std::string(), callAt ? callAt : at);
    }
}

void readGemini(Run& run, std::string_view line) {
    if (scanLine(geminiMarkers(), line) == 0) return;
    if (line.size() > rawLineBytes) {
        RawScan::gemini(run, line);
        return;
    }
    if (auto record = JSONRead::parseObject(line)) readGeminiRecord(run, *record, line);
}

} // namespace

std::vector<Entry> entries(std::span<const std::string_view> lines, Provider provider, int limit) {
    if (limit < 1) return {};
    Run run(limit);
    for (std::string_view line : lines) {
        if (line.empty() || line.front() != '{') continue;
        switch (provider) {
        case Provider::claude: readClaude(run, line); break;
        case Provider::codex: readCodex(run, line); break;
        case Provider::gemini: readGemini(run, line); break;
        }
    }
    return std::move(run).finish();
}

std::vector<Entry> legacyGeminiEntries(std::string_view document, int limit) {
    if (limit < 1) return {};
    auto decoded = JSONRead::parseObject(document);
    const json* messages = decoded ? JSONRead::array(*decoded, GeminiTranscript::Schema::messages) : nullptr;
    if (!messages) return {};
    Run run(limit);
    for (const auto& message : *messages) {
        if (!message.is_object()) continue;
        // A message without an id still needs a stable one; its type, time and words stand in
        // for a line (not its whole dump, which would recurse into whatever nesting it holds).
        std::string text;
        if (!JSONRead::text(message, "id")) {
            text.append(textOr(JSONRead::text(message, "type"))).append("|");
            text.append(textOr(JSONRead::text(message, "timestamp"))).append("|");
            if (const json* content = JSONRead::member(message, "content"))
                text += GeminiTranscript::flattenContent(*content);
        }
        readGeminiRecord(run, message, text);
    }
    return std::move(run).finish();
}

std::string clamp(std::string_view text, std::size_t characters) {
    std::string_view trimmed = Text::trim(text);
    if (trimmed.size() <= characters) return Text::sanitizeUtf8(trimmed); // no more characters than bytes
    std::string_view head = Text::prefix(trimmed, characters);
    if (head.size() == trimmed.size()) return Text::sanitizeUtf8(trimmed);
    return Text::sanitizeUtf8(Text::trimEnd(head)) + "…";
}

std::string_view roleName(Role role) {
    return roleNames[static_cast<std::size_t>(role)];
}

std::optional<Role> roleNamed(std::string_view name) {
    for (std::size_t i = 0; i < roleNames.size(); ++i)
        if (roleNames[i] == name) return static_cast<Role>(i);
    return std::nullopt;
}

json toJSON(const Entry& entry) {
    json out = json::object();
    out["id"] = entry.id;
    out["role"] = roleName(entry.role);
    out["text"] = entry.text;
    if (entry.tool) out["tool"] = *entry.tool;
    if (entry.target) out["target"] = *entry.target;
    if (entry.at) out["at"] = InternetDateTime::format(*entry.at);
    return out;
}

std::optional<Entry> entryFromJSON(const json& value) {
    const std::string* id = JSONRead::text(value, "id");
    const std::string* role = JSONRead::text(value, "role");
    const std::string* text = JSONRead::text(value, "text");
    auto parsedRole = role ? roleNamed(*role) : std::nullopt;
    if (!id || !parsedRole || !text) return std::nullopt;
    Entry entry{*id, *parsedRole, *text, std::nullopt, std::nullopt, std::nullopt};
    if (const std::string* tool = JSONRead::text(value, "tool")) entry.tool = *tool;
    if (const std::string* target = JSONRead::text(value, "target")) entry.target = *target;
    if (const std::string* at = JSONRead::text(value, "at"))
        entry.at = InternetDateTime::parseMilliseconds(*at);
    return entry;
}

} // namespace OstrelCore::TranscriptFeed
