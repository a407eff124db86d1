// Cell operations of one line: fills, copies, insertion and deletion inside a right margin.
#include "TerminalEngine/Model/BufferLine.h"

#include "TerminalEngine/Model/GraphemeTable.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace TerminalEngine {
namespace {

// Cells are written by our own print path, but a code that is no scalar must still never turn
// into malformed UTF-8.
bool isScalar(std::int32_t code) {
    return code > 0 && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF);
}

} // namespace

void BufferLine::fillCells(CharData* cells, const CharData& value, int count) {
#if defined(__SSE2__)
    if (count >= 4) {
        // Two cells are 48 bytes, three 16-byte words from registers; four cells repeat from any
        // cell on. The last four end exactly at `count`, overlapping the block before them, so
        // that no branch depends on the remainder.
        static_assert(sizeof(CharData) == 24);
        const auto* in = reinterpret_cast<const unsigned char*>(&value);
        const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
        const __m128i third = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 8));
        const __m128i second = _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(in + 16)),
                                                  _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in)));
        auto put = [&](CharData* at) {
            auto* out = reinterpret_cast<__m128i*>(at);
            _mm_storeu_si128(out, first);
            _mm_storeu_si128(out + 1, second);
            _mm_storeu_si128(out + 2, third);
            _mm_storeu_si128(out + 3, first);
            _mm_storeu_si128(out + 4, second);
            _mm_storeu_si128(out + 5, third);
        };
        for (int k = 0; k + 4 <= count; k += 4)
            put(cells + k);
        put(cells + count - 4);
        return;
    }
#endif
    if (count > 0) std::fill_n(cells, count, value);
}

BufferLine::BufferLine(int cols, const CharData& fillData, bool isWrapped)
    : isWrapped(isWrapped)
    , fillCharacter(fillData)
    , data_(new CharData[static_cast<std::size_t>(std::max(cols, 0))])
    , dataSize_(std::max(cols, 0))
    , cols_(std::max(cols, 0))
    , uniformValue_(fillData) {
    fillCells(data_.get(), fillData, cols_);
}

BufferLine::BufferLine(const BufferLine& from)
    : isWrapped(from.isWrapped)
    , renderMode(from.renderMode)
    , fillCharacter(from.fillCharacter)
    , images(from.images ? std::make_unique<std::vector<CellImage>>(*from.images) : nullptr)
    , generation(from.generation)
    , data_(new CharData[static_cast<std::size_t>(from.cols_)])
    , dataSize_(from.cols_)
    , cols_(from.cols_)
    , uniformFrom_(from.uniformFrom_)
    , uniformValue_(from.uniformValue_) {
    std::copy_n(from.data_.get(), cols_, data_.get());
}

int BufferLine::clampColumn(int col, const char* where) const {
    if (col >= 0 && col < cols_) return col;
    std::fprintf(stderr,
                 "BufferLine: You passed an index out of range, adjusting to prevent crash, but you should "
                 "debug (%s, index %d, cols %d)\n",
                 where, col, cols_);
    return std::clamp(col, 0, std::max(cols_ - 1, 0));
}

void BufferLine::set(int col, const CharData& value) {
    if (cols_ == 0) return;
    col = clampColumn(col, "set");
    data_[col] = value;
    written(col + 1);
    ++generation;
}

void BufferLine::resize(int cols, const CharData& fillData) {
    cols = std::max(cols, 0);
    if (cols == cols_) return;
    if (cols > dataSize_) {
        std::unique_ptr<CharData[]> grown(new CharData[static_cast<std::size_t>(cols)]);
        std::copy_n(data_.get(), cols_, grown.get());
        data_ = std::move(grown);
        dataSize_ = cols;
    }
    if (cols > cols_) {
        fillCells(data_.get() + cols_, fillData, cols - cols_);
        // The new cells are uniform with what follows the old content only if they match it.
        if (!(fillData == uniformValue_) || uniformFrom_ > cols_) {
            uniformFrom_ = cols_;
            uniformValue_ = fillData;
        }
    }
    cols_ = cols;
    uniformFrom_ = std::min(uniformFrom_, cols_);
    // Cutting through a wide character leaves its first half with nothing after it: blank it.
    if (cols_ > 0 && data_[cols_ - 1].width == 2) {
        data_[cols_ - 1] = CharData(fillData.attribute, 0, 1);
        written(cols_);
    }
    ++generation;
}

void BufferLine::fill(const CharData& with) {
    // Only the part written since the last fill with the same value needs writing again: a
    // scrolling terminal blanks each recycled line in proportion to what it held. Same bytes is
    // a stricter test than equality (a cleared underline colour keeps its old bytes), and three
    // word compares instead of one per field.
    const bool same = std::memcmp(&with, &uniformValue_, sizeof(CharData)) == 0;
    fillCells(data_.get(), with, same ? uniformFrom_ : cols_);
    uniformValue_ = with;
    uniformFrom_ = 0;
    ++generation;
}

void BufferLine::fill(const CharData& with, int atCol, int len) {
    int start = std::clamp(atCol, 0, cols_);
    int end = start + std::clamp(len, 0, cols_ - start);
    fillCells(data_.get() + start, with, end - start);
    written(end);
    ++generation;
}

void BufferLine::copyFrom(const BufferLine& line) {
    if (dataSize_ < line.cols_) {
        data_.reset(new CharData[static_cast<std::size_t>(line.cols_)]);
        dataSize_ = line.cols_;
    }
    std::copy_n(line.data_.get(), line.cols_, data_.get());
    cols_ = line.cols_;
    uniformFrom_ = line.uniformFrom_;
    uniformValue_ = line.uniformValue_;
    isWrapped = line.isWrapped;
    renderMode = line.renderMode;
    images = line.images ? std::make_unique<std::vector<CellImage>>(*line.images) : nullptr;
    ++generation;
}

void BufferLine::copyFrom(const BufferLine& line, int srcCol, int dstCol, int len) {
    if (srcCol < 0 || dstCol < 0 || len <= 0) return;
    len = std::min({len, line.cols_ - srcCol, cols_ - dstCol});
    if (len <= 0) return;
    // std::copy would be wrong for an overlapping move inside one line.
    std::memmove(static_cast<void*>(data_.get() + dstCol), line.data_.get() + srcCol,
                 static_cast<std::size_t>(len) * sizeof(CharData));
    written(dstCol + len);
    ++generation;
}

void BufferLine::insertCells(int pos, int n, int rightMargin, const CharData& fillData) {
    uniformFrom_ = cols_; // edits anywhere in the row
    if (cols_ == 0 || n <= 0) return;
    pos = clampColumn(pos, "insertCells");
    int right = std::clamp(rightMargin, pos, cols_ - 1);
    const CharData blank(fillData.attribute, 0, 1);
    // Inserting inside a wide character breaks it: both halves become blanks.
    if (pos > 0 && data_[pos - 1].width == 2) data_[pos - 1] = data_[pos] = blank;
    // A wide character straddling the margin is pushed out whole, its right half with it.
    if (right + 1 < cols_ && data_[right].width == 2) data_[right + 1] = blank;
    int span = right - pos + 1;
    if (n < span) {
        std::copy_backward(data_.get() + pos, data_.get() + right + 1 - n, data_.get() + right + 1);
        fillCells(data_.get() + pos, fillData, n);
    } else {
        fillCells(data_.get() + pos, fillData, span);
    }
    // A wide character pushed against the margin loses its right half: blank it whole.
    if (data_[right].width == 2) data_[right] = blank;
    ++generation;
}

void BufferLine::deleteCells(int pos, int n, int rightMargin, const CharData& fillData) {
    uniformFrom_ = cols_; // edits anywhere in the row
    if (cols_ == 0 || n <= 0) return;
    pos = clampColumn(pos, "deleteCells");
    int right = std::clamp(rightMargin, pos, cols_ - 1);
    const CharData blank(fillData.attribute, 0, 1);
    // A wide character straddling the margin cannot move with the cells inside: blank it.
    if (right + 1 < cols_ && data_[right].width == 2) data_[right] = data_[right + 1] = blank;
    int span = right - pos + 1;
    if (n < span) {
        std::copy(data_.get() + pos + n, data_.get() + right + 1, data_.get() + pos);
        fillCells(data_.get() + right + 1 - n, fillData, n);
    } else {
        fillCells(data_.get() + pos, fillData, span);
    }
    // Deleting half of a wide character leaves nothing of it.
    if (pos > 0 && data_[pos - 1].width == 2) data_[pos - 1] = blank;
    if (data_[pos].width == 0) data_[pos] = blank;
    ++generation;
}

void BufferLine::replaceCells(int start, int end, const CharData& fillData) {
    uniformFrom_ = cols_; // edits anywhere in the row
    start = std::clamp(start, 0, cols_);
    end = std::clamp(end, start, cols_);
    if (start == end) return;
    // Erasing one half of a wide character erases the other half too.
    if (start > 0 && data_[start - 1].width == 2) data_[start - 1] = fillData;
    if (end < cols_ && data_[end].width == 0) data_[end] = fillData;
    fillCells(data_.get() + start, fillData, end - start);
    ++generation;
}

bool BufferLine::hasAnyContent() const {
    for (int i = 0; i < cols_; ++i)
        if (data_[i].hasContent()) return true;
    return false;
}

int BufferLine::getTrimmedLength() const {
    for (int i = cols_ - 1; i >= 0; --i) {
        const CharData& cell = data_[i];
        if (cell.code != 0) return std::min(i + std::max<int>(cell.width, 1), cols_);
    }
    return 0;
}

std::string BufferLine::translateToString(bool trimRight, int startCol, int endCol,
                                          bool skipNullCellsFollowingWide,
                                          const GraphemeTable* graphemes) const {
    if (endCol < 0 || endCol > cols_) endCol = cols_;
    if (trimRight) endCol = std::min(endCol, getTrimmedLength());
    startCol = std::clamp(startCol, 0, std::max(endCol, 0));
    std::string out;
    out.reserve(static_cast<std::size_t>(endCol - startCol));
    for (int i = startCol; i < endCol; ++i) {
        const CharData& cell = data_[i];
        if (cell.code == 0) {
            if (cell.width == 0 && skipNullCellsFollowingWide) continue;
            out.push_back(' ');
        } else if (cell.code > 0 && cell.code < 0x80) {
            out.push_back(static_cast<char>(cell.code));
        } else if (graphemes) {
            graphemes->appendCharacter(cell.code, out);
        } else if (isScalar(cell.code)) {
            GraphemeTable::appendUtf8(static_cast<char32_t>(cell.code), out);
        } else {
            out.push_back(' ');
        }
    }
    return out;
}

} // namespace TerminalEngine
