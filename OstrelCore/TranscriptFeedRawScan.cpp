// Raw scanners of giant transcript lines. The bulk of such a line is one long string; the record's
// own keys sit in its first and last few kilobytes, and tool blocks are found by one fast search
// over the whole line.
#include "OstrelCore/TranscriptFeedRawScan.h"

#include "OstrelCore/ByteSearch.h"
#include "OstrelCore/JSONRead.h"
#include "OstrelCore/Text.h"

#include <algorithm>

namespace OstrelCore::TranscriptFeed::RawScan {
namespace {

// How far from a marker the values of its block are looked for.
constexpr std::size_t valueReach = 96;
// How much of a tool's input is read for its target, and of a text for its entry.
constexpr std::size_t inputBytes = 2048;
constexpr std::size_t textBytes = 16384;
constexpr std::size_t idBytes = 512;

std::string_view headOf(std::string_view line) {
    return line.substr(0, searchWindowBytes);
}

std::size_t tailStart(std::string_view line) {
    return line.size() > searchWindowBytes ? line.size() - searchWindowBytes : 0;
}

// Position just after the last occurrence of `key` in [from, to), or npos.
std::size_t lastValueStart(std::string_view line, std::string_view key, std::size_t from, std::size_t to) {
    std::string_view window = line.substr(0, to);
    std::size_t found = ByteSearch::npos;
    for (std::size_t at = ByteSearch::find(window, key, from); at != ByteSearch::npos;
         at = ByteSearch::find(window, key, at + 1))
        found = at;
    return found == ByteSearch::npos ? found : found + key.size();
}

std::size_t firstValueStart(std::string_view line, std::string_view key, std::size_t from, std::size_t to) {
    std::size_t at = ByteSearch::find(line.substr(0, to), key, from);
    return at == ByteSearch::npos ? at : at + key.size();
}

// The string value of `key` (spelled with its colon and opening quote) nearest to [begin, end),
// within `valueReach` bytes on either side.
std::optional<std::string> valueNear(std::string_view line, std::size_t begin, std::size_t end,
                                     std::string_view key) {
    std::size_t from = begin > valueReach ? begin - valueReach : 0;
    std::size_t to = std::min(line.size(), end + valueReach);
    std::size_t best = ByteSearch::npos, bestDistance = ByteSearch::npos;
    std::string_view window = line.substr(0, to);
    for (std::size_t at = ByteSearch::find(window, key, from); at != ByteSearch::npos;
         at = ByteSearch::find(window, key, at + 1)) {
        std::size_t distance = at < begin ? begin - at : at - std::min(at, end);
        if (distance < bestDistance) {
            best = at;
            bestDistance = distance;
        }
    }
    if (best == ByteSearch::npos) return std::nullopt;
    return decodeString(line, best + key.size(), idBytes);
}

std::optional<std::string> valueIn(std::string_view line, std::string_view key, std::size_t from,
                                   std::size_t to, bool last, std::size_t maxBytes = idBytes) {
    std::size_t at = last ? lastValueStart(line, key, from, to) : firstValueStart(line, key, from, to);
    if (at == ByteSearch::npos) return std::nullopt;
    return decodeString(line, at, maxBytes);
}

// A record key read near the start first (where most writers put it), else near the end.
std::optional<std::string> recordValue(std::string_view line, std::string_view key, bool endFirst) {
    auto atHead = [&] { return valueIn(line, key, 0, std::min(line.size(), searchWindowBytes), false); };
    auto atTail = [&] { return valueIn(line, key, tailStart(line), line.size(), true); };
    if (endFirst) {
        auto v = atTail();
        return v ? v : atHead();
    }
    auto v = atHead();
    return v ? v : atTail();
}

std::optional<Date> recordDate(std::string_view line, bool endFirst) {
    auto text = recordValue(line, R"("timestamp":")", endFirst);
    return text ? InternetDateTime::parseMilliseconds(*text) : std::nullopt;
}

bool nonZeroNumberAt(std::string_view line, std::size_t at) {
    while (at < line.size() && line[at] == ' ')
        ++at;
    std::size_t end = at;
    if (end < line.size() && line[end] == '-') ++end;
    while (end < line.size() && line[end] >= '0' && line[end] <= '9')
        ++end;
    auto value = Text::parseInteger(line.substr(at, end - at));
    return value && *value != 0;
}

// Whether `marker` followed by a non-zero number occurs in the window.
bool nonZeroAfter(std::string_view line, std::string_view marker, std::size_t from, std::size_t to) {
    std::string_view window = line.substr(0, to);
    for (std::size_t at = ByteSearch::find(window, marker, from); at != ByteSearch::npos;
         at = ByteSearch::find(window, marker, at + 1))
        if (nonZeroNumberAt(window, at + marker.size())) return true;
    return false;
}

std::optional<std::string> nonEmpty(std::optional<std::string> text) {
    if (text && text->empty()) return std::nullopt;
    return text;
}

void appendScalar(std::string& out, std::uint32_t scalar) {
    if (scalar > 0x10FFFF || (scalar >= 0xD800 && scalar <= 0xDFFF)) scalar = 0xFFFD;
    Text::appendUtf8(out, static_cast<char32_t>(scalar));
}

std::optional<std::uint32_t> hex4(std::string_view line, std::size_t at) {
    if (at + 4 > line.size()) return std::nullopt;
    std::uint32_t value = 0;
    for (std::size_t i = at; i < at + 4; ++i) {
        char c = line[i];
        value <<= 4;
        if (c >= '0' && c <= '9')
            value |= static_cast<std::uint32_t>(c - '0');
        else if (c >= 'a' && c <= 'f')
            value |= static_cast<std::uint32_t>(c - 'a' + 10);
        else if (c >= 'A' && c <= 'F')
            value |= static_cast<std::uint32_t>(c - 'A' + 10);
        else
            return std::nullopt;
    }
    return value;
}

} // namespace

std::string decodeString(std::string_view line, std::size_t start, std::size_t maxBytes) {
    std::string out;
    for (std::size_t i = start; i < line.size() && out.size() < maxBytes;) {
        char c = line[i];
        if (c == '"') break;
        if (c != '\\') {
            // Copy a run of plain bytes at once.
            std::size_t end = i;
            while (end < line.size() && line[end] != '"' && line[end] != '\\' &&
                   end - i < maxBytes - out.size())
                ++end;
            out.append(line.substr(i, end - i));
            i = end;
            continue;
        }
        if (i + 1 >= line.size()) break;
        char e = line[i + 1];
        i += 2;
        switch (e) {
        case 'n': out.push_back('\n'); break;
        case 't': out.push_back('\t'); break;
        case 'r': out.push_back('\r'); break;
        case 'b': out.push_back('\b'); break;
        case 'f': out.push_back('\f'); break;
        case 'u': {
            auto unit = hex4(line, i);
            if (!unit) {
                appendScalar(out, 0xFFFD);
                break;
            }
            i += 4;
            std::uint32_t scalar = *unit;
            if (scalar >= 0xD800 && scalar <= 0xDBFF && i + 6 <= line.size() && line[i] == '\\' &&
                line[i + 1] == 'u') {
                auto low = hex4(line, i + 2);
                if (low && *low >= 0xDC00 && *low <= 0xDFFF) {
                    scalar = 0x10000 + ((scalar - 0xD800) << 10) + (*low - 0xDC00);
                    i += 6;
                }
            }
            appendScalar(out, scalar);
            break;
        }
        default: out.push_back(e); break; // \" \\ \/ and anything unknown: the character itself
        }
    }
    return Text::sanitizeUtf8(out); // a cut may have split a character
}

std::optional<std::string> rawTarget(std::string_view json) {
    for (auto key : targetKeys) {
        std::string quoted;
        quoted.append("\"").append(key).append("\":");
        for (std::size_t at = ByteSearch::find(json, quoted); at != ByteSearch::npos;
             at = ByteSearch::find(json, quoted, at + 1)) {
            std::size_t i = at + quoted.size();
            while (i < json.size() && json[i] == ' ')
                ++i;
            if (i >= json.size()) break;
            std::string joined;
            if (json[i] == '"') {
                joined = decodeString(json, i + 1, inputBytes);
            } else if (json[i] == '[') {
                // An array of texts, joined by blanks; read as far as it goes.
                ++i;
                while (i < json.size()) {
                    while (i < json.size() && (json[i] == ' ' || json[i] == ','))
                        ++i;
                    if (i >= json.size() || json[i] != '"') break;
                    std::string part = decodeString(json, i + 1, inputBytes);
                    if (!joined.empty()) joined += ' ';
                    joined += part;
                    // Skip past the string's closing quote.
                    ++i;
                    while (i < json.size() && json[i] != '"') {
                        if (json[i] == '\\') ++i;
                        ++i;
                    }
                    ++i;
                    if (joined.size() > inputBytes) break;
                }
            } else {
                continue;
            }
            std::string clamped = clamp(joined, targetCharacters);
            if (!clamped.empty()) return clamped;
            break;
        }
    }
    return std::nullopt;
}

void claude(Run& run, std::string_view line, bool userRecord) {
    // Claude writes uuid and timestamp after the message, at the end of the line.
    run.beginRecord(recordValue(line, R"("uuid":")", true).value_or(std::string()), line,
                    recordDate(line, true));

    std::string_view head = headOf(line);
    if (userRecord) {
        constexpr std::string_view userText = R"("message":{"role":"user","content":")";
        if (std::size_t at = ByteSearch::find(head, userText); at != ByteSearch::npos)
            addUserText(run, decodeString(line, at + userText.size(), textBytes));
    } else {
        constexpr std::string_view firstText = R"("content":[{"type":"text","text":")";
        if (std::size_t at = ByteSearch::find(head, firstText); at != ByteSearch::npos)
            run.addText(Role::assistant, decodeString(line, at + firstText.size(), textBytes));
    }

    // One pass for both kinds of tool block.
    constexpr std::string_view typeKey = R"("type":)";
    constexpr std::string_view toolUse = R"("tool_use")";
    constexpr std::string_view toolResult = R"("tool_result")";
    std::vector<std::size_t> results;
    for (std::size_t at = ByteSearch::find(line, R"("tool_)"); at != ByteSearch::npos;
         at = ByteSearch::find(line, R"("tool_)", at + 1)) {
        if (line.compare(at, toolResult.size(), toolResult) == 0) {
            results.push_back(at);
            continue;
        }
        if (line.compare(at, toolUse.size(), toolUse) != 0 || at < typeKey.size() ||
            line.compare(at - typeKey.size(), typeKey.size(), typeKey) != 0)
            continue;
        std::size_t begin = at - typeKey.size(), end = at + toolUse.size();
        auto id = valueNear(line, begin, end, R"("id":")");
        auto name = nonEmpty(valueNear(line, begin, end, R"("name":")"));
        std::optional<std::string> target;
        std::string_view near = line.substr(begin, std::min(line.size() - begin, 2 * valueReach + 512));
        if (std::size_t input = near.find(R"("input":{)"); input != std::string_view::npos)
            target = rawTarget(line.substr(begin + input, inputBytes));
        run.addTool(Role::tool, std::move(name), std::move(target), id.value_or(std::string()));
    }

    constexpr std::string_view isError = R"("is_error":true)";
    for (std::size_t k = 0; k < results.size(); ++k) {
        std::size_t begin = results[k], end = begin + toolResult.size();
        std::size_t regionEnd = k + 1 < results.size() ? results[k + 1] : line.size();
        std::size_t closeFrom = begin > valueReach ? begin - valueReach : 0;
        std::size_t closeTo = std::min(regionEnd, end + 512);
        // The flag stands beside the marker, or behind the result's text, at the end of its block.
        std::size_t lateFrom =
            regionEnd > searchWindowBytes ? std::max(begin, regionEnd - searchWindowBytes) : begin;
        bool failed = ByteSearch::find(line.substr(0, closeTo), isError, closeFrom) != ByteSearch::npos ||
                      ByteSearch::find(line.substr(0, regionEnd), isError, lateFrom) != ByteSearch::npos;
        if (!failed) continue;
        auto id = valueNear(line, begin, end, R"("tool_use_id":")");
        if (!id) id = valueIn(line, R"("tool_use_id":")", lateFrom, regionEnd, false);
        if (id) run.fail(*id, {});
    }
}

void codex(Run& run, std::string_view line) {
    std::string_view head = headOf(line);
    std::string_view tail = line.substr(tailStart(line));
    auto has = [&](std::string_view marker) {
        return ByteSearch::contains(head, marker) || ByteSearch::contains(tail, marker);
    };
    auto at = recordDate(line, false);
    auto callId = recordValue(line, R"("call_id":")", false).value_or(std::string());

    if (has(R"("type":"function_call_output")") || has(R"("type":"custom_tool_call_output")") ||
        has(R"("type":"local_shell_call_output")")) {
        std::size_t tailFrom = tailStart(line);
        bool failed = nonZeroAfter(line, R"("output":"exited with code )", 0, head.size()) ||
                      nonZeroAfter(line, R"("output":"Exit code: )", 0, head.size()) ||
                      nonZeroAfter(line, R"(\"exit_code\":)", 0, head.size()) ||
                      nonZeroAfter(line, R"(\"exit_code\":)", tailFrom, line.size()) ||
                      nonZeroAfter(line, R"("exit_code":)", 0, head.size()) ||
                      nonZeroAfter(line, R"("exit_code":)", tailFrom, line.size()) ||
                      nonZeroAfter(line, R"(Process exited with code )", 0, head.size());
        if (failed) run.fail(callId, {});
        return;
    }
    bool custom = has(R"("type":"custom_tool_call")");
    bool localShell = has(R"("type":"local_shell_call")");
    if (custom || localShell || has(R"("type":"function_call")")) {
        auto name = nonEmpty(recordValue(line, R"("name":")", false));
        std::string tool = localShell || !name ? std::string("shell") : *name;
        std::optional<std::string> target;
        for (std::string_view key : {R"("input":")", R"("arguments":")"}) {
            std::size_t pos = ByteSearch::find(head, key);
            if (pos == ByteSearch::npos) continue;
            std::string input = decodeString(line, pos + key.size(), textBytes);
            if (tool == "apply_patch" || custom) target = patchTarget(input);
            if (!target) {
                auto decoded = JSONRead::parseObject(input);
                target = decoded ? targetOf(*decoded) : rawTarget(input);
            }
            break;
        }
        if (!target)
            for (std::string_view key : {R"("input":{)", R"("arguments":{)", R"("action":{)"})
                if (std::size_t pos = ByteSearch::find(head, key); pos != ByteSearch::npos) {
                    target = rawTarget(line.substr(pos, inputBytes));
                    break;
                }
        run.beginRecord(callId, line, at);
        run.addTool(Role::tool, std::move(tool), std::move(target), callId);
        return;
    }
    bool user = has(R"("type":"user_message")");
    if (user || has(R"("type":"agent_message")")) {
        constexpr std::string_view messageKey = R"("message":")";
        std::size_t pos = ByteSearch::find(head, messageKey);
        if (pos == ByteSearch::npos) return;
        std::string message = decodeString(line, pos + messageKey.size(), textBytes);
        run.beginRecord({}, line, at);
        if (user)
            addUserText(run, message);
        else
            run.addText(Role::assistant, message);
    }
}

void gemini(Run& run, std::string_view line) {
    std::string_view head = headOf(line);
    // The record's type is the first of the three in the line; tool calls carry none of them.
    constexpr std::array<std::string_view, 3> types = {R"("type":"user")", R"("type":"gemini")",
                                                       R"("type":"error")"};
    std::size_t typeIndex = types.size(), typeAt = ByteSearch::npos;
    for (std::size_t k = 0; k < types.size(); ++k) {
        std::size_t at = ByteSearch::find(head, types[k]);
        if (at < typeAt) {
            typeAt = at;
            typeIndex = k;
        }
    }
    if (typeIndex == types.size()) {
        std::string_view tail = line.substr(tailStart(line));
        for (std::size_t k = 0; k < types.size() && typeIndex == types.size(); ++k)
            if (ByteSearch::contains(tail, types[k])) typeIndex = k;
    }
    if (typeIndex == types.size()) return;
    auto at = recordDate(line, false);
    run.beginRewritableRecord(recordValue(line, R"("id":")", false).value_or(std::string()), line, at);

    std::optional<std::string> text;
    for (std::string_view key : {R"("content":")", R"("content":[{"text":")", R"("content":{"text":")"})
        if (std::size_t pos = ByteSearch::find(head, key); pos != ByteSearch::npos) {
            text = decodeString(line, pos + key.size(), textBytes);
            break;
        }
    if (typeIndex == 0) {
        std::string_view trimmed = Text::trim(text.value_or(std::string()));
        run.addText(Text::startsWith(trimmed, "/") ? Role::notice : Role::user, trimmed);
        return;
    }
    if (typeIndex == 2) {
        run.addText(Role::error, text.value_or(std::string()));
        return;
    }
    if (text) run.addText(Role::assistant, *text);

    constexpr std::string_view argsKey = R"("args":)";
    std::vector<std::size_t> calls;
    for (std::size_t pos = ByteSearch::find(line, argsKey); pos != ByteSearch::npos;
         pos = ByteSearch::find(line, argsKey, pos + 1))
        calls.push_back(pos);
    for (std::size_t k = 0; k < calls.size(); ++k) {
        std::size_t begin = calls[k], regionEnd = k + 1 < calls.size() ? calls[k + 1] : line.size();
        auto name = nonEmpty(valueNear(line, begin, begin + argsKey.size(), R"("name":")"));
        auto target = rawTarget(line.substr(begin, inputBytes));
        auto status = valueIn(line, R"("status":")", begin, regionEnd, false);
        bool failed = status && (*status == "error" || *status == "cancelled");
        run.addTool(failed ? Role::error : Role::tool, std::move(name), std::move(target), {});
    }
}

} // namespace OstrelCore::TranscriptFeed::RawScan
