// The chunks a child has written that the interface thread has not consumed yet, with the
// high/low water marks that stop and resume reading so that a flooding child can't grow it
// without bound. The reader enqueues, the drain on the delegate's queue takes chunks one by one.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace TerminalEngine {

class PendingChunkQueue {
public:
    using Chunk = std::vector<std::uint8_t>;

    // Consumed chunks that may stay at the head before they are cut off: one shift of the array
    // per this many chunks, and a head index that never grows without end.
    static constexpr std::int64_t pendingChunkFlushThreshold = 32;
    // Reads stop at or above this many queued bytes...
    static constexpr std::int64_t pendingHighWaterBytes = 4'194'304;
    // ...and resume at or below this many; the gap keeps reading from flapping at every chunk.
    static constexpr std::int64_t pendingLowWaterBytes = 1'048'576;

    struct EnqueueOutcome {
        // The queue is below the high-water mark: a reader whose request just finished re-arms.
        bool room = true;
        // The queue went from idle to busy: the caller must queue one drain.
        bool drainNeeded = false;
        bool operator==(const EnqueueOutcome&) const = default;
    };

    struct DrainStep {
        Chunk chunk;
        // Reading was suspended and the queue is now down to the low-water mark: the caller
        // issues the one read request that ends the suspension.
        bool resumeReading = false;
    };

    // Counters and fields read together under the lock, for tests, benchmarks and diagnostics.
    struct Snapshot {
        std::int64_t pendingBytes = 0;
        std::int64_t pendingChunkIndex = 0;
        std::int64_t chunkCount = 0; // chunks in the array, consumed head included
        bool pendingScheduled = false;
        bool readSuspendedForBackpressure = false;
        std::int64_t suspensions = 0;     // times reading was suspended at the high-water mark
        std::int64_t resumes = 0;         // times the drain ended a suspension
        std::int64_t maxPendingBytes = 0; // largest pendingBytes ever reached
        std::int64_t chunksEnqueued = 0;
        bool operator==(const Snapshot&) const = default;
    };

    // Appends a chunk read from the child. `requestDone` says whether this chunk finished the read
    // request it belongs to: only then does a full queue suspend reading, because a request that is
    // still outstanding keeps reading anyway and will finish with a chunk of its own. This way a
    // suspension always means that no request is outstanding, and exactly one re-arm follows it:
    // the drain's at the low-water mark.
    EnqueueOutcome enqueue(Chunk chunk, bool requestDone);

    // One step of the drain: the next chunk, whole. None when the queue is empty, in which case it
    // is reset and no drain counts as scheduled any more.
    std::optional<DrainStep> next();

    Snapshot snapshot() const;

    // Forgets a suspension whose reader is gone (a new child replaces the old one), so that the
    // drain doesn't re-arm the new reader a second time.
    void forgetSuspension();

private:
    mutable std::mutex pendingLock;
    std::vector<Chunk> pendingChunks;
    std::int64_t pendingChunkIndex = 0;
    bool pendingScheduled = false;
    std::int64_t pendingBytes = 0;
    bool readSuspendedForBackpressure = false;
    std::int64_t suspensions = 0;
    std::int64_t resumes = 0;
    std::int64_t maxPendingBytes = 0;
    std::int64_t chunksEnqueued = 0;
};

} // namespace TerminalEngine
