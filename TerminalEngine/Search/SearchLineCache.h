// The buffer's lines as searchable strings, built on demand and kept for 15 seconds: one entry
// per line as printed (a row and the rows it wrapped into), with the cell of every character.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TerminalEngine {

class Buffer;
class BufferLine;
class Terminal;

class SearchLineCache {
public:
    // Seconds on a monotonic clock; injected so that tests need not wait.
    using Clock = std::function<double()>;
    // An idle cache is dropped after this long: the buffer has scrolled underneath it.
    static constexpr double lifetimeSeconds = 15.0;

    // Where a character of the string came from.
    struct CharOffset {
        std::uint32_t byte = 0; // in lineAsString
        std::int32_t row = 0;   // rows below the line's first row
        std::int32_t col = 0;
        std::int32_t width = 1;
        bool operator==(const CharOffset&) const = default;
    };

    struct Line {
        // The text of the line; its bytes live in the cache's own blocks.
        std::string_view lineAsString;
        // One per character; empty when every byte is one cell, row after row of `rowWidth`.
        std::vector<CharOffset> offsets;
        int rowWidth = 0;
        int rowCount = 1;

        // Cell of the character starting at `byte` (or the end of the text), relative to the
        // line's first row.
        CharOffset cellAt(std::size_t byte) const;
        // Cells covered by the bytes [start, end).
        int cellsBetween(std::size_t start, std::size_t end) const;

        // The text case-folded for searches that ignore case, built on first use.
        std::string_view folded;
        // Byte of lineAsString where each byte of `folded` comes from; empty when they align.
        std::vector<std::uint32_t> foldedToOriginal;
        bool foldedReady = false;

        // The row carries on a line that starts above it, and has no text of its own here.
        bool continuation = false;

    private:
        friend class SearchLineCache;
        struct RowStamp {
            const BufferLine* line = nullptr;
            std::uint64_t generation = 0;
        };
        RowStamp first;
        std::vector<RowStamp> rest;
        std::uint64_t checkedEpoch = 0; // the layout epoch in which the rows were last compared
    };

    explicit SearchLineCache(Terminal& terminal, Clock clock = {});

    // Starts an access: drops everything when the cache has been idle for 15 s, or the buffer
    // changed its length or was switched.
    void touch();
    // The line that starts at `row`; null for a row that continues a line above it.
    Line* line(int row);
    // Folds the line for a case-insensitive search, once.
    void fold(Line& line);
    static std::string foldText(std::string_view text);
    void clear();

    Terminal& terminal;
    std::optional<std::vector<std::optional<Line>>> linesCache;
    double lastAccessTimestamp = 0;

private:
    // Texts are copied into large blocks rather than a string each: a cold search of a long
    // scrollback would otherwise spend much of its time in the allocator.
    static constexpr std::size_t blockSize = 1 << 20;
    // Lines rebuilt after a change leave their old text behind; past this much, everything is
    // dropped and rebuilt.
    static constexpr std::size_t staleLimit = 32 << 20;

    // What, when unchanged, keeps every line of the scrollback as it was: programs write only
    // to the screen, so a scrollback line changes only when lines move (or the size changes).
    struct Layout {
        const Buffer* buffer = nullptr;
        std::uint64_t generation = 0;
        int yBase = 0;
        int cols = 0;
        int rows = 0;
        bool operator==(const Layout&) const = default;
    };
    void refreshLayout();
    bool isCurrent(const Line& line, int row) const;
    Line build(int row);
    std::string_view store(std::string_view text);

    Clock clock_;
    const Buffer* buffer_ = nullptr;
    std::vector<std::unique_ptr<char[]>> blocks_;
    std::size_t blockUsed_ = 0;
    std::size_t blockCapacity_ = 0;
    std::size_t storedBytes_ = 0;
    std::size_t staleBytes_ = 0;
    std::string scratch_;
    Layout layout_;
    std::uint64_t epoch_ = 1;
};

} // namespace TerminalEngine
