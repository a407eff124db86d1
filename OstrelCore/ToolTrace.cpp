// Tool calls out of the three transcript layouts, and the questions the trace panel asks of them.
#include "OstrelCore/ToolTrace.h"

#include "OstrelCore/InternetDateTime.h"
#include "OstrelCore/SignalsJson.h"
#include "OstrelCore/Text.h"

#include <algorithm>
#include <array>
#include <unordered_map>
#include <unordered_set>

#include <nlohmann/json.hpp>

namespace OstrelCore {

using namespace SignalsJson;
using Json = nlohmann::json;

std::string_view toString(ToolCategory category) {
    switch (category) {
    case ToolCategory::read: return "read";
    case ToolCategory::edit: return "edit";
    case ToolCategory::write: return "write";
    case ToolCategory::execute: return "execute";
    case ToolCategory::search: return "search";
    case ToolCategory::web: return "web";
    case ToolCategory::task: return "task";
    case ToolCategory::todo: return "todo";
    case ToolCategory::other: return "other";
    }
    return "other";
}

std::int64_t TraceSummary::count(ToolCategory category) const {
    auto it = countsByCategory.find(category);
    return it == countsByCategory.end() ? 0 : it->second;
}

namespace {

// ---------------------------------------------------------------------------------------------
// Tables

struct CategoryRow {
    ToolCategory category;
    std::array<std::string_view, 12> names;
};

// Tool names of the three agents by what they do. Names match exactly; anything else goes
// through the namespaced-name and keyword rules in `ToolTrace::category`.
constexpr CategoryRow categoryTable[] = {
    {ToolCategory::read,
     {"Read", "NotebookRead", "read_file", "read_many_files", "view_image", "read_thread_terminal"}},
    {ToolCategory::edit,
     {"Edit", "MultiEdit", "NotebookEdit", "apply_patch", "str_replace_editor", "replace", "edit"}},
    {ToolCategory::write, {"Write", "create_file", "write_file"}},
    {ToolCategory::execute,
     {"Bash", "BashOutput", "KillShell", "Monitor", "exec_command", "exec", "shell", "local_shell",
      "write_stdin", "wait", "run_shell_command", "run_terminal_cmd"}},
    {ToolCategory::search,
     {"Grep", "Glob", "LS", "ToolSearch", "codebase_search", "list_dir", "grep", "glob",
      "search_file_content"}},
    {ToolCategory::web, {"WebFetch", "WebSearch", "web_search", "fetch", "google_web_search", "web_fetch"}},
    {ToolCategory::task, {"Task", "Agent"}},
    {ToolCategory::todo, {"TodoWrite", "TaskCreate", "TaskUpdate", "TaskList", "update_plan"}},
};

// Input keys that name what a call works on, most specific first. The last two are Gemini's
// spellings of a file and a folder.
constexpr std::string_view targetKeys[] = {
    "file_path", "notebook_path", "pattern", "url",         "query",  "command",       "cmd",
    "path",      "skill",         "subject", "description", "prompt", "absolute_path", "dir_path",
};

constexpr std::string_view destructiveFragments[] = {
    "rm -rf", "rm -fr", "git push --force", "git push -f", "git reset --hard", "drop table", "drop database",
};

constexpr std::string_view downloadCommands[] = {"curl ", "wget "};
constexpr std::string_view shells[] = {"sh", "bash", "zsh"};

constexpr std::string_view sensitiveFolders[] = {".ssh", "credentials", "secrets"};
constexpr std::string_view envTemplateSuffixes[] = {".example", ".sample", ".template", ".dist", ".defaults"};
constexpr std::string_view keyExtensions[] = {"pem", "key", "p12", "pfx", "jks", "keystore"};
constexpr std::string_view privateKeyPrefixes[] = {"id_rsa", "id_dsa", "id_ecdsa", "id_ed25519"};

// Codex response items, by the payload's `type`.
constexpr std::string_view codexCallTypes[] = {"function_call", "custom_tool_call", "local_shell_call"};
constexpr std::string_view codexOutputTypes[] = {"function_call_output", "custom_tool_call_output",
                                                 "local_shell_call_output"};
// Raw markers, outputs first: "function_call" is a prefix of "function_call_output".
constexpr std::string_view codexRawOutputMarkers[] = {"\"type\":\"function_call_output\"",
                                                      "\"type\":\"custom_tool_call_output\"",
                                                      "\"type\":\"local_shell_call_output\""};
constexpr std::string_view codexRawCallMarkers[] = {
    "\"type\":\"function_call\"", "\"type\":\"custom_tool_call\"", "\"type\":\"local_shell_call\""};
// Line tests look for the quoted values alone, so that a transcript written with blanks after the
// colons is read as well as the agents' compact one.
constexpr std::string_view codexLineMarkers[] = {"\"function_call", "\"custom_tool_call",
                                                 "\"local_shell_call", "\"web_search_call\""};
constexpr std::string_view patchFileMarkers[] = {"*** Update File: ", "*** Add File: ", "*** Delete File: "};

constexpr std::string_view claudeLineMarkers[] = {"\"tool_use\"", "\"tool_result\""};
constexpr std::string_view claudeCallMarker = "\"type\":\"tool_use\""; // raw reading: compact only
constexpr std::string_view claudeResultMarker = "\"tool_result\"";
constexpr std::string_view geminiRecordMarker = "\"gemini\"";
constexpr std::string_view geminiCallsMarker = "\"toolCalls\"";
constexpr std::string_view geminiRawCallsMarker = "\"toolCalls\":[{";
constexpr std::string_view ellipsis = "…";
// A legacy Gemini session is one document; beyond this size it is not decoded at all.
constexpr std::size_t legacyDocumentLimit = 32 * 1024 * 1024;

// ---------------------------------------------------------------------------------------------
// Text helpers

bool contains(std::string_view text, std::string_view needle) {
    return text.find(needle) != std::string_view::npos;
}

// Moves `cut` back to the start of a UTF-8 sequence so that a byte window never splits one.
std::size_t alignBack(std::string_view text, std::size_t cut) {
    while (cut > 0 && cut < text.size() && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
        --cut;
    return cut;
}

std::size_t alignForward(std::string_view text, std::size_t cut) {
    while (cut < text.size() && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
        ++cut;
    return cut;
}

// A short, single-line failure text out of a possibly huge tool output.
std::optional<std::string> shortError(std::string_view text) {
    constexpr std::size_t window = 4096;
    if (text.size() > window) text = text.substr(0, alignBack(text, window));
    std::string collapsed = Text::collapseWhitespace(Text::sanitizeUtf8(text));
    if (collapsed.empty()) return std::nullopt;
    return Text::truncated(collapsed, ToolTrace::errorLimit, ellipsis);
}

// Text read raw from a line may be broken UTF-8; an event holds only valid text.
std::string cutTarget(std::string_view text) {
    std::string valid = Text::sanitizeUtf8(text);
    if (valid.size() <= ToolTrace::targetLimit) return valid; // fewer bytes than the limit
    return Text::truncated(valid, ToolTrace::targetLimit, ellipsis);
}

// Strings longer than this are shortened before a line is decoded: nothing the trace reads needs
// more than their two ends (targets are cut to 300 characters, errors come from the first 4096
// bytes, and an exit code stands at the end of an output), and decoding long strings is where
// the time of a transcript scan goes.
constexpr std::size_t longString = 4096;
constexpr std::size_t keptHead = 2048;
constexpr std::size_t keptTail = 1024;

// Index of the quote that closes the string whose content starts at `pos`, or npos.
std::size_t closingQuote(std::string_view text, std::size_t pos) {
    while (true) {
        pos = text.find('"', pos);
        if (pos == std::string_view::npos) return pos;
        std::size_t backslashes = 0;
        while (backslashes < pos && text[pos - 1 - backslashes] == '\\')
            ++backslashes;
        if (backslashes % 2 == 0) return pos;
        ++pos;
    }
}

// "\uD800".."\uDFFF" with the third digit among `thirdDigits`: half of a surrogate pair.
bool isSurrogateEscape(std::string_view escape, std::string_view thirdDigits) {
    return escape.size() == 6 && escape[0] == '\\' && escape[1] == 'u' &&
           (escape[2] == 'd' || escape[2] == 'D') && thirdDigits.find(escape[3]) != std::string_view::npos;
}

// Whether the backslash at `pos` starts an escape rather than being escaped itself.
bool isUnescaped(std::string_view text, std::size_t pos) {
    std::size_t run = 0;
    while (run < pos && text[pos - 1 - run] == '\\')
        ++run;
    return run % 2 == 0;
}

// Moves a cut inside a string's content back so that it splits no escape, no surrogate pair and
// no UTF-8 sequence.
std::size_t safeCutBack(std::string_view text, std::size_t start, std::size_t cut) {
    // An escape is at most six characters (\uXXXX); one that straddles the cut starts with a
    // backslash among the six characters before it.
    std::size_t from = cut >= start + 6 ? cut - 6 : start;
    std::size_t backslash = text.substr(from, cut - from).rfind('\\');
    if (backslash != std::string_view::npos) {
        cut = from + backslash;
        while (cut > start && text[cut - 1] == '\\')
            --cut;
    }
    while (cut > start && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
        --cut;
    // The first half of a surrogate pair goes with its second half.
    if (cut >= start + 6 && isSurrogateEscape(text.substr(cut - 6, 6), "89abAB") &&
        isUnescaped(text, cut - 6))
        cut -= 6;
    return cut;
}

// Moves a cut inside a string's content forward to the start of a character.
std::size_t safeCutForward(std::string_view text, std::size_t cut, std::size_t end) {
    std::size_t runStart = cut;
    while (runStart > 0 && text[runStart - 1] == '\\')
        --runStart;
    if ((cut - runStart) % 2 == 1) { // `cut` is the escaped character
        cut += text[cut] == 'u' ? 5 : 1;
    } else {
        // Inside the four digits of a \uXXXX?
        for (std::size_t back = 2; back <= 5 && back <= cut; ++back) {
            std::size_t u = cut - back + 1;
            if (text[u] != 'u' || text[u - 1] != '\\') continue;
            std::size_t run = 0;
            while (run < u && text[u - 1 - run] == '\\')
                ++run;
            if (run % 2 == 1) cut = u + 5;
            break;
        }
    }
    cut = std::min(cut, end);
    while (cut < end && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
        ++cut;
    if (cut + 6 <= end && isSurrogateEscape(text.substr(cut, 6), "cdefCDEF")) cut += 6;
    return cut;
}

// Copies `text` to `out` with every long string reduced to its two ends. Returns false, leaving
// `out` unspecified, when no string needed it.
bool shortenLongStrings(std::string_view text, std::string& out) {
    out.clear();
    std::size_t copied = 0;
    for (std::size_t open = text.find('"'); open != std::string_view::npos;) {
        std::size_t close = closingQuote(text, open + 1);
        if (close == std::string_view::npos) break;
        if (close - open - 1 > longString) {
            std::size_t headEnd = safeCutBack(text, open + 1, open + 1 + keptHead);
            std::size_t tailStart = safeCutForward(text, close - keptTail, close);
            out.append(text.substr(copied, headEnd - copied));
            out.append(text.substr(tailStart, close - tailStart));
            copied = close;
        }
        open = text.find('"', close + 1);
    }
    if (copied == 0) return false;
    out.append(text.substr(copied));
    return true;
}

// A view of a line that is looked at only on its two ends when it is large.
struct LineEdges {
    std::string_view whole, head, tail;
    bool large = false;

    explicit LineEdges(std::string_view line)
        : whole(line) {
        large = line.size() > ToolTrace::largeLineBytes;
        std::size_t edge = std::min(line.size(), ToolTrace::edgeBytes);
        head = line.substr(0, alignBack(line, edge));
        tail = line.substr(alignForward(line, line.size() - edge));
    }

    bool has(std::string_view marker) const {
        if (!large) return contains(whole, marker);
        return contains(head, marker) || contains(tail, marker);
    }
};

// Decodes JSON string escapes from the start of `text` up to the first unescaped quote, or until
// `maxBytes` of output. `closed` tells whether that quote was reached.
std::string unescapeJson(std::string_view text, std::size_t maxBytes, bool& closed) {
    std::string out;
    closed = false;
    std::size_t pos = 0;
    while (pos < text.size() && out.size() < maxBytes) {
        char c = text[pos];
        if (c == '"') {
            closed = true;
            break;
        }
        if (c != '\\') {
            out += c;
            ++pos;
            continue;
        }
        if (pos + 1 >= text.size()) break;
        char e = text[pos + 1];
        pos += 2;
        switch (e) {
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case 'b':
        case 'f': out += ' '; break;
        case 'u': {
            if (pos + 4 > text.size()) return out;
            char32_t cp = 0;
            bool hex = true;
            for (std::size_t i = 0; i < 4; ++i) {
                char h = text[pos + i];
                int nibble = h >= '0' && h <= '9'   ? h - '0'
                             : h >= 'a' && h <= 'f' ? h - 'a' + 10
                             : h >= 'A' && h <= 'F' ? h - 'A' + 10
                                                    : -1;
                hex = hex && nibble >= 0;
                cp = (cp << 4) | static_cast<char32_t>(nibble < 0 ? 0 : nibble);
            }
            pos += 4;
            // Surrogate halves are not paired up here: raw reading serves labels, not fidelity.
            if (!hex || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
            Text::appendUtf8(out, cp);
            break;
        }
        default: out += e; break;
        }
    }
    return out;
}

// Reads the JSON text behind `"key":` in raw text. A value longer than `limit` characters, or one
// that runs off the end of the text, comes back cut and ending in "…". With `escaped` set, the
// key and value are looked for as they stand inside another JSON string (\"key\":\"value\").
std::optional<std::string> rawString(std::string_view text, std::string_view key, std::size_t limit,
                                     bool escaped = false) {
    const std::size_t byteBudget = limit * 4 + 16;
    std::string pattern;
    pattern.reserve(key.size() + 6);
    pattern += escaped ? "\\\"" : "\"";
    pattern += key;
    pattern += escaped ? "\\\":" : "\":";
    std::size_t at = text.find(pattern);
    if (at == std::string_view::npos) return std::nullopt;
    if (escaped) {
        // Undo the outer level of escaping, then read the inner JSON as usual.
        bool closed = false;
        std::string inner = unescapeJson(text.substr(at), byteBudget + pattern.size() + 8, closed);
        return rawString(inner, key, limit);
    }
    std::size_t pos = at + pattern.size();
    while (pos < text.size() && text[pos] == ' ')
        ++pos;
    if (pos >= text.size() || text[pos] != '"') return std::nullopt;
    bool closed = false;
    std::string value = Text::sanitizeUtf8(unescapeJson(text.substr(pos + 1), byteBudget, closed));
    if (closed && Text::count(value) <= limit) return value;
    if (value.empty()) return std::nullopt;
    std::string cut(Text::prefix(value, limit > 0 ? limit - 1 : 0));
    cut += ellipsis;
    return cut;
}

std::optional<double> timestampSeconds(std::string_view text) {
    auto date = InternetDateTime::parse(text);
    if (!date) return std::nullopt;
    return InternetDateTime::secondsSince1970(*date);
}

std::optional<double> rawTimestamp(const LineEdges& line) {
    constexpr std::string_view marker = "\"timestamp\":\"";
    for (std::string_view part : {line.head, line.tail}) {
        std::size_t at = part.find(marker);
        if (at == std::string_view::npos) continue;
        std::size_t start = at + marker.size();
        std::size_t end = part.find('"', start);
        if (end == std::string_view::npos) continue;
        return timestampSeconds(part.substr(start, end - start));
    }
    return std::nullopt;
}

std::optional<double> timestampAt(const Json& object, std::string_view key) {
    const std::string* text = textAt(object, key);
    return text != nullptr ? timestampSeconds(*text) : std::nullopt;
}

// Joins the text found in a tool output, whatever its shape: a text, an object with `text`,
// `output` or `content`, or an array of such.
void collectText(const Json& value, std::string& out, int depth = 0) {
    if (depth > 4 || out.size() > 8192) return;
    if (const std::string* s = text(value)) {
        if (!out.empty() && !s->empty()) out += '\n';
        out += *s;
    } else if (value.is_array()) {
        for (const Json& item : value)
            collectText(item, out, depth + 1);
    } else if (value.is_object()) {
        for (std::string_view key : {"text", "output", "content", "error"}) {
            if (const Json* inner = member(value, key)) {
                collectText(*inner, out, depth + 1);
                break;
            }
        }
    }
}

// First usable value of the target keys in a call's input. Arrays of words (Codex's
// ["bash","-lc","script"]) read as the command they stand for.
std::optional<std::string> targetFromInput(const Json& input) {
    if (!input.is_object()) return std::nullopt;
    for (std::string_view key : targetKeys) {
        const Json* value = member(input, key);
        if (value == nullptr) continue;
        if (const std::string* s = text(*value)) {
            if (!s->empty()) return cutTarget(*s);
        } else if (value->is_array() && !value->empty()) {
            std::vector<std::string_view> words;
            for (const Json& word : *value)
                if (const std::string* w = text(word)) words.push_back(*w);
            if (words.empty()) continue;
            if (words.size() == 3 && (words[1] == "-lc" || words[1] == "-c")) return cutTarget(words[2]);
            std::string joined;
            for (std::string_view w : words) {
                if (!joined.empty()) joined += ' ';
                joined += w;
            }
            return cutTarget(joined);
        }
    }
    return std::nullopt;
}

// The file a patch works on: the first file header of the patch text.
std::optional<std::string> patchTarget(std::string_view patch, bool escapedNewlines = false) {
    for (std::string_view marker : patchFileMarkers) {
        std::size_t at = patch.find(marker);
        if (at == std::string_view::npos) continue;
        std::size_t start = at + marker.size();
        std::size_t end = patch.find('\n', start);
        if (escapedNewlines) end = std::min(end, patch.find("\\n", start));
        std::string_view file =
            Text::trim(patch.substr(start, end == std::string_view::npos ? patch.npos : end - start));
        if (!file.empty()) return cutTarget(file);
    }
    return std::nullopt;
}

std::optional<long long> leadingInteger(std::string_view text) {
    std::size_t pos = 0;
    while (pos < text.size() && text[pos] == ' ')
        ++pos;
    std::size_t start = pos;
    if (pos < text.size() && text[pos] == '-') ++pos;
    std::size_t digitsStart = pos;
    while (pos < text.size() && pos - digitsStart < 12 && text[pos] >= '0' && text[pos] <= '9')
        ++pos;
    if (pos == digitsStart) return std::nullopt;
    return Text::parseInteger(text.substr(start, pos - start));
}

// A shell's exit code as Codex writes it in output text: a JSON key (plain or inside an escaped
// string) or the phrase of the exec tool.
std::optional<long long> rawExitCode(std::string_view text) {
    for (std::string_view marker : {std::string_view("exit_code\\\":"), std::string_view("exit_code\":"),
                                    std::string_view("exited with code ")}) {
        std::size_t at = text.find(marker);
        if (at == std::string_view::npos) continue;
        if (auto code = leadingInteger(text.substr(at + marker.size()))) return code;
    }
    return std::nullopt;
}

// ---------------------------------------------------------------------------------------------
// The collector: events in order of appearance and an index by call id.

class Collector {
public:
    explicit Collector(ToolTrace::Provider provider)
        : provider_(provider) {}

    void feed(std::string_view line) {
        if (line.empty() || line.front() != '{') return;
        switch (provider_) {
        case ToolTrace::Provider::claude: claude(line); break;
        case ToolTrace::Provider::codex: codex(line); break;
        case ToolTrace::Provider::gemini: gemini(line); break;
        }
    }

    std::vector<ToolEvent> take() { return std::move(events_); }

private:
    std::optional<Json> decode(std::string_view line) {
        if (line.size() > longString && shortenLongStrings(line, scratch_)) return parseObject(scratch_);
        return parseObject(line);
    }

    ToolEvent* find(std::string_view id) {
        auto it = index_.find(std::string(id));
        return it == index_.end() ? nullptr : &events_[it->second];
    }

    // A call seen twice (a streamed message written again) keeps its first record.
    ToolEvent* open(std::string id, std::string name, std::optional<std::string> target,
                    std::optional<double> at, bool sidechain) {
        if (id.empty() || name.empty()) return nullptr;
        if (index_.contains(id)) return nullptr;
        ToolEvent event;
        event.category = ToolTrace::category(name);
        event.id = std::move(id);
        event.name = std::move(name);
        event.target = std::move(target);
        event.timestamp = at;
        event.isSidechain = sidechain;
        index_.emplace(event.id, events_.size());
        events_.push_back(std::move(event));
        return &events_.back();
    }

    static void close(ToolEvent& event, bool succeeded, std::optional<std::string> error,
                      std::optional<double> at) {
        event.succeeded = succeeded;
        event.error = succeeded ? std::nullopt : std::move(error);
        if (at && event.timestamp && *event.timestamp <= *at) event.durationSeconds = *at - *event.timestamp;
    }

    void close(std::string_view id, bool succeeded, std::optional<std::string> error,
               std::optional<double> at) {
        if (ToolEvent* event = find(id)) close(*event, succeeded, std::move(error), at);
    }

    // --- Claude --------------------------------------------------------------------------------

    void claude(std::string_view line) {
        LineEdges edges(line);
        if (!edges.has(claudeLineMarkers[0]) && !edges.has(claudeLineMarkers[1])) return;
        if (!edges.large) {
            if (auto record = decode(line)) {
                claudeRecord(*record);
                return;
            }
        }
        claudeRaw(edges);
    }

    void claudeRecord(const Json& record) {
        const Json* message = objectAt(record, "message");
        const Json* content = message != nullptr ? arrayAt(*message, "content") : nullptr;
        if (content == nullptr) return;
        bool sidechain = isTrue(record, "isSidechain");
        std::optional<double> at = timestampAt(record, "timestamp");
        for (const Json& item : *content) {
            const std::string* type = textAt(item, "type");
            if (type == nullptr) continue;
            if (*type == "tool_use") {
                const std::string* id = textAt(item, "id");
                const std::string* name = textAt(item, "name");
                if (id == nullptr || name == nullptr) continue;
                const Json* input = member(item, "input");
                open(*id, *name, input != nullptr ? targetFromInput(*input) : std::nullopt, at, sidechain);
            } else if (*type == "tool_result") {
                const std::string* id = textAt(item, "tool_use_id");
                if (id == nullptr) continue;
                bool failed = isTrue(item, "is_error");
                std::optional<std::string> error;
                if (failed) {
                    std::string text;
                    if (const Json* body = member(item, "content")) collectText(*body, text);
                    error = shortError(text);
                }
                close(*id, !failed, std::move(error), at);
            }
        }
    }

    void claudeRaw(const LineEdges& line) {
        std::optional<double> at = rawTimestamp(line);
        bool sidechain =
            contains(line.head, "\"isSidechain\":true") || contains(line.tail, "\"isSidechain\":true");

        // Calls: every tool_use block that starts in the head, each read up to the next one.
        for (std::size_t at0 = line.head.find(claudeCallMarker); at0 != std::string_view::npos;) {
            std::size_t next = line.head.find(claudeCallMarker, at0 + claudeCallMarker.size());
            std::string_view block =
                line.head.substr(at0, next == std::string_view::npos ? line.head.npos : next - at0);
            auto id = rawString(block, "id", ToolTrace::rawIdentifierLimit);
            auto name = rawString(block, "name", ToolTrace::rawIdentifierLimit);
            if (!id || !name) break;
            std::optional<std::string> target;
            for (std::string_view key : targetKeys)
                if ((target = rawString(block, key, ToolTrace::targetLimit)) && !target->empty()) break;
            if (target && target->empty()) target.reset();
            open(std::move(*id), std::move(*name), std::move(target), at, sidechain);
            at0 = next;
        }

        if (!line.has(claudeResultMarker)) return;
        std::optional<std::string> id = rawString(line.head, "tool_use_id", ToolTrace::rawIdentifierLimit);
        if (!id) id = rawString(line.tail, "tool_use_id", ToolTrace::rawIdentifierLimit);
        if (!id) id = rawString(line.whole, "tool_use_id", ToolTrace::rawIdentifierLimit);
        if (!id) return;
        bool failed = contains(line.head, "\"is_error\":true") || contains(line.tail, "\"is_error\":true");
        std::optional<std::string> error;
        if (failed) {
            std::size_t from = line.head.find("\"tool_use_id\"");
            std::string_view rest = from == std::string_view::npos ? line.head : line.head.substr(from);
            if (auto text = rawString(rest, "content", ToolTrace::errorLimit)) error = shortError(*text);
        }
        close(*id, !failed, std::move(error), at);
    }

    // --- Codex ---------------------------------------------------------------------------------

    void codex(std::string_view line) {
        LineEdges edges(line);
        bool marked = false;
        for (std::string_view marker : codexLineMarkers)
            if ((marked = edges.has(marker))) break;
        if (!marked) return;
        if (!edges.large) {
            if (auto record = decode(line)) {
                codexRecord(*record);
                return;
            }
        }
        codexRaw(edges);
    }

    void codexRecord(const Json& record) {
        // Current rollouts wrap each item in `payload`; the oldest ones wrote the items bare.
        const Json* payload = objectAt(record, "payload");
        if (payload == nullptr) payload = &record;
        const std::string* type = textAt(*payload, "type");
        if (type == nullptr) return;
        std::optional<double> at = timestampAt(record, "timestamp");
        if (!at) at = timestampAt(record, "created_at");

        const std::string* callId = textAt(*payload, "call_id");

        if (std::find(std::begin(codexOutputTypes), std::end(codexOutputTypes), *type) !=
            std::end(codexOutputTypes)) {
            if (callId == nullptr) return;
            ToolEvent* event = find(*callId);
            if (event == nullptr) return;
            std::string output;
            if (const Json* value = member(*payload, "output")) collectText(*value, output);
            bool explicitFailure = member(*payload, "success") != nullptr &&
                                   member(*payload, "success")->is_boolean() && !isTrue(*payload, "success");
            codexClose(*event, output, explicitFailure, at);
            return;
        }

        if (callId == nullptr && (*type == "web_search_call" || *type == "local_shell_call"))
            callId = textAt(*payload, "id");

        if (*type == "web_search_call") {
            std::string id = callId != nullptr ? *callId : "web_search#" + std::to_string(events_.size());
            std::optional<std::string> target;
            if (const Json* action = objectAt(*payload, "action")) {
                target = targetFromInput(*action);
                if (!target)
                    if (const Json* queries = arrayAt(*action, "queries"); queries && !queries->empty())
                        if (const std::string* q = text(queries->front())) target = cutTarget(*q);
            }
            ToolEvent* event = find(id);
            if (event == nullptr) event = open(id, "web_search", std::move(target), at, false);
            if (event == nullptr) return;
            if (const std::string* status = textAt(*payload, "status")) {
                if (*status == "completed")
                    close(*event, true, std::nullopt, at);
                else if (*status == "failed" || *status == "incomplete" || *status == "cancelled")
                    close(*event, false, *status, at);
            }
            return;
        }

        if (std::find(std::begin(codexCallTypes), std::end(codexCallTypes), *type) ==
            std::end(codexCallTypes))
            return;
        if (callId == nullptr) return;
        std::string name;
        if (const std::string* n = textAt(*payload, "name")) name = *n;
        if (name.empty() && *type == "local_shell_call") name = "local_shell";
        std::optional<std::string> target;
        if (*type == "local_shell_call") {
            if (const Json* action = objectAt(*payload, "action")) target = targetFromInput(*action);
        } else {
            const Json* arguments = member(*payload, "arguments");
            if (arguments == nullptr) arguments = member(*payload, "input");
            if (arguments != nullptr) target = codexTarget(name, *arguments);
        }
        open(*callId, std::move(name), std::move(target), at, false);
    }

    static std::optional<std::string> codexTarget(std::string_view name, const Json& arguments) {
        const std::string* raw = text(arguments);
        std::optional<Json> decoded;
        if (raw != nullptr && !raw->empty() && raw->front() == '{') decoded = parseObject(*raw);
        const Json& object = decoded ? *decoded : arguments;
        if (name == "apply_patch") {
            if (raw != nullptr && !decoded) return patchTarget(*raw, raw->front() == '{');
            for (std::string_view key : {"input", "patch"})
                if (const std::string* patch = textAt(object, key)) return patchTarget(*patch);
            return std::nullopt;
        }
        if (object.is_object()) return targetFromInput(object);
        if (raw != nullptr && !raw->empty() && raw->front() == '{') {
            for (std::string_view key : targetKeys)
                if (auto target = rawString(*raw, key, ToolTrace::targetLimit); target && !target->empty())
                    return target;
            return std::nullopt;
        }
        // A free-form input (custom tools) is its own target.
        if (raw != nullptr) {
            std::string_view trimmed = Text::trim(*raw);
            if (!trimmed.empty()) return cutTarget(trimmed);
        }
        return std::nullopt;
    }

    // An output fails by an explicit flag or a non-zero exit code; the text behind "\nOutput:" is
    // what the command printed, and the error shown is that.
    static void codexClose(ToolEvent& event, std::string_view output, bool explicitFailure,
                           std::optional<double> at) {
        std::optional<long long> exitCode;
        std::string proper;
        std::string_view body = output;
        if (!output.empty() && output.front() == '{') {
            if (auto decoded = parseObject(output)) {
                if (const Json* metadata = objectAt(*decoded, "metadata"))
                    if (const Json* code = member(*metadata, "exit_code"))
                        if (auto value = exactInteger(*code)) exitCode = *value;
                if (const std::string* inner = textAt(*decoded, "output")) {
                    proper = *inner;
                    body = proper;
                }
            } else if (auto inner = rawString(output, "output", ToolTrace::errorLimit)) {
                proper = *inner; // a shortened or damaged wrapper: its text read raw
                body = proper;
            }
        }
        if (!exitCode) exitCode = rawExitCode(output);
        bool failed = explicitFailure || (exitCode && *exitCode != 0);
        std::optional<std::string> error;
        if (failed) {
            std::size_t marker = body.find("\nOutput:");
            std::string_view shown = marker == std::string_view::npos ? body : body.substr(marker + 8);
            error = shortError(shown);
            if (!error && exitCode) error = "exit code " + std::to_string(*exitCode);
        }
        close(event, !failed, std::move(error), at);
    }

    void codexRaw(const LineEdges& line) {
        std::optional<double> at = rawTimestamp(line);
        auto readId = [&](std::string_view key) {
            std::optional<std::string> id = rawString(line.head, key, ToolTrace::rawIdentifierLimit);
            if (!id) id = rawString(line.tail, key, ToolTrace::rawIdentifierLimit);
            if (!id) id = rawString(line.whole, key, ToolTrace::rawIdentifierLimit);
            return id;
        };
        for (std::string_view marker : codexRawOutputMarkers) {
            if (!line.has(marker)) continue;
            auto id = readId("call_id");
            if (!id) return;
            ToolEvent* event = find(*id);
            if (event == nullptr) return;
            std::optional<long long> exitCode = rawExitCode(line.head);
            if (!exitCode) exitCode = rawExitCode(line.tail);
            bool failed = exitCode && *exitCode != 0;
            std::optional<std::string> error;
            if (failed) {
                if (auto text = rawString(line.head, "output", ToolTrace::errorLimit)) {
                    std::size_t marker2 = text->find("\nOutput:");
                    error = shortError(marker2 == std::string::npos
                                           ? std::string_view(*text)
                                           : std::string_view(*text).substr(marker2 + 8));
                }
                if (!error) error = "exit code " + std::to_string(*exitCode);
            }
            close(*event, !failed, std::move(error), at);
            return;
        }
        for (std::string_view marker : codexRawCallMarkers) {
            if (!line.has(marker)) continue;
            auto id = readId("call_id");
            auto name = readId("name");
            if (!id) return;
            if (!name && marker == codexRawCallMarkers[2]) name = "local_shell";
            if (!name) return;
            std::optional<std::string> target;
            if (*name == "apply_patch") {
                target = patchTarget(line.head, true);
            } else {
                for (std::string_view key : targetKeys) {
                    target = rawString(line.head, key, ToolTrace::targetLimit, true);
                    if (!target) target = rawString(line.head, key, ToolTrace::targetLimit);
                    if (target && !target->empty()) break;
                    target.reset();
                }
            }
            open(std::move(*id), std::move(*name), std::move(target), at, false);
            return;
        }
    }

    // --- Gemini --------------------------------------------------------------------------------

    void gemini(std::string_view line) {
        LineEdges edges(line);
        bool marked = edges.has(geminiRecordMarker) && edges.has(geminiCallsMarker);
        // A legacy session: the whole document handed over as one line, maybe pretty-printed.
        bool legacy = contains(edges.head, "\"messages\"") && line.size() <= legacyDocumentLimit &&
                      contains(line, geminiCallsMarker);
        if (!marked && !legacy) return;
        if (!edges.large || legacy) {
            if (auto record = decode(line)) {
                if (const Json* messages = arrayAt(*record, "messages")) {
                    for (const Json& message : *messages)
                        if (const std::string* type = textAt(message, "type"); type && *type == "gemini")
                            geminiRecord(message);
                } else {
                    geminiRecord(*record);
                }
                return;
            }
        }
        if (marked) geminiRaw(edges);
    }

    void geminiRecord(const Json& record) {
        const Json* calls = arrayAt(record, "toolCalls");
        if (calls == nullptr) return;
        std::optional<double> recordAt = timestampAt(record, "timestamp");
        for (const Json& call : *calls) {
            const std::string* id = textAt(call, "id");
            const std::string* name = textAt(call, "name");
            if (id == nullptr || name == nullptr || id->empty() || name->empty()) continue;
            std::optional<double> at = timestampAt(call, "timestamp");
            if (!at) at = recordAt;
            ToolEvent* event = find(*id);
            // A record written again as its calls progress updates the calls it already gave.
            bool known = event != nullptr;
            if (known && event->succeeded) continue;
            if (!known) {
                const Json* args = member(call, "args");
                event = open(*id, *name, args != nullptr ? targetFromInput(*args) : std::nullopt, at, false);
                if (event == nullptr) continue;
            }
            const std::string* status = textAt(call, "status");
            if (status == nullptr) continue;
            if (*status == "success") {
                close(*event, true, std::nullopt, known ? recordAt : std::nullopt);
            } else if (*status == "error" || *status == "cancelled") {
                std::string text;
                if (const Json* result = member(call, "result")) geminiResultText(*result, text);
                if (text.empty())
                    if (const std::string* display = textAt(call, "resultDisplay")) text = *display;
                auto error = shortError(text);
                if (!error) error = *status;
                close(*event, false, std::move(error), known ? recordAt : std::nullopt);
            }
        }
    }

    // result: [{"functionResponse":{"response":{"error"|"output": text}}}, ...]
    static void geminiResultText(const Json& result, std::string& out) {
        if (!result.is_array()) {
            collectText(result, out);
            return;
        }
        for (const Json& part : result) {
            const Json* functionResponse = objectAt(part, "functionResponse");
            const Json* response =
                functionResponse != nullptr ? objectAt(*functionResponse, "response") : nullptr;
            if (response == nullptr) continue;
            for (std::string_view key : {"error", "output"}) {
                if (const std::string* s = textAt(*response, key)) {
                    if (!out.empty()) out += '\n';
                    out += *s;
                    break;
                }
            }
        }
    }

    void geminiRaw(const LineEdges& line) {
        std::size_t from = line.head.find(geminiRawCallsMarker);
        if (from == std::string_view::npos) return;
        std::string_view calls = line.head.substr(from);
        auto id = rawString(calls, "id", ToolTrace::rawIdentifierLimit);
        auto name = rawString(calls, "name", ToolTrace::rawIdentifierLimit);
        if (!id || !name) return;
        std::optional<std::string> target;
        if (std::size_t args = calls.find("\"args\":{"); args != std::string_view::npos) {
            std::string_view rest = calls.substr(args);
            for (std::string_view key : targetKeys)
                if ((target = rawString(rest, key, ToolTrace::targetLimit)) && !target->empty()) break;
            if (target && target->empty()) target.reset();
        }
        ToolEvent* event = find(*id);
        if (event == nullptr)
            event = open(*id, std::move(*name), std::move(target), rawTimestamp(line), false);
        if (event == nullptr) return;
        // The status follows the (large) result, so it is read from the end of the line.
        constexpr std::string_view statusKey = "\"status\":\"";
        std::size_t s = line.tail.rfind(statusKey);
        if (s == std::string_view::npos) return;
        std::string_view status = line.tail.substr(s + statusKey.size());
        if (status.starts_with("success\""))
            close(*event, true, std::nullopt, std::nullopt);
        else if (status.starts_with("error\"") || status.starts_with("cancelled\""))
            close(*event, false, std::string(status.substr(0, status.find('"'))), std::nullopt);
    }

    ToolTrace::Provider provider_;
    std::vector<ToolEvent> events_;
    std::unordered_map<std::string, std::size_t> index_;
    std::string scratch_; // reused for shortened lines
};

bool hasUsablePath(const ToolEvent& event) {
    if (event.category != ToolCategory::read && event.category != ToolCategory::edit &&
        event.category != ToolCategory::write)
        return false;
    return event.target && !event.target->empty() && !Text::endsWith(*event.target, ellipsis);
}

} // namespace

// -----------------------------------------------------------------------------------------------

std::vector<ToolEvent> ToolTrace::events(std::span<const std::string_view> lines, Provider provider) {
    Collector collector(provider);
    for (std::string_view line : lines)
        collector.feed(line);
    return collector.take();
}

std::vector<ToolEvent> ToolTrace::events(std::span<const std::string> lines, Provider provider) {
    Collector collector(provider);
    for (const std::string& line : lines)
        collector.feed(line);
    return collector.take();
}

std::vector<ToolEvent> ToolTrace::events(std::string_view transcript, Provider provider) {
    Collector collector(provider);
    std::size_t start = 0;
    while (start <= transcript.size()) {
        std::size_t end = transcript.find('\n', start);
        if (end == std::string_view::npos) end = transcript.size();
        collector.feed(transcript.substr(start, end - start));
        start = end + 1;
    }
    return collector.take();
}

ToolCategory ToolTrace::category(std::string_view name) {
    for (const CategoryRow& row : categoryTable)
        for (std::string_view candidate : row.names)
            if (!candidate.empty() && candidate == name) return row.category;

    // A namespaced tool (server, two underscores, tool) counts as its last part.
    std::size_t separator = name.rfind("__");
    if (separator != std::string_view::npos && separator + 2 < name.size())
        return category(name.substr(separator + 2));

    std::string lowered = Text::lowercased(name);
    if (contains(lowered, "search")) return ToolCategory::search;
    if (contains(lowered, "fetch")) return ToolCategory::web;
    return ToolCategory::other;
}

std::string ToolTrace::normalize(std::string_view path, std::optional<std::string_view> relativeTo) {
    if (!relativeTo || relativeTo->empty()) return std::string(path);
    std::string_view base = *relativeTo;
    while (!base.empty() && base.back() == '/')
        base.remove_suffix(1);
    if (base.empty()) return std::string(path);
    if (path.size() > base.size() && path.substr(0, base.size()) == base && path[base.size()] == '/')
        return std::string(path.substr(base.size() + 1));
    return std::string(path);
}

std::vector<FileTouch> ToolTrace::filesTouched(std::span<const ToolEvent> events,
                                               std::optional<std::string_view> relativeTo) {
    struct Entry {
        FileTouch touch;
        std::size_t latest = 0;
    };
    std::vector<Entry> entries;
    std::unordered_map<std::string, std::size_t> byPath;
    for (std::size_t i = 0; i < events.size(); ++i) {
        const ToolEvent& event = events[i];
        if (!hasUsablePath(event)) continue;
        std::string key = normalize(*event.target, relativeTo);
        auto [it, inserted] = byPath.try_emplace(key, entries.size());
        if (inserted) entries.push_back(Entry{FileTouch{std::move(key), 0, std::nullopt, std::nullopt}, i});
        Entry& entry = entries[it->second];
        entry.latest = i;
        if (event.category != ToolCategory::read) ++entry.touch.edits;
        if (event.timestamp) {
            double t = *event.timestamp;
            if (!entry.touch.firstAt || t < *entry.touch.firstAt) entry.touch.firstAt = t;
            if (!entry.touch.lastAt || t > *entry.touch.lastAt) entry.touch.lastAt = t;
        }
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        if (a.touch.lastAt.has_value() != b.touch.lastAt.has_value()) return a.touch.lastAt.has_value();
        if (a.touch.lastAt && *a.touch.lastAt != *b.touch.lastAt) return *a.touch.lastAt > *b.touch.lastAt;
        return a.latest > b.latest;
    });
    std::vector<FileTouch> result;
    result.reserve(entries.size());
    for (Entry& entry : entries)
        result.push_back(std::move(entry.touch));
    return result;
}

std::vector<ToolEvent> ToolTrace::sensitiveTouches(std::span<const ToolEvent> events) {
    std::vector<ToolEvent> result;
    for (const ToolEvent& event : events) {
        if (!event.target || event.target->empty()) continue;
        bool writes = event.category == ToolCategory::edit || event.category == ToolCategory::write;
        if ((writes && isSensitivePath(*event.target)) ||
            (event.category == ToolCategory::execute && isDestructiveCommand(*event.target)))
            result.push_back(event);
    }
    return result;
}

bool ToolTrace::isDestructiveCommand(std::string_view command) {
    std::string lowered = Text::lowercased(command);
    for (std::string_view fragment : destructiveFragments)
        if (contains(lowered, fragment)) return true;

    // A download piped straight into a shell.
    bool downloads = false;
    for (std::string_view download : downloadCommands)
        downloads = downloads || contains(lowered, download);
    if (!downloads) return false;
    std::string_view text = lowered;
    for (std::size_t bar = text.find('|'); bar != std::string_view::npos; bar = text.find('|', bar + 1)) {
        std::string_view rest = text.substr(bar + 1);
        auto skipSpaces = [&] {
            while (!rest.empty() && rest.front() == ' ')
                rest.remove_prefix(1);
        };
        skipSpaces();
        if (rest.starts_with("sudo ")) {
            rest.remove_prefix(5);
            skipSpaces();
        }
        for (std::string_view shell : shells) {
            if (!rest.starts_with(shell)) continue;
            std::string_view after = rest.substr(shell.size());
            if (after.empty() || after.front() == ' ' || after.front() == '\t' || after.front() == '-')
                return true;
        }
    }
    return false;
}

bool ToolTrace::isSensitivePath(std::string_view path) {
    std::string lowered = Text::lowercased(path);
    if (contains(lowered, ".github/workflows/")) return true;
    std::vector<std::string_view> components = Text::split(lowered, '/');
    if (components.empty()) return false;
    std::string_view base = components.back();
    if (base.ends_with(".pub")) return false;
    for (std::size_t i = 0; i + 1 < components.size(); ++i)
        for (std::string_view folder : sensitiveFolders)
            if (components[i] == folder) return true;
    if (base.starts_with(".env")) {
        for (std::string_view suffix : envTemplateSuffixes)
            if (base.ends_with(suffix)) return false;
        return true;
    }
    if (base.starts_with("secrets") || contains(base, "credentials")) return true;
    if (std::size_t dot = base.rfind('.'); dot != std::string_view::npos) {
        std::string_view extension = base.substr(dot + 1);
        for (std::string_view key : keyExtensions)
            if (extension == key) return true;
    }
    for (std::string_view prefix : privateKeyPrefixes)
        if (base.starts_with(prefix)) return true;
    return false;
}

TraceSummary ToolTrace::summarize(std::span<const ToolEvent> events, int topCount) {
    TraceSummary summary;
    std::unordered_map<std::string_view, std::int64_t> byName;
    std::unordered_set<std::string_view> files;
    for (const ToolEvent& event : events) {
        ++summary.countsByCategory[event.category];
        ++byName[event.name];
        if (!event.succeeded)
            ++summary.running;
        else if (!*event.succeeded)
            ++summary.failures;
        if (event.isSidechain) ++summary.sidechainEvents;
        if (event.category == ToolCategory::task) ++summary.subagents;
        if (hasUsablePath(event)) files.insert(*event.target);
    }
    summary.total = static_cast<std::int64_t>(events.size());
    summary.distinctFiles = static_cast<std::int64_t>(files.size());

    std::vector<ToolFrequency> frequencies;
    frequencies.reserve(byName.size());
    for (const auto& [name, count] : byName)
        frequencies.push_back(ToolFrequency{std::string(name), count});
    std::sort(frequencies.begin(), frequencies.end(), [](const ToolFrequency& a, const ToolFrequency& b) {
        return a.count != b.count ? a.count > b.count : a.name < b.name;
    });
    frequencies.resize(std::min(frequencies.size(), static_cast<std::size_t>(std::max(topCount, 0))));
    summary.topTools = std::move(frequencies);
    return summary;
}

std::vector<ToolEvent> ToolTrace::recent(std::span<const ToolEvent> events, int limit) {
    if (limit < 1) return {};
    std::size_t keep = std::min(events.size(), static_cast<std::size_t>(limit));
    return std::vector<ToolEvent>(events.end() - static_cast<std::ptrdiff_t>(keep), events.end());
}

} // namespace OstrelCore
