// The desktop's notification server (org.freedesktop.Notifications on the session bus), driven
// from an io_context without ever blocking it: the connection, the server's capabilities, Notify
// and CloseNotification, and the server's ActionInvoked and NotificationClosed signals.
//
// Everything runs on the thread that runs the context (the main thread): the connection's
// descriptor is watched by the context and sd-bus is processed there, so handlers never need a
// lock and answers need no hop between threads. No call waits for a reply.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

struct sd_bus;
struct sd_bus_slot;

namespace Ostrel {

// How patient the bus is; a namespace-level type so that it can be a default argument.
struct NotificationBusOptions {
    // A server that takes longer is taken as having failed the call; a Notify in flight
    // holds back the session's next one, so this bounds how late that one can be.
    std::chrono::milliseconds callTimeout{5000};
    // While there is no connection (no bus at start, or the bus went away), another attempt
    // after this long. A failed attempt costs one connect() on a local socket.
    std::chrono::milliseconds reconnectDelay{30000};
};

class NotificationBus {
public:
    struct Capabilities {
        bool actions = false;    // buttons and the default click
        bool bodyMarkup = false; // the body is read as markup, so '<' and '&' must be escaped

        bool operator==(const Capabilities&) const = default;
    };

    struct Action {
        std::string key;
        std::string label;

        bool operator==(const Action&) const = default;
    };

    struct Message {
        std::uint32_t replacesId = 0; // 0: a new notification
        std::string icon;             // a themed icon name
        std::string summary;
        std::string body;
        std::vector<Action> actions;
        std::optional<std::string> session; // sent as the hint "x-ostrel-session"
        std::int32_t expireTimeout = -1;    // milliseconds; -1 the server's default, 0 never

        bool operator==(const Message&) const = default;
    };

    using Options = NotificationBusOptions;

    struct Handlers {
        // The server's capabilities were learnt, or they were lost (the server or the bus left).
        std::function<void()> serviceChanged;
        std::function<void(std::uint32_t id, std::string_view actionKey)> actionInvoked;
        std::function<void(std::uint32_t id)> closed;
    };

    // Connects to the session bus of DBUS_SESSION_BUS_ADDRESS (else $XDG_RUNTIME_DIR/bus) and asks
    // for the server's capabilities. Without a bus the object stays idle and every call is a no-op.
    NotificationBus(asio::io_context& context, Handlers handlers, Options options = {});
    ~NotificationBus();
    NotificationBus(const NotificationBus&) = delete;
    NotificationBus& operator=(const NotificationBus&) = delete;

    bool connected() const { return bus_ != nullptr; }
    // True while the bus or the server hasn't answered yet.
    bool checking() const { return checking_; }
    // Present once a server answered; none without a server or a bus.
    const std::optional<Capabilities>& capabilities() const { return capabilities_; }

    // Posts a notification; `sent` receives the server's id, or none when the call failed. False
    // when the call couldn't be made at all (then `sent` never runs). Callbacks run on the context.
    bool notify(const Message& message, std::function<void(std::optional<std::uint32_t>)> sent);
    void close(std::uint32_t id);

private:
    void connect();
    // Drops the connection; `announce` tells the owner (not while it is being built or destroyed).
    void disconnect(bool announce);
    void queryCapabilities();
    void process();
    void arm();
    // One wait on the descriptor for `type`, unless one is already armed.
    void watch(asio::posix::stream_descriptor::wait_type type, bool& armed);
    void serverLeft();
    void scheduleReconnect();

    // The sd-bus handlers, in the source file: they need the library's own types.
    friend struct NotificationBusHandlers;

    asio::io_context& context_;
    Handlers handlers_;
    Options options_;
    sd_bus* bus_ = nullptr;
    std::optional<asio::posix::stream_descriptor> descriptor_;
    asio::steady_timer timer_;
    asio::steady_timer reconnect_;
    bool readArmed_ = false;
    bool writeArmed_ = false;
    sd_bus_slot* capabilityCall_ = nullptr; // the pending GetCapabilities, cancelled by a newer one
    bool checking_ = false;
    std::optional<Capabilities> capabilities_;
    std::string server_; // unique bus name of the server; its signals are the only ones heard
    // Completions posted to the context check this before touching the object.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace Ostrel
