// Chunk queue between the read thread and the delegate's queue. The lock covers list and counter
// work only; callers issue reads and call the delegate after it is released.
#include "TerminalEngine/Pty/PendingChunkQueue.h"

#include <algorithm>
#include <utility>

namespace TerminalEngine {

PendingChunkQueue::EnqueueOutcome PendingChunkQueue::enqueue(Chunk chunk, bool requestDone) {
    std::lock_guard lock(pendingLock);
    pendingBytes += static_cast<std::int64_t>(chunk.size());
    pendingChunks.push_back(std::move(chunk));
    ++chunksEnqueued;
    maxPendingBytes = std::max(maxPendingBytes, pendingBytes);

    const bool room = pendingBytes < pendingHighWaterBytes;
    if (!room && requestDone && !readSuspendedForBackpressure) {
        readSuspendedForBackpressure = true;
        ++suspensions;
    }
    bool drainNeeded = false;
    if (!pendingScheduled) {
        pendingScheduled = true;
        drainNeeded = true;
    }
    return {room, drainNeeded};
}

std::optional<PendingChunkQueue::DrainStep> PendingChunkQueue::next() {
    std::lock_guard lock(pendingLock);
    if (pendingChunkIndex >= static_cast<std::int64_t>(pendingChunks.size())) {
        pendingChunks.clear(); // keeps its capacity for the next burst
        pendingChunkIndex = 0;
        pendingBytes = 0;
        pendingScheduled = false;
        return std::nullopt;
    }
    DrainStep step;
    step.chunk = std::move(pendingChunks[static_cast<std::size_t>(pendingChunkIndex)]);
    ++pendingChunkIndex;
    if (pendingChunkIndex >= pendingChunkFlushThreshold) {
        pendingChunks.erase(pendingChunks.begin(), pendingChunks.begin() + pendingChunkIndex);
        pendingChunkIndex = 0;
    }
    pendingBytes -= static_cast<std::int64_t>(step.chunk.size());
    if (readSuspendedForBackpressure && pendingBytes <= pendingLowWaterBytes) {
        readSuspendedForBackpressure = false;
        ++resumes;
        step.resumeReading = true;
    }
    return step;
}

void PendingChunkQueue::forgetSuspension() {
    std::lock_guard lock(pendingLock);
    readSuspendedForBackpressure = false;
}

PendingChunkQueue::Snapshot PendingChunkQueue::snapshot() const {
    std::lock_guard lock(pendingLock);
    Snapshot s;
    s.pendingBytes = pendingBytes;
    s.pendingChunkIndex = pendingChunkIndex;
    s.chunkCount = static_cast<std::int64_t>(pendingChunks.size());
    s.pendingScheduled = pendingScheduled;
    s.readSuspendedForBackpressure = readSuspendedForBackpressure;
    s.suspensions = suspensions;
    s.resumes = resumes;
    s.maxPendingBytes = maxPendingBytes;
    s.chunksEnqueued = chunksEnqueued;
    return s;
}

} // namespace TerminalEngine
