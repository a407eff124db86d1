// Test helper: waiting for a condition, on the calling thread or while running a loop. The limits
// only guard against hangs: a passing run never waits for them.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include <asio/io_context.hpp>

namespace OstrelTest {

// Sleeps a millisecond at a time until `done`, without running any loop; false at the limit.
inline bool waitFor(const std::function<bool()>& done,
                    std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Runs `loop` a handler at a time until `done`; false at the limit.
inline bool runUntil(asio::io_context& loop, const std::function<bool()>& done,
                     std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        loop.restart();
        loop.run_one_for(std::chrono::milliseconds(10));
    }
    return true;
}

} // namespace OstrelTest
