// Desktop notifications: tells the user that a session in the background waits, went idle, ended,
// failed or was resumed, or that a quota runs out, and brings approve, deny and clicks back.
#pragma once

#include "Ostrel/NotificationBus.h"
#include "Ostrel/SessionNotifications.h"
#include "OstrelCore/UUID.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <asio/io_context.hpp>

namespace Ostrel {

class Settings;

// A quota window that crossed a warning level, in plain values.
struct QuotaAlert {
    std::string providerName; // "Claude Code", "Codex"
    std::string windowLabel;  // the window as the quota view names it
    double percent = 0;       // used, 0 to 100
    int threshold = 75;       // 75, or 90 and above for the last warning
    std::optional<std::chrono::system_clock::time_point> resetsAt;
    std::chrono::system_clock::time_point now;

    bool operator==(const QuotaAlert&) const = default;
};

// The one object that talks to the desktop's notification server. Main thread only.
class Notifier final : public SessionNotifications {
public:
    static constexpr std::string_view approveAction = "ostrel.action.approve";
    static constexpr std::string_view denyAction = "ostrel.action.deny";

    // The notifier of the process, on the main queue with the user's settings. Lives to the end.
    static Notifier& shared();

    // Connects at once and learns asynchronously whether the server can show actions.
    Notifier(Settings& settings, asio::io_context& context, NotificationBus::Options options = {});
    ~Notifier() override;
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    // True only while the session bus answers and its notification server lists "actions". Until
    // the first answer, and whenever the server is gone, notifications are dropped, never queued.
    bool available() const;
    // True while the answer that decides `available` is still on its way.
    bool checking() const;

    // notify() unless the session is on screen in the active application.
    Attention attention(const NotificationSubject& subject, SessionVisibility visibility) override;
    // The notification for the session's present status; ready and working give none. A new
    // notification of a session replaces the one before.
    void notify(const NotificationSubject& subject);
    void notifyQuota(const QuotaAlert& alert);
    void notifyResumed(std::string_view sessionTitle) override;
    // Removes the session's notification, e.g. once the user typed the answer in the terminal.
    void clearDelivered(const OstrelCore::UUID& sessionID) override;
    // A sample for the settings view; it ignores the switches, so the user can see what one looks like.
    void test();

    // "1d 4h", "3h 12m", "5m": the two largest units, the second left out when it is zero.
    static std::string shortInterval(std::chrono::seconds interval);

    // onDecision and onReveal (from SessionNotifications) run on the context's thread, after the
    // bus's dispatch has finished.
    // Usage events ("notification" for each session notification sent), for the store's telemetry.
    std::function<void(std::string_view event)> onUsageEvent;

private:
    // One notification per key: a session's id text, or a key of its own for the others.
    struct Delivery {
        std::uint32_t id = 0; // the server's id; 0 until it answered
        bool inFlight = false;
        std::uint64_t ticket = 0;                       // of the call in flight
        std::optional<NotificationBus::Message> queued; // newest content that came while in flight
        bool closeWhenSent = false;

        bool operator==(const Delivery&) const = default;
    };

    void post(const std::string& key, NotificationBus::Message message);
    void sent(const std::string& key, std::uint64_t ticket, std::optional<std::uint32_t> id);
    void serviceChanged();
    void actionInvoked(std::uint32_t id, std::string_view action);
    void closed(std::uint32_t id);
    std::string bodyText(std::string_view text) const;

    Settings& settings_;
    asio::io_context& context_;
    std::map<std::string, Delivery> deliveries_;
    std::uint64_t nextTicket_ = 1;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    // Last, so that it goes first: no bus completion runs into a half-destroyed notifier.
    NotificationBus bus_;
};

} // namespace Ostrel
