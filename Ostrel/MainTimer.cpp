// Main-queue timers on asio::steady_timer. The wait handler holds the state weakly and checks a
// cancelled flag, because asio may already have queued a completion when cancel() runs.
#include "Ostrel/MainTimer.h"

#include "TerminalEngine/Pty/DispatchQueue.h"

#include <asio/steady_timer.hpp>

namespace Ostrel {

struct MainTimer::State : std::enable_shared_from_this<MainTimer::State> {
    State(asio::io_context& context, Duration period, bool repeats, std::function<void()> action)
        : timer(context)
        , period(period)
        , repeats(repeats)
        , action(std::move(action)) {}

    void arm() {
        // After a stall longer than a period (a suspended machine), one expiry is enough: the
        // missed ones are not run in a burst.
        auto next = timer.expiry() + period;
        if (const auto now = std::chrono::steady_clock::now(); next < now) next = now + period;
        timer.expires_at(next);
        timer.async_wait([weak = weak_from_this()](const asio::error_code& error) {
            auto self = weak.lock();
            if (!self || error || self->cancelled) return;
            if (self->repeats)
                self->arm();
            else
                self->cancelled = true;
            // A copy: the action may drop the timer that owns this state.
            auto action = self->action;
            action();
        });
    }

    asio::steady_timer timer;
    const Duration period;
    const bool repeats;
    std::function<void()> action;
    bool cancelled = false;
};

MainTimer::MainTimer(std::shared_ptr<State> state)
    : state_(std::move(state)) {}

MainTimer::~MainTimer() {
    cancel();
}

std::unique_ptr<MainTimer> MainTimer::once(Duration delay, std::function<void()> action) {
    auto state = std::make_shared<State>(TerminalEngine::DispatchQueue::main().context(), delay, false,
                                         std::move(action));
    state->timer.expires_at(std::chrono::steady_clock::now());
    state->arm();
    return std::unique_ptr<MainTimer>(new MainTimer(std::move(state)));
}

std::unique_ptr<MainTimer> MainTimer::repeating(Duration period, std::function<void()> action) {
    // A zero period would spin the loop; the shortest period is one millisecond.
    period = std::max<Duration>(period, std::chrono::milliseconds(1));
    auto state = std::make_shared<State>(TerminalEngine::DispatchQueue::main().context(), period, true,
                                         std::move(action));
    state->timer.expires_at(std::chrono::steady_clock::now());
    state->arm();
    return std::unique_ptr<MainTimer>(new MainTimer(std::move(state)));
}

void MainTimer::cancel() {
    if (!state_ || state_->cancelled) return;
    state_->cancelled = true;
    state_->timer.cancel();
    state_->action = nullptr;
}

bool MainTimer::active() const {
    return state_ && !state_->cancelled;
}

} // namespace Ostrel
