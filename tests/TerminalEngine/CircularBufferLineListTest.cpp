// The line ring: lazy slots, recycling without allocation, the images count, and every
// structural edit (rotations included, across the ring's wrap) checked against a plain list
// model under random operations.
#include "TerminalEngine/Model/CircularBufferLineList.h"

#include <algorithm>
#include <deque>
#include <random>
#include <set>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

// Lines are told apart by the code of their one cell; 0 is a fresh or refilled line.
std::unique_ptr<BufferLine> lineWithId(int id) {
    return std::make_unique<BufferLine>(1, CharData(Attribute::empty(), id, 1));
}

CircularBufferLineList ringOf(int maxLength, int ids, int* made = nullptr) {
    CircularBufferLineList list(maxLength, [made](int) {
        if (made) ++*made;
        return lineWithId(0);
    });
    for (int id = 1; id <= ids; ++id)
        list.push(lineWithId(id));
    return list;
}

TEST(CircularBufferLineList, SlotsAreMadeOnFirstReadOnly) {
    int made = 0;
    auto list = ringOf(1000, 0, &made);
    list.setCount(3);
    EXPECT_EQ(made, 0);
    const BufferLine* first = &list[2];
    EXPECT_EQ(&list[2], first);
    EXPECT_EQ(made, 1);
}

TEST(CircularBufferLineList, RecycleReusesTheOldestLineWithoutAllocating) {
    int made = 0;
    auto list = ringOf(4, 4, &made);
    Attribute red;
    red.bg = Attribute::Color::ansi256(1);
    const BufferLine* oldest = &list[0];
    const auto generation = oldest->generation;
    BufferLine& recycled = list.recycle(red, true);
    EXPECT_EQ(&recycled, oldest);
    EXPECT_EQ(&list[3], oldest);
    EXPECT_GT(recycled.generation, generation);
    EXPECT_TRUE(recycled.isWrapped);
    EXPECT_EQ(recycled[0], CharData(red, 0, 1));
    EXPECT_EQ(list[0][0].code, 2);

    std::set<const BufferLine*> objects;
    for (int i = 0; i < 100; ++i)
        objects.insert(&list.recycle(Attribute::empty(), false));
    EXPECT_EQ(objects.size(), 4u);
    EXPECT_EQ(made, 0);
}

TEST(CircularBufferLineListDeathTest, RecycleOnARingThatIsNotFullStopsTheProcess) {
    auto list = ringOf(3, 1);
    EXPECT_DEATH(list.recycle(Attribute::empty(), false), "can only recycle when the buffer is full");
}

TEST(CircularBufferLineList, CallbacksCountLinesWithImagesInAndOut) {
    auto list = ringOf(3, 0);
    int withImages = 0;
    list.onLinePushed = [&](bool has) { withImages += has; };
    list.onLineRecycled = [&](bool had) { withImages -= had; };
    auto imageLine = [] {
        auto line = lineWithId(9);
        line->images = std::make_unique<std::vector<CellImage>>(1, CellImage{0, 1});
        return line;
    };
    list.push(imageLine());
    list.push(lineWithId(1));
    list.push(imageLine());
    EXPECT_EQ(withImages, 2);
    list.recycle(Attribute::empty(), false); // reuses the first image line
    list.push(lineWithId(2));                // pushes line 1 out
    EXPECT_EQ(withImages, 1);
    list.insert(1, lineWithId(3)); // pushes the second image line out
    EXPECT_EQ(withImages, 0);
    EXPECT_EQ(list.countLinesWithImages(), 0);
}

// The ring must act as an unbounded list whose lines beyond the capacity drop off the top.
// Slots vacated by a move hold some line (-1 in the model); every line object stays unique.
TEST(CircularBufferLineList, RandomEditsMatchAPlainListModel) {
    for (unsigned seed = 1; seed <= 300; ++seed) {
        std::mt19937 rng(seed);
        auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
        int maxLength = pick(1, 8);
        auto list = ringOf(maxLength, 0);
        std::deque<int> model;
        auto fit = [&] {
            while (static_cast<int>(model.size()) > maxLength)
                model.pop_front();
        };
        int nextId = 1;
        for (int step = 0; step < 60; ++step) {
            const int size = list.count();
            const int op = pick(0, 8);
            if (op <= 1) {
                list.push(lineWithId(nextId));
                model.push_back(nextId++);
                fit();
            } else if (op == 2) {
                auto line = list.pop();
                if (size > 0) {
                    if (model.back() != -1) {
                        EXPECT_EQ((*line)[0].code, model.back());
                    }
                    model.pop_back();
                }
            } else if (op == 3) {
                int start = pick(0, size), count = pick(0, size + 1),
                    offset = pick(-start - 1, maxLength + 2);
                list.shiftElements(start, count, offset);
                if (count > 0 && offset != 0 && start < size && start + offset >= 0) {
                    count = std::min(count, size - start);
                    std::vector<int> block(model.begin() + start, model.begin() + start + count);
                    model.resize(std::max<std::size_t>(model.size(), start + count + offset), -1);
                    std::fill_n(model.begin() + start, count, -1);
                    std::copy(block.begin(), block.end(), model.begin() + start + offset);
                    fit();
                }
            } else if (op == 4) {
                int start = pick(0, size), deleteCount = pick(0, 2);
                std::vector<std::unique_ptr<BufferLine>> items;
                std::vector<int> itemIds;
                for (int n = pick(0, maxLength + 1); n > 0; --n) {
                    items.push_back(lineWithId(nextId));
                    itemIds.push_back(nextId++);
                }
                list.splice(start, deleteCount, std::move(items));
                deleteCount = std::min(deleteCount, size - start);
                model.erase(model.begin() + start, model.begin() + start + deleteCount);
                model.insert(model.begin() + start, itemIds.begin(), itemIds.end());
                fit();
            } else if (op == 5) {
                int n = pick(0, 2);
                list.trimStart(n);
                model.erase(model.begin(), model.begin() + std::min(n, size));
            } else if (op == 7 && size > 0) {
                int first = pick(0, size - 1), last = pick(first, size - 1), by = pick(-5, 5);
                list.rotate(first, last, by);
                const int length = last - first + 1;
                const int left = ((by % length) + length) % length;
                std::rotate(model.begin() + first, model.begin() + first + left, model.begin() + last + 1);
            } else if (op == 6 && list.isFull()) {
                list.recycle(Attribute::empty(), false);
                model.pop_front();
                model.push_back(0);
            } else {
                maxLength = pick(1, 9);
                list.setMaxLength(maxLength);
                fit();
            }
            ASSERT_EQ(list.count(), static_cast<int>(model.size())) << "seed " << seed << " step " << step;
            std::set<const BufferLine*> objects;
            for (int i = 0; i < list.count(); ++i) {
                const int expected = model[static_cast<std::size_t>(i)];
                if (expected != -1) {
                    ASSERT_EQ(list[i][0].code, expected) << "seed " << seed << " step " << step;
                }
                objects.insert(&list[i]);
            }
            ASSERT_EQ(static_cast<int>(objects.size()), list.count()) << "seed " << seed;
        }
    }
}

} // namespace
} // namespace TerminalEngine
