// A one-shot or repeating timer on the main queue. Dropping or cancelling it guarantees that its
// action never runs again, even when an expiry is already queued behind the current task.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace Ostrel {

class MainTimer {
public:
    using Duration = std::chrono::steady_clock::duration;

    // The main queue must be registered. A repeating timer measures each period from the moment
    // the previous expiry was due, so a slow action doesn't make it drift.
    static std::unique_ptr<MainTimer> once(Duration delay, std::function<void()> action);
    static std::unique_ptr<MainTimer> repeating(Duration period, std::function<void()> action);

    ~MainTimer();
    MainTimer(const MainTimer&) = delete;
    MainTimer& operator=(const MainTimer&) = delete;

    void cancel();
    bool active() const;

private:
    struct State;
    explicit MainTimer(std::shared_ptr<State> state);
    std::shared_ptr<State> state_;
};

} // namespace Ostrel
