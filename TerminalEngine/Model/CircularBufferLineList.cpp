// The line ring: logical indices over a fixed array of lazily filled slots. Every structural
// edit moves line pointers by swapping, so no line is copied and a full ring allocates nothing.
#include "TerminalEngine/Model/CircularBufferLineList.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace TerminalEngine {
namespace {

bool carriesImages(const BufferLine* line) {
    return line != nullptr && line->images != nullptr && !line->images->empty();
}

} // namespace

CircularBufferLineList::CircularBufferLineList(int maxLength, MakeEmpty makeEmpty)
    : array_(static_cast<std::size_t>(std::max(maxLength, 1)))
    , maxLength_(std::max(maxLength, 1))
    , makeEmpty_(std::move(makeEmpty)) {}

int CircularBufferLineList::checkedIndex(int index, const char* where) const {
    if (index >= 0 && index < maxLength_) return index;
    std::fprintf(stderr, "CircularBufferLineList.%s: index %d outside 0..%d, clamped\n", where, index,
                 maxLength_ - 1);
    return std::clamp(index, 0, maxLength_ - 1);
}

BufferLine& CircularBufferLineList::materialize(int index) const {
    auto& line = slot(index);
    if (!line) {
        if (makeEmpty_) line = makeEmpty_(index);
        if (!line) line = std::make_unique<BufferLine>(0);
    }
    return *line;
}

BufferLine& CircularBufferLineList::at(int index) const {
    return materialize(checkedIndex(index, "get"));
}

void CircularBufferLineList::swap(int a, int b) {
    ++layoutGeneration_;
    a = checkedIndex(a, "swap");
    b = checkedIndex(b, "swap");
    materialize(a);
    materialize(b);
    std::swap(slot(a), slot(b));
}

void CircularBufferLineList::rotate(int first, int last, int count) {
    ++layoutGeneration_;
    first = checkedIndex(first, "rotate");
    last = checkedIndex(last, "rotate");
    const int length = last - first + 1;
    if (length <= 1) return;
    count %= length;
    if (count < 0) count += length;
    if (count == 0) return;
    for (int k = first; k <= last; ++k)
        materialize(k);
    // Three reversals rotate in place, one pointer exchange per line and no allocation.
    auto reverse = [this](int a, int b) {
        for (; a < b; ++a, --b)
            std::swap(slot(a), slot(b));
    };
    reverse(first, first + count - 1);
    reverse(first + count, last);
    reverse(first, last);
}

void CircularBufferLineList::set(int index, std::unique_ptr<BufferLine> line) {
    ++layoutGeneration_;
    slot(checkedIndex(index, "set")) = std::move(line);
}

void CircularBufferLineList::setCount(int newCount) {
    ++layoutGeneration_;
    newCount = std::clamp(newCount, 0, maxLength_);
    // Slots past the old end may hold lines displaced by shiftElements; whatever is cut off or
    // newly exposed starts over as an empty slot.
    for (int i = std::min(newCount, count_); i < std::max(newCount, count_); ++i)
        slot(i).reset();
    count_ = newCount;
}

void CircularBufferLineList::setMaxLength(int newMaxLength) {
    ++layoutGeneration_;
    newMaxLength = std::max(newMaxLength, 1);
    if (newMaxLength == maxLength_) return;
    std::vector<std::unique_ptr<BufferLine>> next(static_cast<std::size_t>(newMaxLength));
    int keep = std::min(count_, newMaxLength);
    for (int i = 0; i < keep; ++i)
        next[static_cast<std::size_t>(i)] = std::move(slot(count_ - keep + i));
    array_ = std::move(next);
    startIndex_ = 0;
    count_ = keep;
    maxLength_ = newMaxLength;
}

void CircularBufferLineList::reportPushed(const BufferLine* line) const {
    if (onLinePushed) onLinePushed(carriesImages(line));
}

void CircularBufferLineList::dropOldest(int n) {
    ++layoutGeneration_;
    n = std::clamp(n, 0, count_);
    if (onLineRecycled) {
        for (int i = 0; i < n; ++i)
            onLineRecycled(carriesImages(slot(i).get()));
    }
    startIndex_ = getCyclicIndex(n);
    count_ -= n;
}

void CircularBufferLineList::push(std::unique_ptr<BufferLine> line) {
    ++layoutGeneration_;
    const BufferLine* entering = line.get();
    if (count_ == maxLength_) dropOldest(1);
    slot(count_) = std::move(line);
    ++count_;
    reportPushed(entering);
}

BufferLine& CircularBufferLineList::recycle(const Attribute& attribute, bool isWrapped) {
    if (count_ != maxLength_) {
        std::fputs("can only recycle when the buffer is full\n", stderr);
        std::abort();
    }
    BufferLine& line = materialize(0);
    ++layoutGeneration_;
    bool hadImages = carriesImages(&line);
    startIndex_ = getCyclicIndex(1);
    const CharData blank(attribute, 0, 1);
    line.reset(blank);
    line.fillCharacter = blank;
    line.isWrapped = isWrapped;
    if (onLineRecycled) onLineRecycled(hadImages);
    return line;
}

std::unique_ptr<BufferLine> CircularBufferLineList::pop() {
    ++layoutGeneration_;
    if (count_ == 0) return nullptr;
    materialize(count_ - 1);
    --count_;
    return std::move(slot(count_));
}

void CircularBufferLineList::trimStart(int count) {
    ++layoutGeneration_;
    count = std::clamp(count, 0, count_);
    for (int i = 0; i < count; ++i)
        slot(i).reset();
    startIndex_ = getCyclicIndex(count);
    count_ -= count;
}

void CircularBufferLineList::shiftElements(int start, int count, int offset) {
    ++layoutGeneration_;
    if (count <= 0 || offset == 0) return;
    if (start < 0 || start >= count_) {
        std::fprintf(stderr, "CircularBufferLineList.shiftElements: start %d outside 0..%d\n", start,
                     count_ - 1);
        return;
    }
    if (start + offset < 0) {
        std::fprintf(stderr, "CircularBufferLineList.shiftElements: cannot move line %d by %d\n", start,
                     offset);
        return;
    }
    count = std::min(count, count_ - start);
    if (offset < 0) {
        // Each swap carries the overwritten lines one step down, so they end up in the slots
        // vacated at the bottom of the moved block: one swap per moved line.
        for (int i = 0; i < count; ++i)
            std::swap(slot(start + i), slot(start + i + offset));
        return;
    }
    int end = start + count + offset;
    if (end > maxLength_) {
        int overflow = end - maxLength_;
        if (overflow <= start) {
            // Only lines above the block fall off the top; what remains is an ordinary move.
            dropOldest(overflow);
            start -= overflow;
            end = maxLength_;
        } else {
            // Everything above the block falls off, and the block ends at the bottom of a full
            // ring. Turning the start back over the slots physically before the block puts it
            // there without moving it; those slots hold the lines that followed the block, which
            // then stand (maxLength - offset) places away from where the move leaves them.
            dropOldest(start);
            const int front = maxLength_ - count;
            startIndex_ = getCyclicIndex(-front);
            count_ = maxLength_;
            const int shift = maxLength_ - offset;
            if (shift > 0 && shift < front)
                shiftElements(0, front - shift, shift);
            else if (shift < 0 && -shift < front)
                shiftElements(-shift, front + shift, shift);
            return;
        }
    }
    for (int i = count - 1; i >= 0; --i)
        std::swap(slot(start + i), slot(start + i + offset));
    count_ = std::max(count_, end);
}

void CircularBufferLineList::insertLines(int start, std::unique_ptr<BufferLine>* items, int n) {
    ++layoutGeneration_;
    start = std::clamp(start, 0, count_);
    if (n <= 0) return;
    int overflow = count_ + n - maxLength_;
    if (overflow > 0) {
        // The ring keeps the newest lines: first those above the insertion point fall off, then
        // the first of the inserted lines themselves.
        int fromAbove = std::min(overflow, start);
        dropOldest(fromAbove);
        start -= fromAbove;
        int fromItems = overflow - fromAbove;
        items += fromItems;
        n -= fromItems;
    }
    for (int i = count_ - 1; i >= start; --i)
        std::swap(slot(i), slot(i + n));
    for (int j = 0; j < n; ++j) {
        const BufferLine* entering = items[j].get();
        slot(start + j) = std::move(items[j]);
        reportPushed(entering);
    }
    count_ += n;
}

void CircularBufferLineList::splice(int start, int deleteCount,
                                    std::vector<std::unique_ptr<BufferLine>> items) {
    ++layoutGeneration_;
    start = std::clamp(start, 0, count_);
    deleteCount = std::clamp(deleteCount, 0, count_ - start);
    if (deleteCount > 0) {
        int tail = count_ - start - deleteCount;
        for (int i = 0; i < tail; ++i)
            std::swap(slot(start + i), slot(start + deleteCount + i));
        for (int i = count_ - deleteCount; i < count_; ++i)
            slot(i).reset();
        count_ -= deleteCount;
    }
    insertLines(start, items.data(), static_cast<int>(items.size()));
}

void CircularBufferLineList::insert(int index, std::unique_ptr<BufferLine> line) {
    insertLines(index, &line, 1);
}

int CircularBufferLineList::countLinesWithImages() const {
    int n = 0;
    for (int i = 0; i < count_; ++i)
        n += carriesImages(slot(i).get()) ? 1 : 0;
    return n;
}

} // namespace TerminalEngine
