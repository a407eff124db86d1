// Threshold rules of the chunk queue, driven with chosen chunk sizes.
#include "TerminalEngine/Pty/PendingChunkQueue.h"

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

constexpr std::int64_t high = PendingChunkQueue::pendingHighWaterBytes;
constexpr std::int64_t low = PendingChunkQueue::pendingLowWaterBytes;

PendingChunkQueue::Chunk chunkOf(std::int64_t size, std::uint8_t fill = 0) {
    return PendingChunkQueue::Chunk(static_cast<std::size_t>(size), fill);
}

TEST(PendingChunkQueueTest, HighWaterMarkCountsAsFullFromExactlyFourMebibytes) {
    struct Case {
        std::int64_t total;
        bool done;
        bool room;
        bool suspended;
    };
    const Case cases[] = {
        {high - 1, true, true, false},
        {high, true, false, true},
        {high + 1, true, false, true},
        // A request still outstanding keeps reading and finishes with a chunk of its own: that
        // chunk decides, so that the reader never ends up with two requests at once.
        {high, false, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.total);
        PendingChunkQueue queue;
        EXPECT_EQ(queue.enqueue(chunkOf(c.total - 1000), true),
                  (PendingChunkQueue::EnqueueOutcome{true, true}));
        EXPECT_EQ(queue.enqueue(chunkOf(1000), c.done), (PendingChunkQueue::EnqueueOutcome{c.room, false}));
        EXPECT_EQ(queue.snapshot().readSuspendedForBackpressure, c.suspended);
        EXPECT_EQ(queue.snapshot().pendingBytes, c.total);
    }
}

TEST(PendingChunkQueueTest, LowWaterMarkCountsAsDrainedAtExactlyOneMebibyte) {
    for (const std::int64_t remaining : {low + 1, low}) {
        SCOPED_TRACE(remaining);
        PendingChunkQueue queue;
        queue.enqueue(chunkOf(high - remaining), true);
        queue.enqueue(chunkOf(remaining), true);
        ASSERT_TRUE(queue.snapshot().readSuspendedForBackpressure);
        const auto step = queue.next();
        ASSERT_TRUE(step);
        EXPECT_EQ(step->resumeReading, remaining == low);
        EXPECT_EQ(queue.snapshot().readSuspendedForBackpressure, remaining != low);
    }
}

TEST(PendingChunkQueueTest, EachSuspensionIsResumedExactlyOnce) {
    PendingChunkQueue queue;
    int resumes = 0;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 8; ++i)
            queue.enqueue(chunkOf(high / 8), true);
        ASSERT_TRUE(queue.snapshot().readSuspendedForBackpressure);
        while (auto step = queue.next())
            resumes += step->resumeReading ? 1 : 0;
        EXPECT_EQ(resumes, round + 1);
    }
    EXPECT_EQ(queue.snapshot().suspensions, 3);
    EXPECT_EQ(queue.snapshot().resumes, 3);
}

TEST(PendingChunkQueueTest, ThirtySecondConsumedChunkTrimsTheHeadAndRestartsTheIndex) {
    PendingChunkQueue queue;
    for (int i = 0; i < 40; ++i)
        queue.enqueue(chunkOf(10 + i, static_cast<std::uint8_t>(i)), true);
    for (int i = 0; i < 31; ++i)
        queue.next();
    EXPECT_EQ(queue.snapshot().pendingChunkIndex, 31);
    EXPECT_EQ(queue.snapshot().chunkCount, 40);

    const auto thirtySecond = queue.next();
    ASSERT_TRUE(thirtySecond);
    EXPECT_EQ(thirtySecond->chunk, chunkOf(10 + 31, 31));
    EXPECT_EQ(queue.snapshot().pendingChunkIndex, 0);
    EXPECT_EQ(queue.snapshot().chunkCount, 8);

    const auto next = queue.next();
    ASSERT_TRUE(next);
    EXPECT_EQ(next->chunk, chunkOf(10 + 32, 32));
}

TEST(PendingChunkQueueTest, ChunksComeOutWholeInOrderAndOneDrainIsAskedPerBusySpell) {
    PendingChunkQueue queue;
    const std::vector<std::int64_t> sizes = {1, 4095, 7, 131072, 2};
    std::vector<bool> drainNeeded;
    for (std::size_t i = 0; i < sizes.size(); ++i)
        drainNeeded.push_back(
            queue.enqueue(chunkOf(sizes[i], static_cast<std::uint8_t>(i)), true).drainNeeded);
    EXPECT_EQ(drainNeeded, (std::vector<bool>{true, false, false, false, false}));

    for (std::size_t i = 0; i < sizes.size(); ++i) {
        const auto step = queue.next();
        ASSERT_TRUE(step);
        EXPECT_EQ(step->chunk, chunkOf(sizes[i], static_cast<std::uint8_t>(i)));
    }
    EXPECT_FALSE(queue.next());
    EXPECT_EQ(queue.snapshot().pendingBytes, 0);
    EXPECT_EQ(queue.snapshot().chunkCount, 0);
    EXPECT_FALSE(queue.snapshot().pendingScheduled);
    EXPECT_TRUE(queue.enqueue(chunkOf(1), true).drainNeeded);
}

} // namespace
} // namespace TerminalEngine
