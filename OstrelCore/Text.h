// Unicode text rules shared by every part of the workspace: counting and cutting by
// user-perceived characters (extended grapheme clusters), Unicode white space, lower-casing and
// folding. One module, so that "the first 47 characters" means the same thing everywhere.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace OstrelCore::Text {

// Decodes one scalar at `pos`; on malformed input returns U+FFFD and advances by one byte.
char32_t decode(std::string_view text, std::size_t& pos);
void appendUtf8(std::string& out, char32_t scalar);
bool isValidUtf8(std::string_view text);
// Replaces malformed sequences with U+FFFD, so that the result is valid UTF-8.
std::string sanitizeUtf8(std::string_view text);

bool isWhitespace(char32_t c);   // White_Space
bool isNewline(char32_t c);      // line feed, carriage return, VT, FF, NEL, LS, PS
bool isAlphanumeric(char32_t c); // letters, marks, numbers
bool isLetter(char32_t c);
bool isDigit(char32_t c);  // decimal digits of any script
bool isNumber(char32_t c); // numbers of any kind: digits, letter-like numerals, fractions

// Number of extended grapheme clusters.
std::size_t count(std::string_view text);
// The first `n` grapheme clusters (the whole text when it is shorter).
std::string_view prefix(std::string_view text, std::size_t n);
// Everything after the first `n` grapheme clusters.
std::string_view dropPrefix(std::string_view text, std::size_t n);
// The last `n` grapheme clusters.
std::string_view suffix(std::string_view text, std::size_t n);
// The same as suffix(), segmenting only as much of the end as it needs: for windows over long
// texts ("the last 8000 characters"). Runs of regional indicators longer than the window aside,
// the result is the same.
std::string_view tail(std::string_view text, std::size_t n);
// Byte offsets at which each grapheme cluster starts, plus text.size() at the end.
std::vector<std::size_t> clusterBoundaries(std::string_view text);

// Cuts to at most `n` clusters; when cut, the last kept cluster is replaced by `ellipsis`
// so that the result is still at most `n` clusters long.
std::string truncated(std::string_view text, std::size_t n, std::string_view ellipsis = "…");

std::string_view trim(std::string_view text); // white space and newlines, both ends
std::string_view trimStart(std::string_view text);
std::string_view trimEnd(std::string_view text);
std::vector<std::string_view> split(std::string_view text, char separator, bool keepEmpty = false);
std::vector<std::string_view> lines(std::string_view text); // on \n, \r\n and \r; keeps empty lines
// Collapses every run of white space and newlines into one blank, and trims.
std::string collapseWhitespace(std::string_view text);

std::string lowercased(std::string_view text);
std::string uppercased(std::string_view text);
// Case-, diacritic- and width-insensitive form, for comparisons and search.
std::string folded(std::string_view text);
bool containsFolded(std::string_view haystack, std::string_view needle);

bool startsWith(std::string_view text, std::string_view prefix);
bool endsWith(std::string_view text, std::string_view suffix);
bool containsAscii(std::string_view haystack, std::string_view needle);         // byte search
bool containsAsciiCaseless(std::string_view haystack, std::string_view needle); // ASCII letters only
std::string asciiLowercased(std::string_view text);

std::optional<long long> parseInteger(std::string_view text); // optional sign, digits only
std::optional<double> parseDouble(std::string_view text);     // plain decimal, no locale

} // namespace OstrelCore::Text
