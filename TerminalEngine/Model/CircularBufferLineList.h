// The ring of lines behind a buffer: scrollback plus screen. Slots fill lazily, so a large
// scrollback costs one pointer per row until it is used; a full ring recycles line objects
// instead of allocating new ones.
#pragma once

#include "TerminalEngine/Model/BufferLine.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace TerminalEngine {

class CircularBufferLineList {
public:
    using MakeEmpty = std::function<std::unique_ptr<BufferLine>(int index)>;

    // A capacity below 1 is raised to 1.
    explicit CircularBufferLineList(int maxLength, MakeEmpty makeEmpty = {});

    int count() const { return count_; }
    // Sets the logical length, within 0..maxLength. Lines cut off are freed; slots newly
    // exposed read as fresh lines from makeEmpty.
    void setCount(int newCount);
    int maxLength() const { return maxLength_; }
    // Changes the capacity (at least 1), keeping the newest lines when it shrinks.
    void setMaxLength(int newMaxLength);
    bool isFull() const { return count_ == maxLength_; }

    // Logical access, 0 is the oldest line. A slot never filled is created through makeEmpty on
    // first read. Indices outside 0..maxLength-1 are reported and clamped.
    // Inline for the print path: an index in range and a filled slot cost one add and a compare.
    BufferLine& operator[](int index) { return fastAt(index); }
    const BufferLine& operator[](int index) const { return fastAt(index); }
    void set(int index, std::unique_ptr<BufferLine> line);

    // Appends a line; on a full ring the oldest line is dropped.
    void push(std::unique_ptr<BufferLine> line);
    // Needs a full ring (stops the process otherwise): drops the oldest line and reuses its
    // object as the new last line, refilled with `attribute` and the wrapped flag.
    BufferLine& recycle(const Attribute& attribute, bool isWrapped);
    // Removes and returns the last line, or null when the ring is empty.
    std::unique_ptr<BufferLine> pop();
    // Drops the `count` oldest lines.
    void trimStart(int count);
    // Moves `count` lines starting at `start` by `offset` (negative: up). The lines that were
    // overwritten are not freed: they land in the slots the move vacated, with stale content,
    // so that region scrolling runs without allocating; callers refill those slots. Moving past
    // the capacity drops the oldest lines from the top, as pushing would.
    void shiftElements(int start, int count, int offset);
    // Removes `deleteCount` lines at `start` and inserts `items` there; when the ring overflows,
    // the oldest lines (inserted ones included) drop from the top.
    void splice(int start, int deleteCount, std::vector<std::unique_ptr<BufferLine>> items);
    void insert(int index, std::unique_ptr<BufferLine> line);
    // Exchanges two lines (the objects, not their cells).
    void swap(int a, int b);
    // Moves the lines `first` to `last` up by `count` places, the first `count` coming round to
    // the end (the objects, not their cells): how a scroll region scrolls. A negative `count`
    // moves them down.
    void rotate(int first, int last, int count);

    int getCyclicIndex(int index) const {
        // Indices nearly always lie within one turn of the ring: a compare, not a division.
        int physical = startIndex_ + index;
        if (physical >= maxLength_) physical -= maxLength_;
        if (static_cast<unsigned>(physical) < static_cast<unsigned>(maxLength_)) return physical;
        physical %= maxLength_;
        return physical < 0 ? physical + maxLength_ : physical;
    }

    // Goes up whenever a line moves, enters or leaves (not when one is written): while it stands
    // still, every index names the same line object as before.
    std::uint64_t layoutGeneration() const { return layoutGeneration_; }

    // Lines in the ring that carry images, counted from scratch (after bulk edits).
    int countLinesWithImages() const;

    // Run when a line leaves through the top of a full ring: reused by recycle, or dropped by
    // push, insert, splice or shiftElements. The flag tells whether it carried images.
    std::function<void(bool hadImages)> onLineRecycled;
    // Run when a line enters through push, insert or splice.
    std::function<void(bool hasImages)> onLinePushed;

private:
    BufferLine& fastAt(int index) const {
        if (static_cast<unsigned>(index) < static_cast<unsigned>(maxLength_)) {
            int physical = startIndex_ + index;
            if (physical >= maxLength_) physical -= maxLength_;
            if (BufferLine* line = array_[static_cast<std::size_t>(physical)].get()) return *line;
        }
        return at(index);
    }
    BufferLine& at(int index) const;
    BufferLine& materialize(int index) const;
    int checkedIndex(int index, const char* where) const;
    std::unique_ptr<BufferLine>& slot(int index) const { return array_[getCyclicIndex(index)]; }
    // Forgets the `n` oldest lines without freeing them: their objects stay in slots past the end.
    void dropOldest(int n);
    void insertLines(int start, std::unique_ptr<BufferLine>* items, int n);
    void reportPushed(const BufferLine* line) const;

    mutable std::vector<std::unique_ptr<BufferLine>> array_;
    int startIndex_ = 0;
    int count_ = 0;
    std::uint64_t layoutGeneration_ = 0;
    int maxLength_ = 0;
    MakeEmpty makeEmpty_;
};

} // namespace TerminalEngine
