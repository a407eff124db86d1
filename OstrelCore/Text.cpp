// Unicode text rules on utf8proc.
#include "OstrelCore/Text.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include <utf8proc.h>

namespace OstrelCore::Text {
namespace {

struct Range {
    char32_t lo, hi;
};

// White_Space (PropList.txt).
constexpr Range whiteSpace[] = {
    {0x09, 0x0D},     {0x20, 0x20},     {0x85, 0x85},     {0xA0, 0xA0},     {0x1680, 0x1680},
    {0x2000, 0x200A}, {0x2028, 0x2029}, {0x202F, 0x202F}, {0x205F, 0x205F}, {0x3000, 0x3000},
};

bool inRanges(char32_t c, const Range* begin, const Range* end) {
    for (auto* r = begin; r != end; ++r)
        if (c >= r->lo && c <= r->hi) return true;
    return false;
}

std::string mapWith(std::string_view text, int options) {
    if (text.empty()) return {};
    std::string valid = sanitizeUtf8(text);
    utf8proc_uint8_t* out = nullptr;
    auto n = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(valid.data()),
                          static_cast<utf8proc_ssize_t>(valid.size()), &out,
                          static_cast<utf8proc_option_t>(options));
    if (n < 0 || out == nullptr) return valid;
    std::string result(reinterpret_cast<char*>(out), static_cast<std::size_t>(n));
    std::free(out);
    return result;
}

template <typename F>
std::string mapScalars(std::string_view text, F&& f) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();)
        appendUtf8(out, f(decode(text, i)));
    return out;
}

} // namespace

char32_t decode(std::string_view text, std::size_t& pos) {
    utf8proc_int32_t cp = 0;
    auto n = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + pos),
                              static_cast<utf8proc_ssize_t>(text.size() - pos), &cp);
    if (n <= 0) {
        pos += 1;
        return 0xFFFD;
    }
    pos += static_cast<std::size_t>(n);
    return static_cast<char32_t>(cp);
}

void appendUtf8(std::string& out, char32_t c) {
    utf8proc_uint8_t buf[4];
    auto n = utf8proc_encode_char(static_cast<utf8proc_int32_t>(c), buf);
    if (n <= 0) n = utf8proc_encode_char(0xFFFD, buf);
    out.append(reinterpret_cast<const char*>(buf), static_cast<std::size_t>(n));
}

bool isValidUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        auto b = static_cast<unsigned char>(text[i]);
        if (b < 0x80) {
            ++i;
            continue;
        }
        utf8proc_int32_t cp;
        auto n = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + i),
                                  static_cast<utf8proc_ssize_t>(text.size() - i), &cp);
        if (n <= 0) return false;
        i += static_cast<std::size_t>(n);
    }
    return true;
}

std::string sanitizeUtf8(std::string_view text) {
    if (isValidUtf8(text)) return std::string(text);
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();)
        appendUtf8(out, decode(text, i));
    return out;
}

bool isWhitespace(char32_t c) {
    return inRanges(c, std::begin(whiteSpace), std::end(whiteSpace));
}

bool isNewline(char32_t c) {
    return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}

bool isLetter(char32_t c) {
    auto cat = utf8proc_category(static_cast<utf8proc_int32_t>(c));
    return cat >= UTF8PROC_CATEGORY_LU && cat <= UTF8PROC_CATEGORY_LO;
}

bool isAlphanumeric(char32_t c) {
    if (c < 0x80) return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    auto cat = utf8proc_category(static_cast<utf8proc_int32_t>(c));
    return cat >= UTF8PROC_CATEGORY_LU && cat <= UTF8PROC_CATEGORY_NO;
}

bool isDigit(char32_t c) {
    if (c < 0x80) return c >= '0' && c <= '9';
    return utf8proc_category(static_cast<utf8proc_int32_t>(c)) == UTF8PROC_CATEGORY_ND;
}

bool isNumber(char32_t c) {
    if (c < 0x80) return c >= '0' && c <= '9';
    auto cat = utf8proc_category(static_cast<utf8proc_int32_t>(c));
    return cat >= UTF8PROC_CATEGORY_ND && cat <= UTF8PROC_CATEGORY_NO;
}

std::vector<std::size_t> clusterBoundaries(std::string_view text) {
    std::vector<std::size_t> bounds;
    utf8proc_int32_t state = 0;
    char32_t previous = 0;
    bool first = true;
    for (std::size_t i = 0; i < text.size();) {
        std::size_t start = i;
        char32_t c = decode(text, i);
        if (first || utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(previous),
                                                      static_cast<utf8proc_int32_t>(c), &state))
            bounds.push_back(start);
        first = false;
        previous = c;
    }
    bounds.push_back(text.size());
    return bounds;
}

std::size_t count(std::string_view text) {
    std::size_t n = 0;
    utf8proc_int32_t state = 0;
    char32_t previous = 0;
    bool first = true;
    for (std::size_t i = 0; i < text.size();) {
        char32_t c = decode(text, i);
        if (first || utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(previous),
                                                      static_cast<utf8proc_int32_t>(c), &state))
            ++n;
        first = false;
        previous = c;
    }
    return n;
}

std::string_view prefix(std::string_view text, std::size_t n) {
    if (n == 0) return text.substr(0, 0);
    std::size_t seen = 0;
    utf8proc_int32_t state = 0;
    char32_t previous = 0;
    bool first = true;
    for (std::size_t i = 0; i < text.size();) {
        std::size_t start = i;
        char32_t c = decode(text, i);
        if (first || utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(previous),
                                                      static_cast<utf8proc_int32_t>(c), &state)) {
            if (seen == n) return text.substr(0, start);
            ++seen;
        }
        first = false;
        previous = c;
    }
    return text;
}

std::string_view dropPrefix(std::string_view text, std::size_t n) {
    return text.substr(prefix(text, n).size());
}

std::string_view suffix(std::string_view text, std::size_t n) {
    auto bounds = clusterBoundaries(text);
    std::size_t clusters = bounds.size() - 1;
    if (n >= clusters) return text;
    return text.substr(bounds[clusters - n]);
}

// Whether a grapheme cluster surely begins at byte `pos`, whatever comes before the text: an
// ASCII character other than LF (which may close a CR LF) never extends what precedes it, and only
// a prepending character would pull it into its own cluster.
bool clusterSurelyBeginsAt(std::string_view text, std::size_t pos) {
    auto c = static_cast<unsigned char>(text[pos]);
    if (c >= 0x80 || c == '\n') return false;
    if (pos == 0 || static_cast<unsigned char>(text[pos - 1]) < 0x80) return true;
    std::size_t start = pos - 1;
    while (start > 0 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80)
        --start;
    std::size_t next = start;
    char32_t previous = decode(text, next);
    return next != pos || utf8proc_get_property(static_cast<utf8proc_int32_t>(previous))->boundclass !=
                              UTF8PROC_BOUNDCLASS_PREPEND;
}

std::string_view tail(std::string_view text, std::size_t n) {
    // Plain ASCII at the end is counted directly: every byte is a cluster, CR LF is one.
    std::size_t pos = text.size();
    std::size_t clusters = 0;
    while (pos > 0 && clusters < n && static_cast<unsigned char>(text[pos - 1]) < 0x80) {
        pos -= text[pos - 1] == '\n' && pos >= 2 && text[pos - 2] == '\r' ? 2 : 1;
        ++clusters;
    }
    if (pos == 0 || (clusters == n && clusterSurelyBeginsAt(text, pos))) return text.substr(pos);

    // Otherwise the clusters of a window from the end, grown until it holds `n` of them. The window
    // starts where a cluster surely begins, so that its clusters are those of the whole text.
    for (std::size_t bytes = n * 4 + 4;; bytes *= 2) {
        if (bytes >= text.size()) return suffix(text, n);
        std::size_t start = text.size() - bytes;
        while (start > 0 && !clusterSurelyBeginsAt(text, start))
            --start;
        std::string_view window = text.substr(start);
        if (start == 0 || count(window) >= n) return suffix(window, n);
    }
}

std::string truncated(std::string_view text, std::size_t n, std::string_view ellipsis) {
    auto bounds = clusterBoundaries(text);
    std::size_t clusters = bounds.size() - 1;
    if (clusters <= n) return std::string(text);
    if (n == 0) return {};
    std::string out(text.substr(0, bounds[n - 1]));
    out += ellipsis;
    return out;
}

std::string_view trimStart(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        std::size_t next = i;
        char32_t c = decode(text, next);
        if (!isWhitespace(c) && !isNewline(c)) break;
        i = next;
    }
    return text.substr(i);
}

std::string_view trimEnd(std::string_view text) {
    std::size_t end = text.size();
    while (end > 0) {
        std::size_t start = end - 1;
        while (start > 0 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80)
            --start;
        std::size_t probe = start;
        char32_t c = decode(text, probe);
        if (probe != end || (!isWhitespace(c) && !isNewline(c))) break;
        end = start;
    }
    return text.substr(0, end);
}

std::string_view trim(std::string_view text) {
    return trimEnd(trimStart(text));
}

std::vector<std::string_view> split(std::string_view text, char separator, bool keepEmpty) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (true) {
        std::size_t at = text.find(separator, start);
        std::string_view part = text.substr(start, at == std::string_view::npos ? text.npos : at - start);
        if (keepEmpty || !part.empty()) parts.push_back(part);
        if (at == std::string_view::npos) break;
        start = at + 1;
    }
    return parts;
}

std::vector<std::string_view> lines(std::string_view text) {
    std::vector<std::string_view> out;
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n' || text[i] == '\r') {
            out.push_back(text.substr(start, i - start));
            if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
            start = i + 1;
        }
    }
    if (start < text.size()) out.push_back(text.substr(start));
    return out;
}

std::string collapseWhitespace(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    bool pendingBlank = false;
    for (std::size_t i = 0; i < text.size();) {
        std::size_t start = i;
        char32_t c = decode(text, i);
        if (isWhitespace(c) || isNewline(c)) {
            pendingBlank = !out.empty();
            continue;
        }
        if (pendingBlank) out.push_back(' ');
        pendingBlank = false;
        out.append(text.substr(start, i - start));
    }
    return out;
}

std::string lowercased(std::string_view text) {
    return mapScalars(text, [](char32_t c) {
        return static_cast<char32_t>(utf8proc_tolower(static_cast<utf8proc_int32_t>(c)));
    });
}

std::string uppercased(std::string_view text) {
    return mapScalars(text, [](char32_t c) {
        return static_cast<char32_t>(utf8proc_toupper(static_cast<utf8proc_int32_t>(c)));
    });
}

std::string folded(std::string_view text) {
    return mapWith(text, UTF8PROC_STABLE | UTF8PROC_COMPAT | UTF8PROC_DECOMPOSE | UTF8PROC_CASEFOLD |
                             UTF8PROC_STRIPMARK | UTF8PROC_IGNORE);
}

bool containsFolded(std::string_view haystack, std::string_view needle) {
    if (needle.empty()) return true;
    return folded(haystack).find(folded(needle)) != std::string::npos;
}

bool startsWith(std::string_view text, std::string_view p) {
    return text.substr(0, p.size()) == p;
}

bool endsWith(std::string_view text, std::string_view s) {
    return text.size() >= s.size() && text.substr(text.size() - s.size()) == s;
}

bool containsAscii(std::string_view haystack, std::string_view needle) {
    return haystack.find(needle) != std::string_view::npos;
}

std::string asciiLowercased(std::string_view text) {
    std::string out(text);
    for (char& ch : out)
        if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch - 'A' + 'a');
    return out;
}

bool containsAsciiCaseless(std::string_view haystack, std::string_view needle) {
    if (needle.empty()) return true;
    auto lower = [](char ch) { return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch; };
    auto it = std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(),
                          [&](char a, char b) { return lower(a) == lower(b); });
    return it != haystack.end();
}

std::optional<long long> parseInteger(std::string_view text) {
    if (text.empty()) return std::nullopt;
    if (text.front() == '+') text.remove_prefix(1);
    long long value = 0;
    auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<double> parseDouble(std::string_view text) {
    if (text.empty()) return std::nullopt;
    if (text.front() == '+') text.remove_prefix(1);
    double value = 0;
    auto [ptr, ec] =
        std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::general);
    if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
    return value;
}

} // namespace OstrelCore::Text
