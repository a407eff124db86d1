// The print path: UTF-8 decoding, character sets, widths, clusters and placing cells. Every
// print run of the parser comes through handlePrint; ASCII takes a copy-free fast path.
#include "TerminalEngine/Model/ByteScan.h"
#include "TerminalEngine/Model/UnicodeUtil.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

namespace TerminalEngine {
namespace {

constexpr char32_t replacementCharacter = 0xFFFD;
constexpr char32_t zeroWidthJoiner = 0x200D;
constexpr char32_t textPresentation = 0xFE0E;
constexpr char32_t emojiPresentation = 0xFE0F;

struct Decoded {
    char32_t scalar;
    std::size_t length; // bytes consumed
    bool incomplete;    // the sequence runs past the end of the input
};

// Decodes one scalar with the lead-byte table; malformed input gives U+FFFD for the maximal
// ill-formed prefix, as UTF-8 decoders do.
Decoded decodeUtf8(const std::uint8_t* p, std::size_t n) {
    std::uint8_t entry = UnicodeUtil::utf8LeadTable[p[0]];
    int length = UnicodeUtil::sequenceLength(entry);
    if (length == 0) return {p[0], 1, false};
    if (length < 2 || length > 4) return {replacementCharacter, 1, false};
    if (n < 2) return {0, 0, true};
    if (!UnicodeUtil::utf8SecondByteOk(entry, p[1])) return {replacementCharacter, 1, false};
    char32_t scalar = p[0] & (0x7F >> length);
    scalar = (scalar << 6) | (p[1] & 0x3F);
    for (int k = 2; k < length; ++k) {
        if (static_cast<std::size_t>(k) >= n) return {0, 0, true};
        if ((p[k] & 0xC0) != 0x80) return {replacementCharacter, static_cast<std::size_t>(k), false};
        scalar = (scalar << 6) | (p[k] & 0x3F);
    }
    return {scalar, static_cast<std::size_t>(length), false};
}

char32_t firstScalar(std::string_view text) {
    if (text.empty()) return 0;
    auto d = decodeUtf8(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    return d.incomplete ? replacementCharacter : d.scalar;
}

// The last scalar of a UTF-8 string (which is known to be well formed).
char32_t lastScalar(std::string_view text) {
    if (text.empty()) return 0;
    std::size_t start = text.size() - 1;
    while (start > 0 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80)
        --start;
    return firstScalar(text.substr(start));
}

std::size_t scalarCount(std::string_view text) {
    std::size_t count = 0;
    for (char c : text)
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++count;
    return count;
}

} // namespace

void Terminal::handlePrint(ByteSpan data) {
    decodeAndPrint(data);
    refreshPrintPath();
}

void Terminal::decodeAndPrint(ByteSpan data) {
    const std::uint8_t* p = data.data();
    std::size_t n = data.size();
    std::size_t i = 0;
    if (!putbackBuffer_.empty()) {
        // Finish the sequence the last run ended inside of.
        std::uint8_t joined[8];
        std::size_t held = std::min<std::size_t>(putbackBuffer_.size(), 4);
        std::copy_n(putbackBuffer_.begin(), held, joined);
        std::size_t take = std::min<std::size_t>(n, 4);
        std::copy_n(p, take, joined + held);
        Decoded d = decodeUtf8(joined, held + take);
        if (d.incomplete) {
            putbackBuffer_.assign(joined, joined + held + take);
            return;
        }
        putbackBuffer_.clear();
        if (d.length <= held) {
            // The held bytes were a malformed prefix on their own; the new run starts fresh.
            printScalar(d.scalar);
        } else {
            printScalar(d.scalar);
            i = d.length - held;
        }
    }

    while (i < n) {
        std::uint8_t byte = p[i];
        if (byte < 0x80) {
            if (charset == nullptr) {
                std::size_t j = ByteScan::firstNonPrintableAscii(p, i, n);
                if (j > i) {
                    printAsciiRun(p + i, j - i);
                    i = j;
                } else {
                    ++i; // DEL and other controls have no width
                }
                continue;
            }
            if (byte >= 0x20 && byte < 0x7F) {
                std::string_view mapped = (*charset)[byte];
                if (!mapped.empty())
                    printScalar(firstScalar(mapped));
                else
                    printAsciiRun(p + i, 1);
            }
            ++i;
            continue;
        }
        // Two- and three-byte forms that are well formed (no overlong form, no surrogate) are
        // decoded in place; everything else, the incomplete tail included, takes the decoder.
        if (i + 2 < n && (p[i + 1] & 0xC0) == 0x80) {
            if (byte >= 0xC2 && byte < 0xE0) {
                printScalar((static_cast<char32_t>(byte & 0x1F) << 6) | (p[i + 1] & 0x3F));
                i += 2;
                continue;
            }
            if ((byte & 0xF0) == 0xE0 && (p[i + 2] & 0xC0) == 0x80) {
                const char32_t scalar = (static_cast<char32_t>(byte & 0x0F) << 12) |
                                        (static_cast<char32_t>(p[i + 1] & 0x3F) << 6) | (p[i + 2] & 0x3F);
                if (scalar >= 0x800 && (scalar < 0xD800 || scalar > 0xDFFF)) {
                    printScalar(scalar);
                    i += 3;
                    continue;
                }
            }
        }
        Decoded d = decodeUtf8(p + i, n - i);
        if (d.incomplete) {
            putbackBuffer_.assign(p + i, p + n);
            return;
        }
        printScalar(d.scalar);
        i += d.length;
    }
}

void Terminal::wrapToNextLine() {
    Buffer& b = *buffer;
    if (b.y == b.scrollBottom) {
        scroll(true);
    } else if (b.y < rows - 1) {
        ++b.y;
        lineAt(b.y).isWrapped = true;
    }
    b.x = leftEdge();
}

void Terminal::repairWideCharacterAt(BufferLine& line, int col) {
    // Writing over either half of a wide character leaves nothing of it.
    if (col <= 0 || col >= line.count()) return;
    if (line[col].width == 0 && line[col - 1].width == 2) line.set(col - 1, eraseCell());
}

void Terminal::printAsciiMapped(const std::uint8_t* text, std::size_t count) {
    if (charset != nullptr || !putbackBuffer_.empty())
        handlePrint(ByteSpan(text, count));
    else
        printAsciiRun(text, count);
}

void Terminal::printAsciiRun(const std::uint8_t* text, std::size_t count) {
    Buffer& b = *buffer;
    while (count > 0) {
        int right = rightEdge();
        if (b.x > right) {
            if (wraparound) {
                wrapToNextLine();
                right = rightEdge();
            } else {
                b.x = right;
            }
        }
        BufferLine& line = lineAt(b.y);
        const int x = b.x;
        const std::size_t space = static_cast<std::size_t>(right - x + 1);
        // Without autowrap, text past the edge keeps landing on the last column, so of the overflow
        // only its final byte remains there.
        const bool overflowHeld = !wraparound && count > space;
        const std::size_t chunk = count < space ? count : space;
        if (insertMode) line.insertCells(x, static_cast<int>(chunk), right, eraseCell());
        CharData* cells = line.mutableCells(x + static_cast<int>(chunk) + 1);
        if (cells[x].width == 0 && x > 0) repairWideCharacterAt(line, x);
        storeAsciiCells(cells + x, curAttr, text, chunk);
        const int end = x + static_cast<int>(chunk);
        if (overflowHeld) cells[end - 1].code = text[count - 1];
        if (end < line.count() && cells[end].width == 0) cells[end] = eraseCell();
        line.touch();
        updateRange(b.y);
        lastPrintedCode_ = cells[end - 1].code;
        lastPrintedWidth_ = 1;
        if (overflowHeld) {
            b.x = right + 1;
            return;
        }
        b.x = end;
        text += chunk;
        count -= chunk;
    }
}

void Terminal::placeCharacter(std::int32_t code, int width) {
    Buffer& b = *buffer;
    int right = rightEdge();
    if (placeInside(code, width, right)) return;
    if (b.x + width - 1 > right) {
        if (wraparound) {
            wrapToNextLine();
            right = rightEdge();
        } else {
            b.x = std::max(right - width + 1, leftEdge());
        }
    }
    BufferLine& line = lineAt(b.y);
    int x = b.x;
    if (x + width > line.count()) width = line.count() - x; // a wide character in a one-column margin
    if (width <= 0) return;
    if (insertMode) line.insertCells(x, width, right, eraseCell());
    repairWideCharacterAt(line, x);
    CharData* cells = line.mutableCells(x + width + 1);
    storeCell(cells + x, curAttr, code, static_cast<std::int8_t>(width));
    if (width == 2) storeCell(cells + x + 1, curAttr, 0, 0);
    int end = x + width;
    if (end < line.count() && cells[end].width == 0) cells[end] = eraseCell();
    line.touch();
    updateRange(b.y);
    b.x = end;
    lastPrintedCode_ = code;
    lastPrintedWidth_ = width;
}

bool Terminal::combineWithPrevious(char32_t scalar, int width) {
    Buffer& b = *buffer;
    int px = std::min(b.x, cols) - 1;
    int py = b.y;
    if (px < 0) {
        // At column 0 after a wrap, the previous cell ends the line above.
        if (py > 0 && lineAt(py).isWrapped) {
            --py;
            px = cols - 1;
        } else {
            return false;
        }
    }
    BufferLine* line = &lineAt(py);
    if ((*line)[px].width == 0 && px > 0) --px;
    CharData cell = (*line)[px];
    if (cell.code == 0) return false;

    // The same mark keeps landing on the same base (accents in a language, a skin tone): the
    // cluster code is remembered rather than hashed again. Codes are never reused, so a
    // remembered one stays right.
    CombineMemo& memo = combineMemo_[(static_cast<std::uint32_t>(cell.code) * 31u + scalar) & 63u];
    if (memo.base != cell.code || memo.scalar != scalar) {
        scratch_.clear();
        graphemes.appendCharacter(cell.code, scratch_);
        GraphemeTable::appendUtf8(scalar, scratch_);
        memo = {cell.code, scalar, graphemes.code(scratch_)};
    }
    // Only the presentation selectors look at the first scalar of the cluster.
    char32_t base = 0;
    if (scalar == emojiPresentation || scalar == textPresentation) {
        if (cell.code < CharData::firstGraphemeIndex) {
            base = static_cast<char32_t>(cell.code);
        } else {
            scratch_.clear();
            graphemes.appendCharacter(cell.code, scratch_);
            base = firstScalar(scratch_);
        }
    }
    cell.code = memo.code;

    CharData* cells = line->mutableCells(px + 3);
    bool cursorAfterCell = py == b.y && b.x == px + cell.width;
    bool widen = (scalar == emojiPresentation && cell.width == 1 && UnicodeUtil::isEmojiPresentation(base)) ||
                 (width == 2 && cell.width == 1);
    if (widen && px + 1 < cols) {
        cell.width = 2;
        cells[px] = cell;
        cells[px + 1] = CharData(cell.attribute, 0, 0);
        if (px + 2 < cols && cells[px + 2].width == 0) cells[px + 2] = eraseCell();
        if (cursorAfterCell) b.x = px + 2;
    } else if (scalar == textPresentation && cell.width == 2 && UnicodeUtil::isEmojiPresentation(base)) {
        cell.width = 1;
        cells[px] = cell;
        if (px + 1 < cols) cells[px + 1] = eraseCell();
        if (cursorAfterCell) b.x = px + 1;
    } else {
        cells[px] = cell;
    }
    line->touch();
    updateRange(py);
    lastPrintedCode_ = cell.code;
    lastPrintedWidth_ = cell.width;
    return true;
}

int Terminal::columnWidth(char32_t scalar) {
    // Hashed rather than the low byte: scripts that sit on block boundaries (box drawing at
    // U+2500, Hangul at U+AE00, emoji at U+1F600) would otherwise share a slot.
    WidthMemo& memo = widthMemo_[(scalar * 0x9E3779B1u) >> 24];
    if (memo.scalar != scalar) memo = {scalar, static_cast<std::int8_t>(UnicodeUtil::columnWidth(scalar))};
    return memo.width;
}

std::int32_t Terminal::supplementaryCode(char32_t scalar) {
    // Codes are never reused while the terminal lives, so a remembered one stays right.
    CodeMemo& memo = codeMemo_[scalar & 0x3F];
    if (memo.scalar != scalar) {
        scratch_.clear();
        GraphemeTable::appendUtf8(scalar, scratch_);
        memo = {scalar, graphemes.code(scratch_)};
    }
    return memo.code;
}

void Terminal::printScalar(char32_t scalar) {
    int width = columnWidth(scalar);
    if (width < 0) return;

    // Does this scalar continue the cluster of the previous cell?
    bool joins = width == 0;
    if (!joins) {
        Buffer& b = *buffer;
        int px = std::min(b.x, cols) - 1;
        if (px >= 0) {
            BufferLine& line = lineAt(b.y);
            if (line[px].width == 0 && px > 0) --px;
            std::int32_t previous = line[px].code;
            if (previous >= CharData::firstGraphemeIndex) {
                ClusterMemo& memo = clusterMemo_[static_cast<std::uint32_t>(previous) & 63u];
                if (memo.code != previous) {
                    scratch_.clear();
                    graphemes.appendCharacter(previous, scratch_);
                    memo = {previous, lastScalar(scratch_) == zeroWidthJoiner,
                            scalarCount(scratch_) == 1 &&
                                UnicodeUtil::isRegionalIndicator(firstScalar(scratch_))};
                }
                if (memo.endsWithJoiner)
                    joins = true;
                else if (memo.loneRegionalIndicator && UnicodeUtil::isRegionalIndicator(scalar))
                    joins = true; // the second half of a flag
            }
        }
    }
    if (joins) {
        if (combineWithPrevious(scalar, width)) return;
        if (width == 0) {
            // A mark with nothing before it sits on a blank of its own.
            scratch_.assign(" ");
            GraphemeTable::appendUtf8(scalar, scratch_);
            placeCharacter(graphemes.code(scratch_), 1);
            return;
        }
    }

    std::int32_t code = scalar < 0x10000 ? static_cast<std::int32_t>(scalar) : supplementaryCode(scalar);
    if (UnicodeUtil::isRegionalIndicator(scalar) &&
        options.regionalIndicatorWidth == RegionalIndicatorWidth::narrow)
        width = 1;
    if (placeInside(code, width, rightEdge())) return;
    placeCharacter(code, width);
}

void Terminal::cmdRepeatPrecedingCharacter(Params pars) {
    Buffer& b = *buffer;
    std::int64_t requested = pars.empty() || pars[0] == 0 ? 1 : pars[0];
    // A hostile count must not spin: never more than two screenfuls.
    std::int64_t count = std::min<std::int64_t>(requested, static_cast<std::int64_t>(cols) * rows * 2);
    int px = std::min(b.x, cols) - 1;
    std::int32_t code;
    int width;
    if (px >= 0) {
        BufferLine& line = lineAt(b.y);
        if (line[px].width == 0 && px > 0) --px;
        code = line[px].code;
        width = std::max<int>(line[px].width, 1);
    } else {
        code = lastPrintedCode_;
        width = lastPrintedWidth_;
    }
    if (code == 0) return;
    if (code < 0x7F && code >= 0x20) {
        std::uint8_t byte = static_cast<std::uint8_t>(code);
        for (std::int64_t k = 0; k < count; ++k)
            printAsciiRun(&byte, 1);
    } else {
        for (std::int64_t k = 0; k < count; ++k)
            placeCharacter(code, width);
    }
}

} // namespace TerminalEngine
