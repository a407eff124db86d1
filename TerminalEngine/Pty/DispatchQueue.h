// A serial queue: an Asio io_context that exactly one thread runs. The process registers the
// context its main thread runs as the main queue; everything that owns workspace or terminal
// state runs there, and other threads hop onto it with async().
#pragma once

#include <future>
#include <type_traits>
#include <utility>

#include <asio/io_context.hpp>
#include <asio/post.hpp>

namespace TerminalEngine {

class DispatchQueue {
public:
    explicit DispatchQueue(asio::io_context& context)
        : context_(&context) {}

    // The main queue. setMain must be called once, by the main thread, before any main-queue use;
    // clearMain undoes it (tests that build and tear down their own loops).
    static void setMain(asio::io_context& context) { mainContext() = &context; }
    static void clearMain() { mainContext() = nullptr; }
    static bool hasMain() { return mainContext() != nullptr; }
    static DispatchQueue main() { return DispatchQueue(*mainContext()); }

    asio::io_context& context() const { return *context_; }
    bool isMain() const { return context_ == mainContext(); }
    bool runningInThisThread() const { return context_->get_executor().running_in_this_thread(); }

    template <typename F>
    void async(F&& work) const {
        asio::post(*context_, std::forward<F>(work));
    }

    // Runs `work` on the queue and waits for it. Called from the queue's own thread, it runs
    // inline, so that a synchronous hop never deadlocks on itself.
    template <typename F>
    void sync(F&& work) const {
        if (runningInThisThread()) {
            work();
            return;
        }
        std::promise<void> done;
        auto finished = done.get_future();
        asio::post(*context_, [&] {
            work();
            done.set_value();
        });
        finished.wait();
    }

    bool operator==(const DispatchQueue& other) const { return context_ == other.context_; }

private:
    static asio::io_context*& mainContext() {
        static asio::io_context* context = nullptr;
        return context;
    }
    asio::io_context* context_;
};

} // namespace TerminalEngine
