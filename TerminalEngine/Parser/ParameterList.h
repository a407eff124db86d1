#pragma once
// The numeric parameters of the control sequence being read, and the separators between them.
// Storage only ever grows, so the hot loop that reads parameters writes through a plain pointer
// and touches the heap only when a sequence is longer than any before it. Long lists are kept
// whole up to `maxSize` entries; past that, further parameters are read into a scratch slot that
// is never shown, so a hostile stream of separators cannot make the parser grow without bound.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace TerminalEngine {

class ParameterList {
public:
    static constexpr std::size_t maxSize = 1 << 16;

    ParameterList() { reserve(32); }
    ParameterList(const ParameterList&) = delete;
    ParameterList& operator=(const ParameterList&) = delete;

    // Back to one parameter, 0, with no separators.
    void reset() {
        size_ = 1;
        values_[0] = 0;
    }

    std::size_t size() const { return size_ <= maxSize ? size_ : maxSize; }
    std::int64_t& back() { return values_[size_ - 1]; }
    std::int64_t operator[](std::size_t i) const { return values_[i]; }
    const std::int64_t* begin() const { return values_; }
    const std::int64_t* end() const { return values_ + size(); }

    // A separator (":" or ";") and the parameter after it, starting at 0.
    [[gnu::always_inline]] void separate(std::uint8_t separator) {
        if (size_ == capacity_) [[unlikely]]
            grow();
        if (size_ <= maxSize) {
            separators_[size_ - 1] = separator;
            ++size_;
        }
        values_[size_ - 1] = 0;
    }

    // For a reader that keeps the list in registers: write values[k] and separators[k] for
    // k < capacity() - 1 directly, call separateSlow() at the edge, and commit() at the end.
    std::int64_t* values() { return values_; }
    std::uint8_t* separatorSlots() { return separators_; }
    std::size_t capacity() const { return capacity_; }
    // `last` is the index of the parameter that just ended, with its value stored. Grows the
    // storage if it may; returns the index of the next parameter (the scratch slot stays put).
    [[gnu::noinline]] std::size_t separateSlow(std::size_t last, std::uint8_t separator) {
        size_ = last + 1;
        separate(separator);
        return size_ - 1;
    }
    // The list ends with parameter `last`.
    void commit(std::size_t last) { size_ = last + 1; }

    operator std::span<const std::int64_t>() const { return {values_, size()}; }
    // The separators between the parameters shown, in order.
    std::string_view separators() const { return {reinterpret_cast<const char*>(separators_), size() - 1}; }

private:
    void reserve(std::size_t capacity) {
        valueStorage_.resize(capacity);
        separatorStorage_.resize(capacity);
        values_ = valueStorage_.data();
        separators_ = separatorStorage_.data();
        capacity_ = capacity;
    }
    [[gnu::noinline]] void grow() {
        // One slot past `maxSize` serves as the scratch parameter.
        if (capacity_ <= maxSize) reserve(capacity_ * 2 < maxSize + 1 ? capacity_ * 2 : maxSize + 1);
    }

    std::int64_t* values_ = nullptr;
    std::uint8_t* separators_ = nullptr;
    std::size_t size_ = 1;
    std::size_t capacity_ = 0;
    std::vector<std::int64_t> valueStorage_;
    std::vector<std::uint8_t> separatorStorage_;
};

} // namespace TerminalEngine
