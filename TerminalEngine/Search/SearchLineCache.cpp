// Lines of the buffer as strings with their cell map, cached per line start and checked against
// the lines' generations, so that a warm search reads no cell at all.
#include "TerminalEngine/Search/SearchLineCache.h"

#include "TerminalEngine/Model/CellScalars.h"
#include "TerminalEngine/Model/UnicodeUtil.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <chrono>

#include <utf8proc.h>

namespace TerminalEngine {
namespace {

double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::size_t utf8Length(unsigned char lead) {
    return static_cast<std::size_t>(UnicodeUtil::characterLength(lead));
}

} // namespace

SearchLineCache::CharOffset SearchLineCache::Line::cellAt(std::size_t byte) const {
    if (offsets.empty()) {
        int width = std::max(rowWidth, 1);
        auto index = static_cast<int>(byte);
        // The end of a text that fills its last row lies past that row, not on the next one.
        if (byte == lineAsString.size() && index > 0 && index % width == 0)
            return {static_cast<std::uint32_t>(byte), (index - 1) / width, width, 0};
        return {static_cast<std::uint32_t>(byte), index / width, index % width, 1};
    }
    auto it = std::lower_bound(offsets.begin(), offsets.end(), byte,
                               [](const CharOffset& o, std::size_t b) { return o.byte < b; });
    if (it == offsets.end()) {
        if (offsets.empty()) return {};
        const CharOffset& last = offsets.back();
        return {static_cast<std::uint32_t>(byte), last.row, last.col + last.width, 0};
    }
    return *it;
}

int SearchLineCache::Line::cellsBetween(std::size_t start, std::size_t end) const {
    if (end <= start) return 0;
    if (offsets.empty()) return static_cast<int>(end - start);
    auto from = std::lower_bound(offsets.begin(), offsets.end(), start,
                                 [](const CharOffset& o, std::size_t b) { return o.byte < b; });
    int cells = 0;
    for (auto it = from; it != offsets.end() && it->byte < end; ++it)
        cells += it->width;
    return cells;
}

SearchLineCache::SearchLineCache(Terminal& terminal, Clock clock)
    : terminal(terminal)
    , clock_(clock ? std::move(clock) : Clock(steadySeconds)) {}

void SearchLineCache::clear() {
    linesCache.reset();
    buffer_ = nullptr;
    blocks_.clear();
    blockUsed_ = blockCapacity_ = storedBytes_ = staleBytes_ = 0;
}

void SearchLineCache::touch() {
    double now = clock_();
    const Buffer* buffer = terminal.buffer;
    auto count = static_cast<std::size_t>(buffer->lines.count());
    if (!linesCache || now - lastAccessTimestamp >= lifetimeSeconds || linesCache->size() != count ||
        buffer_ != buffer) {
        clear();
        linesCache.emplace(count);
        buffer_ = buffer;
    }
    lastAccessTimestamp = now;
}

std::string_view SearchLineCache::store(std::string_view text) {
    if (text.empty()) return {};
    if (blockCapacity_ - blockUsed_ < text.size()) {
        blockCapacity_ = std::max(blockSize, text.size());
        blocks_.push_back(std::make_unique<char[]>(blockCapacity_));
        blockUsed_ = 0;
    }
    char* at = blocks_.back().get() + blockUsed_;
    std::copy(text.begin(), text.end(), at);
    blockUsed_ += text.size();
    storedBytes_ += text.size();
    return {at, text.size()};
}

bool SearchLineCache::isCurrent(const Line& line, int row) const {
    const auto& lines = terminal.buffer->lines;
    if (row + line.rowCount > lines.count()) return false;
    const BufferLine& head = lines[row];
    if (&head != line.first.line || head.generation != line.first.generation) return false;
    for (int k = 1; k < line.rowCount; ++k) {
        const BufferLine& next = lines[row + k];
        const Line::RowStamp& stamp = line.rest[static_cast<std::size_t>(k - 1)];
        if (&next != stamp.line || next.generation != stamp.generation || !next.isWrapped) return false;
    }
    // A row that has since wrapped on into the next one makes the line longer.
    int after = row + line.rowCount;
    return after >= lines.count() || !lines[after].isWrapped;
}

void SearchLineCache::refreshLayout() {
    const Buffer& b = *terminal.buffer;
    Layout now{&b, b.lines.layoutGeneration(), b.yBase, terminal.cols, terminal.rows};
    if (now == layout_) return;
    layout_ = now;
    ++epoch_;
}

SearchLineCache::Line* SearchLineCache::line(int row) {
    if (!linesCache) touch();
    const auto& lines = terminal.buffer->lines;
    if (row < 0 || row >= lines.count() || static_cast<std::size_t>(row) >= linesCache->size())
        return nullptr;
    refreshLayout();
    std::optional<Line>& slot = (*linesCache)[static_cast<std::size_t>(row)];
    // A line of the scrollback checked since the lines last moved is current without reading
    // its rows again: on a long scrollback those reads, not the matching, are what a warm search
    // would spend its time on. The row after it must lie in the scrollback too, or it could
    // have wrapped on into the screen since.
    if (slot && slot->checkedEpoch == epoch_ && row + std::max(slot->rowCount, 1) < layout_.yBase)
        return slot->continuation ? nullptr : &*slot;
    // The first row of the buffer starts a line even when its beginning scrolled away.
    if (row > 0 && lines[row].isWrapped) {
        if (!slot || !slot->continuation) {
            if (slot) staleBytes_ += slot->lineAsString.size() + slot->folded.size();
            slot.emplace();
            slot->continuation = true;
        }
        slot->checkedEpoch = epoch_;
        return nullptr;
    }
    if (slot && !slot->continuation && isCurrent(*slot, row)) {
        slot->checkedEpoch = epoch_;
        return &*slot;
    }
    if (slot) {
        staleBytes_ += slot->lineAsString.size() + slot->folded.size();
        if (staleBytes_ > staleLimit && staleBytes_ > storedBytes_ / 2) {
            auto count = linesCache->size();
            clear();
            linesCache.emplace(count);
            buffer_ = terminal.buffer;
        }
    }
    std::optional<Line>& fresh = (*linesCache)[static_cast<std::size_t>(row)];
    fresh = build(row);
    fresh->checkedEpoch = epoch_;
    return &*fresh;
}

SearchLineCache::Line SearchLineCache::build(int row) {
    const auto& lines = terminal.buffer->lines;
    const GraphemeTable& graphemes = terminal.graphemes;
    Line out;
    int last = row;
    while (last + 1 < lines.count() && lines[last + 1].isWrapped)
        ++last;
    out.rowCount = last - row + 1;
    out.rowWidth = lines[row].count();
    out.first = {&lines[row], lines[row].generation};
    if (out.rowCount > 1) out.rest.reserve(static_cast<std::size_t>(out.rowCount - 1));
    std::string& text = scratch_;
    text.clear();
    bool identity = true;
    auto leaveIdentity = [&] {
        // Every character so far was one byte in one cell, row after row.
        identity = false;
        int width = std::max(out.rowWidth, 1);
        out.offsets.reserve(text.size() + 16);
        for (std::size_t i = 0; i < text.size(); ++i) {
            auto index = static_cast<int>(i);
            out.offsets.push_back({static_cast<std::uint32_t>(i), index / width, index % width, 1});
        }
    };

    for (int r = row; r <= last; ++r) {
        const BufferLine& line = lines[r];
        if (r > row) out.rest.push_back({&line, line.generation});
        const CharData* cells = line.getData();
        int to = line.count();
        if (r < last && to > 0 && cells[to - 1].code == 0 && lines[r + 1].count() > 0 &&
            lines[r + 1][0].width == 2)
            to -= 1; // the column a wide character could not fill before it wrapped
        if (identity && (line.count() != out.rowWidth || (r < last && to != line.count()))) leaveIdentity();
        // Empty cells after the text of the last row are dropped below; the line knows where
        // they begin, which spares reading them (most of a cold search is reading cells).
        if (r == last && !line.uniformCell().hasContent()) to = std::min(to, line.uniformFrom());
        // On the last row, empty cells after the text are no part of it.
        std::size_t rowStart = text.size(), contentEnd = text.size();
        int c = 0;
        if (identity) {
            // The common case, one ASCII character per cell, as a tight loop over the row.
            text.resize(rowStart + static_cast<std::size_t>(to));
            char* dst = text.data() + rowStart;
            int lastContent = 0;
            for (; c < to; ++c) {
                std::int32_t code = cells[c].code;
                if (static_cast<std::uint32_t>(code) >= 0x80 || cells[c].width != 1) break;
                dst[c] = code == 0 ? ' ' : static_cast<char>(code);
                lastContent = code != 0 ? c + 1 : lastContent;
            }
            text.resize(rowStart + static_cast<std::size_t>(c));
            contentEnd = rowStart + static_cast<std::size_t>(lastContent);
        }
        for (; c < to; ++c) {
            const CharData& cell = cells[c];
            std::int32_t code = cell.code;
            if (identity) {
                if (code >= 0 && code < 0x80 && cell.width == 1) {
                    text.push_back(code == 0 ? ' ' : static_cast<char>(code));
                    if (code != 0) contentEnd = text.size();
                    continue;
                }
                leaveIdentity();
            }
            if (cell.width == 0) continue;
            out.offsets.push_back(
                {static_cast<std::uint32_t>(text.size()), r - row, c, std::max<int>(cell.width, 1)});
            CellScalars::appendText(cell, graphemes, text);
            if (code != 0) contentEnd = text.size();
        }
        if (r == last) {
            text.resize(std::max(contentEnd, rowStart));
            while (!out.offsets.empty() && out.offsets.back().byte >= text.size())
                out.offsets.pop_back();
        }
    }
    out.lineAsString = store(text);
    return out;
}

std::string SearchLineCache::foldText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        auto b = static_cast<unsigned char>(text[i]);
        if (b < 0x80) {
            out.push_back(b >= 'A' && b <= 'Z' ? static_cast<char>(b + 32) : static_cast<char>(b));
            ++i;
            continue;
        }
        utf8proc_int32_t c = 0;
        utf8proc_ssize_t n = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data() + i),
                                              static_cast<utf8proc_ssize_t>(text.size() - i), &c);
        if (n <= 0) {
            out.push_back(text[i++]);
            continue;
        }
        utf8proc_int32_t folded[8];
        int boundclass = 0;
        utf8proc_ssize_t count = utf8proc_decompose_char(c, folded, 8, UTF8PROC_CASEFOLD, &boundclass);
        if (count <= 0 || count > 8) {
            out.append(text.substr(i, static_cast<std::size_t>(n)));
        } else {
            for (utf8proc_ssize_t k = 0; k < count; ++k)
                GraphemeTable::appendUtf8(static_cast<char32_t>(folded[k]), out);
        }
        i += static_cast<std::size_t>(n);
    }
    return out;
}

void SearchLineCache::fold(Line& line) {
    if (line.foldedReady) return;
    line.foldedReady = true;
    std::string_view text = line.lineAsString;
    std::string& folded = scratch_;
    folded.clear();
    bool ascii =
        std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (ascii) {
        folded.resize(text.size());
        std::transform(text.begin(), text.end(), folded.begin(),
                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    } else {
        line.foldedToOriginal.reserve(text.size() + 1);
        std::size_t i = 0;
        while (i < text.size()) {
            std::size_t n = std::min(utf8Length(static_cast<unsigned char>(text[i])), text.size() - i);
            std::size_t before = folded.size();
            folded += foldText(text.substr(i, n));
            line.foldedToOriginal.insert(line.foldedToOriginal.end(), folded.size() - before,
                                         static_cast<std::uint32_t>(i));
            i += n;
        }
        line.foldedToOriginal.push_back(static_cast<std::uint32_t>(text.size()));
    }
    line.folded = store(folded);
}

} // namespace TerminalEngine
