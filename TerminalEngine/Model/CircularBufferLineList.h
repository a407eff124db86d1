// The ring of lines behind a buffer: scrollback plus screen. Slots fill lazily, so a large
// scrollback costs one pointer per row until it is used; a full ring recycles line objects
// instead of allocating new ones.
#pragma once

#include "TerminalEngine/Model/BufferLine.h"

#include <functional>
#include <memory>
#include <vector>

namespace TerminalEngine {

class CircularBufferLineList {
public:
    using MakeEmpty = std::function<std::unique_ptr<BufferLine>(int index)>;

    explicit CircularBufferLineList(int maxLength, MakeEmpty makeEmpty = {});

    int count() const { return count_; }
    // Lowers the logical length (never raises it past what was pushed).
    void setCount(int newCount);
    int maxLength() const { return maxLength_; }
    // Changes the capacity, keeping the newest lines when it shrinks.
    void setMaxLength(int newMaxLength);
    bool isFull() const { return count_ == maxLength_; }

    // Logical access; a slot never filled is created through makeEmpty on first read.
    BufferLine& operator[](int index);
    const BufferLine& operator[](int index) const;
    void set(int index, std::unique_ptr<BufferLine> line);

    void push(std::unique_ptr<BufferLine> line);
    // Needs a full ring (stops the process otherwise): drops the oldest line and reuses its
    // object as the new last line, refilled with `attribute` and the wrapped flag.
    BufferLine& recycle(const Attribute& attribute, bool isWrapped);
    std::unique_ptr<BufferLine> pop();
    void trimStart(int count);
    // Moves `count` lines starting at `start` by `offset` (negative: up). Lines moved past the
    // end push the oldest lines out when the ring is full.
    void shiftElements(int start, int count, int offset);
    // Removes `deleteCount` lines at `start` and inserts `items` there.
    void splice(int start, int deleteCount, std::vector<std::unique_ptr<BufferLine>> items);
    void insert(int index, std::unique_ptr<BufferLine> line);

    int getCyclicIndex(int index) const { return (startIndex_ + index) % maxLength_; }

    std::function<void(bool hadImages)> onLineRecycled;
    std::function<void(bool hasImages)> onLinePushed;

private:
    BufferLine& materialize(int index) const;

    mutable std::vector<std::unique_ptr<BufferLine>> array_;
    int startIndex_ = 0;
    int count_ = 0;
    int maxLength_ = 0;
    MakeEmpty makeEmpty_;
};

} // namespace TerminalEngine
