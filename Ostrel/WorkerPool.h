// The process-wide pool for background work: transcript polls, tree scans, git, branch reads,
// the login environment capture. Tasks take value copies and hop back to the main queue with
// their results.
#pragma once

#include <utility>

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>

namespace Ostrel {

class WorkerPool {
public:
    // Most tasks spend their time waiting on a child process or the disk, so the pool has a few
    // more threads than the machine has cores: one slow login shell mustn't hold up the rest.
    static asio::thread_pool& shared();

    template <typename Task>
    static void run(Task&& task) {
        asio::post(shared(), std::forward<Task>(task));
    }
};

} // namespace Ostrel
