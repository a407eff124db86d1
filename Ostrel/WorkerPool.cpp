// The shared worker pool, created on first use and joined at process exit.
#include "Ostrel/WorkerPool.h"

#include <algorithm>
#include <thread>

namespace Ostrel {
namespace {

constexpr unsigned minimumThreads = 4;
constexpr unsigned maximumThreads = 16;

unsigned threadCount() {
    return std::clamp(std::thread::hardware_concurrency() + 2, minimumThreads, maximumThreads);
}

} // namespace

asio::thread_pool& WorkerPool::shared() {
    static asio::thread_pool pool(threadCount());
    return pool;
}

} // namespace Ostrel
