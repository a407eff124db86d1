// The block primitives under the print path, against one-byte-at-a-time references: the scans
// that find where text ends, the reader of short decimal parameters, and the writers that store and blank
// runs of cells. Their vector bodies and overlapping tails change with the length, so every length up to a
// few blocks is tried, with sentinels around the run to catch a write that strays.
#include "TerminalEngine/Model/BufferLine.h"
#include "TerminalEngine/Model/ByteScan.h"
#include "TerminalEngine/Model/CharData.h"

#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

bool sameBytes(const CharData& a, const CharData& b) {
    return std::memcmp(&a, &b, sizeof(CharData)) == 0;
}

TEST(ByteScan, EveryStopByteAtEveryPositionOfEveryLength) {
    // Each kind of byte that ends a printable run, and the printable bytes at its edges.
    const std::uint8_t stops[] = {0x00, 0x0A, 0x1B, 0x1F, 0x7F, 0x80, 0xC3, 0xFF};
    for (std::size_t size = 0; size <= 150; ++size) {
        for (std::size_t from : {std::size_t{0}, std::size_t{3}}) {
            if (from > size) continue;
            for (std::size_t at = from; at <= size; ++at) {
                for (std::uint8_t stop : stops) {
                    std::vector<std::uint8_t> bytes(size + 1, 'a');
                    for (std::size_t k = 0; k < size; ++k)
                        bytes[k] = k % 2 ? 0x20 : 0x7E;
                    if (at < size) bytes[at] = stop;
                    const std::size_t expectedPrintable = at,
                                      expectedControl = at < size && stop < 0x20 ? at : size;
                    SCOPED_TRACE(testing::Message() << "size " << size << " from " << from << " stop "
                                                    << int(stop) << " at " << at);
                    ASSERT_EQ(ByteScan::firstNonPrintableAscii(bytes.data(), from, size), expectedPrintable);
                    ASSERT_EQ(ByteScan::firstControl(bytes.data(), from, size), expectedControl);
                }
            }
        }
    }
}

TEST(ByteScan, ShortParametersAgreeWithDigitByDigitReading) {
    // Every pair of digit counts, every byte that can end a number, and random bytes after the
    // stop (including ones whose classification carries into the next byte).
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> digit('0', '9'), any(0, 255);
    for (int stop = 0; stop < 256; ++stop) {
        if (stop >= '0' && stop <= '9') continue;
        for (int firstDigits = 0; firstDigits <= 8; ++firstDigits) {
            for (int secondDigits = -1; secondDigits <= 8; ++secondDigits) {
                // -1: a single number ended by `stop`; otherwise "first;second" ended by it.
                std::uint8_t bytes[24];
                for (auto& b : bytes)
                    b = static_cast<std::uint8_t>(any(rng));
                std::size_t k = 0;
                std::int64_t values[2] = {0, 0};
                auto writeNumber = [&](int digits, std::int64_t& value) {
                    for (int n = 0; n < digits; ++n, ++k) {
                        bytes[k] = static_cast<std::uint8_t>(digit(rng));
                        value = value * 10 + (bytes[k] - '0');
                    }
                };
                writeNumber(firstDigits, values[0]);
                if (secondDigits >= 0) {
                    bytes[k++] = ';';
                    writeNumber(secondDigits, values[1]);
                }
                bytes[k] = static_cast<std::uint8_t>(stop);
                // A single number ended by ';' is the first of two, written as such elsewhere.
                if (stop == ';' && secondDigits < 0) continue;
                // Other parameter bytes (a colon, a third number's ';', a marker) are a shape
                // the reader leaves alone.
                const bool fits = firstDigits <= 4 && secondDigits <= 4 && (stop < ':' || stop > '?');
                const ByteScan::ShortParameters read = ByteScan::shortParameters(bytes);
                SCOPED_TRACE(testing::Message()
                             << "digits " << firstDigits << ";" << secondDigits << " stop " << stop);
                if (!fits) {
                    ASSERT_EQ(read.end, -1);
                    continue;
                }
                ASSERT_EQ(read.end, static_cast<std::int64_t>(k));
                ASSERT_EQ(read.two, secondDigits >= 0);
                ASSERT_EQ(read.first, values[0]);
                ASSERT_EQ(read.second, values[1]);
            }
        }
    }
}

TEST(ByteScan, ShortParametersTurnDownAWholeBlockOfDigits) {
    // No stop among the sixteen bytes, or only one: the reader must say no without looking past
    // them (the sanitizer build checks the bit scans too).
    const std::uint8_t allDigits[16] = {'1', '2', '3', '4', '5', '6', '7', '8',
                                        '9', '0', '1', '2', '3', '4', '5', '6'};
    EXPECT_EQ(ByteScan::shortParameters(allDigits).end, -1);
    const std::uint8_t oneStop[16] = {'1', ';', '3', '4', '5', '6', '7', '8',
                                      '9', '0', '1', '2', '3', '4', '5', '6'};
    EXPECT_EQ(ByteScan::shortParameters(oneStop).end, -1);
}

TEST(CellWriting, StoreAsciiCellsWritesExactlyTheRun) {
    Attribute attr;
    attr.fg = Attribute::Color::trueColor(1, 2, 3);
    attr.bg = Attribute::Color::ansi256(200);
    attr.underlineColor = Attribute::Color::ansi256(9);
    const CharData sentinel(Attribute{}, 0x2603, 2);
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> printable(0x20, 0x7E);
    for (std::size_t count = 0; count <= 100; ++count) {
        std::vector<std::uint8_t> text(count);
        for (auto& c : text)
            c = static_cast<std::uint8_t>(printable(rng));
        std::vector<CharData> cells(count + 4, sentinel);
        storeAsciiCells(cells.data() + 2, attr, text.data(), count);
        SCOPED_TRACE(testing::Message() << "count " << count);
        for (std::size_t k = 0; k < cells.size(); ++k) {
            const bool inside = k >= 2 && k < count + 2;
            const CharData expected = inside ? CharData(attr, text[k - 2], 1) : sentinel;
            ASSERT_TRUE(sameBytes(cells[k], expected)) << "cell " << k;
        }
    }
}

TEST(CellWriting, FillCellsWritesExactlyTheRun) {
    Attribute attr;
    attr.bg = Attribute::Color::trueColor(9, 8, 7);
    const CharData value(attr, ' ', 1), sentinel(Attribute{}, 'x', 1);
    for (int count = -1; count <= 100; ++count) {
        std::vector<CharData> cells(static_cast<std::size_t>(std::max(count, 0)) + 4, sentinel);
        BufferLine::fillCells(cells.data() + 2, value, count);
        SCOPED_TRACE(testing::Message() << "count " << count);
        for (int k = 0; k < static_cast<int>(cells.size()); ++k) {
            const bool inside = k >= 2 && k < count + 2;
            ASSERT_TRUE(sameBytes(cells[static_cast<std::size_t>(k)], inside ? value : sentinel))
                << "cell " << k;
        }
    }
}

} // namespace
} // namespace TerminalEngine
