// The link under a position: links the program declared with OSC 8, and links recognised in the
// text (URLs and paths), including ones that a program hard-wrapped at the edge of the screen.
#include "TerminalEngine/Model/CellScalars.h"
#include "TerminalEngine/Search/Regex.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <array>

namespace TerminalEngine {
namespace {

// A recognised link spans at most this many rows; an explicit one is followed this far.
constexpr int maximumImplicitRows = 32;
constexpr int maximumExplicitRows = 1000;

// URLs with one of the usual schemes, paths starting at a root, home, variable or dot, and
// relative paths of two segments or more that hold a dot.
constexpr std::string_view implicitLinkPatternText =
    R"re((?:https?://|mailto:|ftp://|file:|ssh:|git://|ssh://|tel:|magnet:|ipfs://|ipns://|gemini://|gopher://|news:)(?:(?:\[[:0-9a-fA-F]+(?:[:0-9a-fA-F]*)+\](?::[0-9]+)?)|[\w\-.~:/?#@!$&*+,;=%]+(?:[\(\[]\w*[\)\]])?)+(?<![,.])|(?:\.\.\/|\.\/|(?<!\w)~\/|(?:[\w][\w\-.]*\/)*(?<!\w)\$[A-Za-z_]\w*\/|\.[\w][\w\-.]*\/|(?<![\w~\/])\/(?!\/))(?:(?=[\w\-.~:\/?#@!$&*+;=%]*\.)[\w\-.~:\/?#@!$&*+;=%]+(?:(?<!:) (?!\w+:\/\/)[\w\-.~:\/?#@!$&*+;=%]*[\/.])*(?<!:)(?: +(?= *$))?|(?![\w\-.~:\/?#@!$&*+;=%]*\.)[\w\-.~:\/?#@!$&*+;=%]+(?:(?<!:) (?!\w+:\/\/)[\w\-.~:\/?#@!$&*+;=%]+)*(?<!:)(?: +(?= *$))?)|(?=[\w\-.~:\/?#@!$&*+;=%]*\.)(?<!\w)[\w][\w\-.]*\/[\w\-.~:\/?#@!$&*+;=%]+(?:(?<!:) (?!\w+:\/\/)[\w\-.~:\/?#@!$&*+;=%]*[\/.])*(?<!:)(?: +(?= *$))?)re";

constexpr std::array<std::string_view, 15> linkSchemes = {
    "https://", "http://", "mailto:", "ftp://",  "file:",     "ssh:",      "git://", "ssh://",
    "tel:",     "magnet:", "ipfs://", "ipns://", "gemini://", "gopher://", "news:",
};

// Compiled once; lookups run on the thread that owns the terminals.
const Regex* implicitLinkPattern() {
    static const std::optional<Regex> pattern = Regex::compile(implicitLinkPatternText, {});
    return pattern ? &*pattern : nullptr;
}

std::size_t schemeLength(std::string_view text) {
    for (std::string_view scheme : linkSchemes)
        if (text.starts_with(scheme)) return scheme.size();
    return 0;
}

// Characters that may stand in a URL or a path, as the pattern's classes allow them.
bool isLinkScalar(char32_t c) {
    if (CellScalars::isAlphanumeric(c)) return true;
    static constexpr std::string_view punctuation = "-._~:/?#@!$&*+,;=%()[]";
    return c < 0x80 && c != 0 && punctuation.find(static_cast<char>(c)) != std::string_view::npos;
}

// The vertical bars that boxes drawn by full-screen programs put at both ends of a row.
bool isFrameScalar(char32_t c) {
    return c == U'\u2502' || c == U'\u2503' || c == U'\u2551' || c == U'|';
}

bool hasScheme(std::string_view token) {
    return token.find("://") != std::string_view::npos || schemeLength(token) != 0;
}

// A token that begins a link of its own rather than continuing one.
bool startsNewLink(std::string_view token) {
    if (schemeLength(token) != 0) return true;
    std::size_t colon = token.find("://");
    if (colon != std::string_view::npos && colon > 0 &&
        std::all_of(token.begin(), token.begin() + static_cast<std::ptrdiff_t>(colon),
                    [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }))
        return true;
    return token.starts_with("~/") || token.starts_with("./") || token.starts_with("../") ||
           token.starts_with("$");
}

// "-", "*", "1.", "12)": the start of a list item.
bool isListMarker(std::string_view token) {
    bool alnum = std::any_of(token.begin(), token.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    });
    if (!alnum) return token.size() <= 2;
    std::size_t digits = 0;
    while (digits < token.size() && token[digits] >= '0' && token[digits] <= '9')
        ++digits;
    return digits > 0 && digits + 1 == token.size() && (token.back() == '.' || token.back() == ')');
}

// Prose words are letters only; the pieces of a wrapped URL or path nearly always carry a
// separator or a digit.
bool hasLinkStructure(std::string_view token) {
    return std::any_of(token.begin(), token.end(), [](char c) {
        return (c >= '0' && c <= '9') || std::string_view("/.?=&%#_-~:+@").find(c) != std::string_view::npos;
    });
}

// What the edges of a row look like, for joining a link that a program broke at the edge.
struct LinkRowEdgeInfo {
    bool empty = true;
    int contentStart = 0;       // first non-blank column inside any frame
    int contentEnd = 0;         // one past the last non-blank column inside any frame
    int rightEdge = 0;          // the width, or the column of the right frame
    int leftFrame = -1;         // column of the left frame, -1 without one
    bool reachesEdge = false;   // the content runs up to the right edge (one blank allowed)
    int trailingTokenStart = 0; // start of the run of link characters that ends the content
    int leadingTokenEnd = 0;    // end of the run of link characters that starts the content
};

class LinkScanner {
public:
    explicit LinkScanner(Terminal& terminal)
        : terminal_(terminal)
        , lines_(terminal.buffer->lines) {}

    char32_t scalarAt(const BufferLine& line, int col) const {
        return CellScalars::leadScalar(line[col], terminal_.graphemes);
    }

    std::string text(int row, int from, int to) const {
        const BufferLine& line = lines_[row];
        std::string out;
        for (int c = std::max(from, 0); c < std::min(to, line.count()); ++c)
            if (line[c].width != 0) CellScalars::appendText(line[c], terminal_.graphemes, out);
        return out;
    }

    LinkRowEdgeInfo linkRowEdgeInfo(int row) const {
        LinkRowEdgeInfo info;
        const BufferLine& line = lines_[row];
        int n = line.count();
        int first = 0, last = n - 1;
        while (first < n && CellScalars::isBlank(line[first]))
            ++first;
        while (last >= first && CellScalars::isBlank(line[last]))
            --last;
        if (first > last) return info;
        info.rightEdge = n;
        if (last > first && isFrameScalar(scalarAt(line, first)) && isFrameScalar(scalarAt(line, last))) {
            info.leftFrame = first;
            info.rightEdge = last;
            int inner = last;
            ++first;
            while (first < inner && CellScalars::isBlank(line[first]))
                ++first;
            last = inner - 1;
            while (last >= first && CellScalars::isBlank(line[last]))
                --last;
            if (first > last) return info;
        }
        info.empty = false;
        info.contentStart = first;
        info.contentEnd = std::min(last + std::max<int>(line[last].width, 1), info.rightEdge);
        info.reachesEdge = info.contentEnd >= info.rightEdge - 1;
        int start = last;
        while (start >= first && line[start].width != 0 && isLinkScalar(scalarAt(line, start)))
            --start;
        info.trailingTokenStart = start + 1;
        if (info.trailingTokenStart > last) info.trailingTokenStart = info.contentEnd;
        int end = first;
        while (end <= last && (line[end].width == 0 || isLinkScalar(scalarAt(line, end))))
            ++end;
        info.leadingTokenEnd = end;
        return info;
    }

    // Row `row` could be the rest of a link broken on the row above it: it starts with a run of
    // link characters that neither begins a link of its own nor reads like prose or a list.
    bool isImplicitContinuationRow(int row, const LinkRowEdgeInfo& info) const {
        if (info.empty || info.leadingTokenEnd <= info.contentStart) return false;
        std::string token = text(row, info.contentStart, info.leadingTokenEnd);
        if (isListMarker(token) || startsNewLink(token)) return false;
        return hasLinkStructure(token) || info.leadingTokenEnd >= info.contentEnd;
    }

    // Everything but the look of the link itself: the upper row is full to its edge and ends in a
    // token, the lower row continues it from no deeper an indentation, inside the same frame.
    bool edgesJoin(int above, int below) const {
        if (above < 0 || below >= lines_.count() || lines_[below].isWrapped) return false;
        LinkRowEdgeInfo a = linkRowEdgeInfo(above), b = linkRowEdgeInfo(below);
        if (a.empty || !a.reachesEdge || a.trailingTokenStart >= a.contentEnd) return false;
        if (a.leftFrame != b.leftFrame || (a.leftFrame >= 0 && a.rightEdge != b.rightEdge)) return false;
        if (b.empty || b.contentStart > a.trailingTokenStart) return false;
        return isImplicitContinuationRow(below, b);
    }

    // The link-like token that ends `row`, followed up through the rows it continues from.
    std::string trailingChainToken(int row, int depth) const {
        LinkRowEdgeInfo info = linkRowEdgeInfo(row);
        if (info.empty || info.trailingTokenStart >= info.contentEnd) return {};
        std::string token = text(row, info.trailingTokenStart, info.contentEnd);
        if (depth <= 0 || row == 0) return token;
        if (lines_[row].isWrapped) {
            if (info.trailingTokenStart != 0) return token;
            return trailingChainToken(row - 1, depth - 1) + token;
        }
        if (info.trailingTokenStart != info.contentStart || !edgesJoin(row - 1, row)) return token;
        return trailingChainToken(row - 1, depth - 1) + token;
    }

    bool canJoinImplicitRows(int above, int below) const {
        if (!edgesJoin(above, below)) return false;
        std::string chain = trailingChainToken(above, maximumImplicitRows);
        if (chain.size() < 2) return false;
        bool scheme = hasScheme(chain);
        if (!scheme && chain.find('/') == std::string::npos) return false;
        // A row that starts at a root is a path of its own, unless a URL runs into it.
        LinkRowEdgeInfo b = linkRowEdgeInfo(below);
        if (scalarAt(lines_[below], b.contentStart) == U'/' && !scheme) return false;
        return true;
    }

    bool joinsPrevious(int row) const {
        if (row <= 0 || row >= lines_.count()) return false;
        return lines_[row].isWrapped || canJoinImplicitRows(row - 1, row);
    }

    // The rows that read as one text around `row`: soft wraps, and links hard-wrapped at the edge.
    std::pair<int, int> heuristicImplicitGroup(int row) const {
        int first = row, last = row;
        while (row - first < maximumImplicitRows && joinsPrevious(first))
            --first;
        while (last - first < maximumImplicitRows && joinsPrevious(last + 1))
            ++last;
        return {first, last};
    }

    struct ImplicitLineMap {
        std::string text;
        std::vector<ImplicitCellRef> cells;
        std::vector<std::size_t> byteStarts; // of each character in `text`
    };

    ImplicitLineMap buildImplicitLineMap(int first, int last) const {
        ImplicitLineMap map;
        for (int r = first; r <= last; ++r) {
            const BufferLine& line = lines_[r];
            LinkRowEdgeInfo info = linkRowEdgeInfo(r);
            int from = (r > first && !line.isWrapped) ? info.contentStart : 0;
            int to = line.count();
            if (r < last) {
                const BufferLine& next = lines_[r + 1];
                if (!next.isWrapped) {
                    to = info.contentEnd;
                } else if (to > 0 && line[to - 1].code == 0 && next.count() > 0 && next[0].width == 2) {
                    --to; // the column a wide character could not fill before wrapping
                }
            } else {
                to = line.getTrimmedLength();
            }
            for (int c = from; c < to; ++c) {
                const CharData& cell = line[c];
                if (cell.width == 0) continue;
                map.byteStarts.push_back(map.text.size());
                map.cells.push_back({r, c, std::max<int>(cell.width, 1)});
                CellScalars::appendText(cell, terminal_.graphemes, map.text);
            }
        }
        return map;
    }

private:
    Terminal& terminal_;
    CircularBufferLineList& lines_;
};

// Sentence punctuation and blanks after a link belong to the sentence.
std::size_t trimmedEnd(std::string_view text, std::size_t start, std::size_t end) {
    while (end > start && std::string_view(" .,;:!?").find(text[end - 1]) != std::string_view::npos)
        --end;
    return end;
}

// Matches of the pattern that are rarely links: a bare scheme, numbers with slashes ("1/2",
// "2024/01/02"), a one-letter root ("/h" in "km /h"), units and abbreviations that lost their
// only dot to the sentence ("km/h.").
bool suppressUnlikelyMatch(std::string_view text) {
    if (text.empty()) return true;
    if (std::size_t scheme = schemeLength(text)) {
        std::string_view rest = text.substr(scheme);
        return std::none_of(rest.begin(), rest.end(), [](char c) {
            return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                   static_cast<unsigned char>(c) >= 0x80;
        });
    }
    bool letter = std::any_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || static_cast<unsigned char>(c) >= 0x80;
    });
    bool anchored = text.starts_with("./") || text.starts_with("../") || text.starts_with("~/");
    if (!letter && !anchored) return true;
    if (text.front() == '/') {
        std::string_view rest = text.substr(1);
        if (rest.find('/') == std::string_view::npos && rest.size() <= 1) return true;
        return false;
    }
    bool relative = !anchored && text.front() != '$' && text.front() != '.';
    if (relative && text.find('.') == std::string_view::npos) return true;
    return false;
}

} // namespace

// MARK: Lookup

std::optional<std::pair<std::string, std::string>> Terminal::parseHyperlinkPayload(std::string_view payload) {
    std::size_t semicolon = payload.find(';');
    if (semicolon == std::string_view::npos) return std::nullopt;
    std::string_view uri = payload.substr(semicolon + 1);
    if (uri.empty()) return std::nullopt;
    return std::pair{std::string(payload.substr(0, semicolon)), std::string(uri)};
}

std::optional<std::string> Terminal::link(LinkLookupLocation at, LinkLookupMode mode) {
    if (auto match = linkMatch(at, mode)) return std::move(match->text);
    return std::nullopt;
}

std::optional<Terminal::LinkMatch> Terminal::linkMatch(LinkLookupLocation at, LinkLookupMode mode) {
    Position p = at.position;
    if (at.kind == LinkLookupLocation::Kind::screen) p.row += buffer->yDisp;
    if (p.row < 0 || p.row >= buffer->lines.count() || p.col < 0 || p.col >= buffer->lines[p.row].count())
        return std::nullopt;
    if (auto match = explicitLinkMatch(p)) return match;
    if (mode == LinkLookupMode::explicitOnly) return std::nullopt;
    return implicitLinkMatch(p);
}

std::optional<Terminal::LinkMatch> Terminal::explicitLinkMatch(Position at) {
    CircularBufferLineList& lines = buffer->lines;
    if (at.row < 0 || at.row >= lines.count() || at.col < 0 || at.col >= lines[at.row].count())
        return std::nullopt;
    int col = at.col;
    if (col > 0 && lines[at.row][col].width == 0) --col; // the right half of a wide character
    TinyAtom atom = lines[at.row][col].payload;
    if (atom.isNone()) return std::nullopt;
    auto target = atom.target();
    if (!target) return std::nullopt;
    auto parsed = parseHyperlinkPayload(*target);
    if (!parsed) return std::nullopt;

    const std::uint16_t code = atom.code;
    auto carries = [&](int row, int c) { return lines[row][c].payload.code == code; };
    // Walk to both ends over cells of the same link, across row boundaries where the link runs on.
    int startRow = at.row, startCol = col;
    while (true) {
        if (startCol > 0 && carries(startRow, startCol - 1)) {
            --startCol;
        } else if (startCol == 0 && startRow > 0 && at.row - startRow < maximumExplicitRows &&
                   lines[startRow - 1].count() > 0 &&
                   carries(startRow - 1, lines[startRow - 1].count() - 1)) {
            --startRow;
            startCol = lines[startRow].count() - 1;
        } else {
            break;
        }
    }
    int endRow = at.row, endCol = col; // inclusive
    while (true) {
        int width = lines[endRow].count();
        if (endCol + 1 < width && carries(endRow, endCol + 1)) {
            ++endCol;
        } else if (endCol + 1 >= width && endRow + 1 < lines.count() &&
                   endRow - at.row < maximumExplicitRows && lines[endRow + 1].count() > 0 &&
                   carries(endRow + 1, 0)) {
            ++endRow;
            endCol = 0;
        } else {
            break;
        }
    }

    LinkMatch match;
    match.text = std::move(parsed->second);
    match.row = at.row;
    match.isExplicit = true;
    for (int row = startRow; row <= endRow; ++row) {
        const BufferLine& line = lines[row];
        int from = row == startRow ? startCol : 0;
        int to = row == endRow ? endCol + 1 : line.count();
        if (row == endRow && to < line.count() && line[to].width == 0) ++to;
        // Blank cells after the text, marked when the link ran on past a line end, are no part
        // of what the view underlines.
        while (to > from + 1 && line[to - 1].code == 0 && line[to - 1].width != 0)
            --to;
        match.rowRanges.push_back({row, {from, to}});
        if (row == at.row) match.range = {from, to};
    }
    return match;
}

std::optional<Terminal::LinkMatch> Terminal::implicitLinkMatch(Position at) {
    const Regex* pattern = implicitLinkPattern();
    if (pattern == nullptr || at.row < 0 || at.row >= buffer->lines.count()) return std::nullopt;
    LinkScanner scanner(*this);
    auto [first, last] = scanner.heuristicImplicitGroup(at.row);
    auto map = scanner.buildImplicitLineMap(first, last);
    auto under = std::find_if(map.cells.begin(), map.cells.end(), [&](const ImplicitCellRef& ref) {
        return ref.row == at.row && at.col >= ref.col && at.col < ref.col + ref.width;
    });
    if (under == map.cells.end()) return std::nullopt;
    const auto index = static_cast<std::size_t>(under - map.cells.begin());
    auto charIndex = [&](std::size_t byte) {
        return static_cast<std::size_t>(std::lower_bound(map.byteStarts.begin(), map.byteStarts.end(), byte) -
                                        map.byteStarts.begin());
    };

    std::size_t from = 0;
    while (auto m = pattern->find(map.text, from)) {
        std::size_t firstChar = charIndex(m->start);
        if (firstChar > index) break;
        if (m->end == m->start) {
            if (firstChar + 1 >= map.byteStarts.size()) break;
            from = map.byteStarts[firstChar + 1];
            continue;
        }
        from = m->end;
        std::size_t end = trimmedEnd(map.text, m->start, m->end);
        std::size_t endChar = charIndex(end);
        if (index >= endChar) continue;
        std::string_view text = std::string_view(map.text).substr(m->start, end - m->start);
        if (suppressUnlikelyMatch(text)) continue;

        LinkMatch match;
        match.text = std::string(text);
        match.row = at.row;
        for (std::size_t i = firstChar; i < endChar; ++i) {
            const ImplicitCellRef& ref = map.cells[i];
            if (match.rowRanges.empty() || match.rowRanges.back().row != ref.row)
                match.rowRanges.push_back({ref.row, {ref.col, ref.col + ref.width}});
            else
                match.rowRanges.back().range.end = ref.col + ref.width;
        }
        for (const RowRange& r : match.rowRanges)
            if (r.row == at.row) match.range = r.range;
        return match;
    }
    return std::nullopt;
}

} // namespace TerminalEngine
