// One row of cells. Cells live in one flat allocation owned by the line, so that writes are
// plain stores; `generation` goes up at every write so that renderers can skip unchanged rows.
#pragma once

#include "TerminalEngine/Model/CharData.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace TerminalEngine {

class GraphemeTable;

// An image anchored at a cell of a line (placement is the image layer's business).
struct CellImage {
    std::int32_t col = 0;
    std::int32_t id = 0;
    bool operator==(const CellImage&) const = default;
};

class BufferLine {
public:
    enum class RenderLineMode : std::uint8_t { single, doubleWidth, doubledTop, doubledDown };

    BufferLine(int cols, const CharData& fillData = CharData::Null, bool isWrapped = false);
    BufferLine(const BufferLine& from);
    BufferLine& operator=(const BufferLine&) = delete;

    int count() const { return cols_; }
    int dataSize() const { return dataSize_; }

    // Reading is unchecked beyond a debug assertion; writes go through set() with the guard.
    const CharData& operator[](int col) const { return data_[col]; }
    void set(int col, const CharData& value);

    // Direct access: the caller must call touch() once after writing. mutableData() assumes the
    // whole row may change; mutableCells(end) promises that only columns before `end` will.
    CharData* mutableData() {
        uniformFrom_ = cols_;
        return data_.get();
    }
    CharData* mutableCells(int end) {
        written(end);
        return data_.get();
    }
    const CharData* getData() const { return data_.get(); }
    void touch() { ++generation; }

    void resize(int cols, const CharData& fillData);
    // Fills `count` cells with one value (the fast way to blank a row).
    static void fillCells(CharData* cells, const CharData& value, int count);
    void fill(const CharData& with);
    // A blank line again: every cell `with`, not wrapped, single width, no images.
    void reset(const CharData& with) {
        fill(with);
        isWrapped = false;
        renderMode = RenderLineMode::single;
        images.reset();
    }
    void fill(const CharData& with, int atCol, int len);
    void copyFrom(const BufferLine& line);
    void copyFrom(const BufferLine& line, int srcCol, int dstCol, int len);
    void insertCells(int pos, int n, int rightMargin, const CharData& fillData);
    void deleteCells(int pos, int n, int rightMargin, const CharData& fillData);
    void replaceCells(int start, int end, const CharData& fillData);

    int getWidth(int index) const { return data_[index].width; }
    bool hasContent(int index) const { return data_[index].hasContent(); }
    bool hasAnyContent() const;
    // Every cell from this column to the end holds uniformCell(): what a reader that only wants
    // the content may skip. Conservative: the content may end earlier.
    int uniformFrom() const { return uniformFrom_ < cols_ ? uniformFrom_ : cols_; }
    const CharData& uniformCell() const { return uniformValue_; }
    // Columns up to and including the last cell holding a character (a wide one counts whole).
    int getTrimmedLength() const;

    // Text of the columns [startCol, endCol) (endCol -1 means the whole line). Empty cells read
    // as blanks; with skipNullCellsFollowingWide the right halves of wide characters are left out.
    std::string translateToString(bool trimRight = false, int startCol = 0, int endCol = -1,
                                  bool skipNullCellsFollowingWide = true,
                                  const GraphemeTable* graphemes = nullptr) const;

    bool isWrapped = false;
    RenderLineMode renderMode = RenderLineMode::single;
    CharData fillCharacter = CharData::Null;
    std::unique_ptr<std::vector<CellImage>> images;
    std::uint64_t generation = 0;

private:
    int clampColumn(int col, const char* where) const;
    void written(int end) {
        if (end > uniformFrom_) [[unlikely]]
            uniformFrom_ = end < cols_ ? end : cols_;
    }

    std::unique_ptr<CharData[]> data_;
    int dataSize_ = 0;
    int cols_ = 0;
    // Cells from uniformFrom_ to the end all hold uniformValue_: what a fill need not rewrite.
    int uniformFrom_ = 0;
    CharData uniformValue_ = CharData::Null;
};

} // namespace TerminalEngine
