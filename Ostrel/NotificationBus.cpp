// sd-bus on the main io_context: the connection's descriptor is watched for the events sd-bus asks
// for and its next deadline runs on a timer, so every call is asynchronous and the loop never waits.
#include "Ostrel/NotificationBus.h"

#include "OstrelCore/Text.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <poll.h>

#include <asio/error.hpp>
#include <systemd/sd-bus.h>

namespace Ostrel {
namespace {

constexpr const char* service = "org.freedesktop.Notifications";
constexpr const char* objectPath = "/org/freedesktop/Notifications";
constexpr const char* interface = "org.freedesktop.Notifications";
constexpr const char* appName = "Ostrel";
constexpr const char* sessionHint = "x-ostrel-session";
// Every notification comes with the desktop's usual sound for a new message; servers that play
// no sounds ignore the hint.
constexpr const char* soundHint = "sound-name";
constexpr const char* soundName = "message-new-instant";

// Only changes of the notification service's owner: the server starting, leaving or being replaced.
constexpr const char* ownerRule = "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                                  "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                                  "arg0='org.freedesktop.Notifications'";
// ActionInvoked and NotificationClosed; the sender is checked against the server on arrival.
constexpr const char* serverRule =
    "type='signal',path='/org/freedesktop/Notifications',interface='org.freedesktop.Notifications'";

struct PendingNotify {
    std::function<void(std::optional<std::uint32_t>)> sent;
};

// D-Bus strings must be valid UTF-8 without NUL, or the whole message is refused; titles come from
// terminals and transcripts and may be neither.
std::string busText(std::string_view text) {
    std::string clean = OstrelCore::Text::sanitizeUtf8(text);
    std::erase(clean, '\0');
    return clean;
}

int appendNotify(sd_bus_message* call, const NotificationBus::Message& message) {
    const std::string icon = busText(message.icon);
    const std::string summary = busText(message.summary);
    const std::string body = busText(message.body);
    int r = sd_bus_message_append(call, "susss", appName, message.replacesId, icon.c_str(), summary.c_str(),
                                  body.c_str());
    if (r >= 0) r = sd_bus_message_open_container(call, 'a', "s");
    for (const auto& action : message.actions) {
        if (r < 0) break;
        r = sd_bus_message_append(call, "ss", busText(action.key).c_str(), busText(action.label).c_str());
    }
    if (r >= 0) r = sd_bus_message_close_container(call);
    if (r >= 0) r = sd_bus_message_open_container(call, 'a', "{sv}");
    if (r >= 0) r = sd_bus_message_append(call, "{sv}", soundHint, "s", soundName);
    if (r >= 0 && message.session)
        r = sd_bus_message_append(call, "{sv}", sessionHint, "s", busText(*message.session).c_str());
    if (r >= 0) r = sd_bus_message_close_container(call);
    if (r >= 0) r = sd_bus_message_append(call, "i", message.expireTimeout);
    return r;
}

} // namespace

struct NotificationBusHandlers {
    static int onCapabilities(sd_bus_message* reply, void* self, sd_bus_error* error);
    static int onOwnerChanged(sd_bus_message* signal, void* self, sd_bus_error* error);
    static int onServerSignal(sd_bus_message* signal, void* self, sd_bus_error* error);
    static int onNotifyReply(sd_bus_message* reply, void* pending, sd_bus_error* error);
    static int onMatchInstalled(sd_bus_message* reply, void* self, sd_bus_error* error);
};
using Dispatch = NotificationBusHandlers;

NotificationBus::NotificationBus(asio::io_context& context, Handlers handlers, Options options)
    : context_(context)
    , handlers_(std::move(handlers))
    , options_(options)
    , timer_(context)
    , reconnect_(context) {
    connect();
}

NotificationBus::~NotificationBus() {
    alive_.reset();
    reconnect_.cancel();
    disconnect(false);
}

void NotificationBus::connect() {
    sd_bus* bus = nullptr;
    // No session bus (a console login, a container) is an ordinary case: stay idle and silent.
    // Opening only starts the connection: the socket is non-blocking, and authentication and the
    // bus's Hello go on as the descriptor becomes ready.
    if (sd_bus_open_user(&bus) < 0) {
        scheduleReconnect();
        return;
    }
    bus_ = bus;
    int fd = sd_bus_get_fd(bus_);
    asio::error_code error;
    if (fd >= 0) descriptor_.emplace(context_).assign(fd, error);
    const auto timeout = std::chrono::duration_cast<std::chrono::microseconds>(options_.callTimeout);
    if (fd < 0 || error ||
        sd_bus_set_method_call_timeout(bus_, static_cast<std::uint64_t>(timeout.count())) < 0 ||
        sd_bus_add_match_async(bus_, nullptr, ownerRule, &Dispatch::onOwnerChanged,
                               &Dispatch::onMatchInstalled, this) < 0 ||
        sd_bus_add_match_async(bus_, nullptr, serverRule, &Dispatch::onServerSignal,
                               &Dispatch::onMatchInstalled, this) < 0) {
        disconnect(false);
        scheduleReconnect();
        return;
    }
    // The match on the owner goes out first, so a server that starts while the question is on its
    // way is still seen.
    queryCapabilities();
    arm();
}

void NotificationBus::disconnect(bool announce) {
    if (bus_ == nullptr) return;
    if (descriptor_) {
        descriptor_->release(); // the descriptor belongs to sd-bus, which closes it
        descriptor_.reset();
    }
    timer_.cancel();
    readArmed_ = writeArmed_ = false;
    capabilityCall_ = sd_bus_slot_unref(capabilityCall_);
    // Frees the pending calls too; their completions are dropped with them.
    bus_ = sd_bus_close_unref(bus_);
    checking_ = false;
    capabilities_.reset();
    server_.clear();
    if (announce) {
        scheduleReconnect();
        if (handlers_.serviceChanged) handlers_.serviceChanged();
    }
}

void NotificationBus::scheduleReconnect() {
    std::weak_ptr<bool> alive = alive_;
    reconnect_.expires_after(options_.reconnectDelay);
    reconnect_.async_wait([this, alive](const asio::error_code& error) {
        if (alive.expired() || error == asio::error::operation_aborted || bus_ != nullptr) return;
        connect();
    });
}

void NotificationBus::serverLeft() {
    capabilityCall_ = sd_bus_slot_unref(capabilityCall_);
    checking_ = false;
    capabilities_.reset();
    server_.clear();
}

void NotificationBus::queryCapabilities() {
    capabilityCall_ = sd_bus_slot_unref(capabilityCall_);
    // An activatable server is started by the bus on this call.
    checking_ = sd_bus_call_method_async(bus_, &capabilityCall_, service, objectPath, interface,
                                         "GetCapabilities", &Dispatch::onCapabilities, this, nullptr) >= 0;
}

bool NotificationBus::notify(const Message& message, std::function<void(std::optional<std::uint32_t>)> sent) {
    if (bus_ == nullptr) return false;
    sd_bus_message* call = nullptr;
    int r = sd_bus_message_new_method_call(bus_, &call, service, objectPath, interface, "Notify");
    if (r >= 0) r = appendNotify(call, message);
    auto pending = std::make_unique<PendingNotify>(PendingNotify{std::move(sent)});
    sd_bus_slot* slot = nullptr;
    // A time-out of 0 means the bus's bounded call time-out, set at connect.
    if (r >= 0) r = sd_bus_call_async(bus_, &slot, call, &Dispatch::onNotifyReply, pending.get(), 0);
    sd_bus_message_unref(call);
    if (r < 0) return false;
    // The bus owns the call from here: the completion is freed after the reply, or with the bus.
    sd_bus_slot_set_destroy_callback(slot, [](void* data) { delete static_cast<PendingNotify*>(data); });
    pending.release();
    sd_bus_slot_set_floating(slot, 1);
    sd_bus_slot_unref(slot);
    arm();
    return true;
}

void NotificationBus::close(std::uint32_t id) {
    if (bus_ == nullptr || id == 0) return;
    // No completion: an id the server has already dropped answers with an error nobody needs.
    sd_bus_call_method_async(bus_, nullptr, service, objectPath, interface, "CloseNotification", nullptr,
                             nullptr, "u", id);
    arm();
}

void NotificationBus::process() {
    if (bus_ == nullptr) return;
    for (;;) {
        int r = sd_bus_process(bus_, nullptr);
        if (r == 0) break;
        if (r < 0) {
            if (sd_bus_is_open(bus_) <= 0) {
                disconnect(true);
                return;
            }
            break; // a handler's error; the timer brings us back for what is left
        }
    }
    if (sd_bus_is_open(bus_) <= 0) {
        disconnect(true);
        return;
    }
    arm();
}

void NotificationBus::arm() {
    if (bus_ == nullptr) return;
    int events = sd_bus_get_events(bus_);
    std::uint64_t until = std::numeric_limits<std::uint64_t>::max();
    // On any error let process() run at once and find out what is wrong.
    if (events < 0 || sd_bus_get_timeout(bus_, &until) < 0) until = 0;
    std::weak_ptr<bool> alive = alive_;
    if (events > 0 && (events & POLLIN) != 0) watch(asio::posix::stream_descriptor::wait_read, readArmed_);
    if (events > 0 && (events & POLLOUT) != 0) watch(asio::posix::stream_descriptor::wait_write, writeArmed_);
    if (until == std::numeric_limits<std::uint64_t>::max()) {
        timer_.cancel();
        return;
    }
    // sd-bus deadlines are CLOCK_MONOTONIC microseconds, the clock steady_clock reads on Linux.
    timer_.expires_at(
        std::chrono::steady_clock::time_point(std::chrono::microseconds(static_cast<std::int64_t>(until))));
    timer_.async_wait([this, alive](const asio::error_code& error) {
        if (alive.expired() || error == asio::error::operation_aborted) return;
        process();
    });
}

void NotificationBus::watch(asio::posix::stream_descriptor::wait_type type, bool& armed) {
    if (armed) return;
    armed = true;
    std::weak_ptr<bool> alive = alive_;
    descriptor_->async_wait(type, [this, alive, &armed](const asio::error_code& error) {
        if (alive.expired() || error == asio::error::operation_aborted) return;
        armed = false;
        process();
    });
}

int NotificationBusHandlers::onCapabilities(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* self = static_cast<NotificationBus*>(userdata);
    self->capabilityCall_ = sd_bus_slot_unref(self->capabilityCall_);
    self->checking_ = false;
    self->capabilities_.reset();
    // An error (no server and none to activate, a time-out) leaves the service absent.
    if (!sd_bus_message_is_method_error(reply, nullptr)) {
        NotificationBus::Capabilities found;
        char** names = nullptr;
        if (sd_bus_message_read_strv(reply, &names) >= 0 && names != nullptr) {
            for (char** name = names; *name != nullptr; ++name) {
                if (std::strcmp(*name, "actions") == 0) found.actions = true;
                if (std::strcmp(*name, "body-markup") == 0) found.bodyMarkup = true;
                std::free(*name);
            }
            std::free(names);
        }
        self->capabilities_ = found;
        if (const char* sender = sd_bus_message_get_sender(reply)) self->server_ = sender;
    }
    if (self->handlers_.serviceChanged) self->handlers_.serviceChanged();
    return 0;
}

int NotificationBusHandlers::onOwnerChanged(sd_bus_message* signal, void* userdata, sd_bus_error*) {
    auto* self = static_cast<NotificationBus*>(userdata);
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (sd_bus_message_read(signal, "sss", &name, &oldOwner, &newOwner) < 0 ||
        std::strcmp(name, service) != 0)
        return 0;
    // Whatever the former owner showed is gone with it; a new owner is asked afresh.
    self->serverLeft();
    if (newOwner[0] != '\0') {
        self->server_ = newOwner;
        self->queryCapabilities();
    }
    if (self->handlers_.serviceChanged) self->handlers_.serviceChanged();
    return 0;
}

int NotificationBusHandlers::onServerSignal(sd_bus_message* signal, void* userdata, sd_bus_error*) {
    auto* self = static_cast<NotificationBus*>(userdata);
    // Any client may emit these signals; only the server's own are answers.
    const char* sender = sd_bus_message_get_sender(signal);
    if (sender == nullptr || self->server_.empty() || self->server_ != sender) return 0;
    std::uint32_t id = 0;
    if (sd_bus_message_is_signal(signal, interface, "ActionInvoked") > 0) {
        const char* key = nullptr;
        if (sd_bus_message_read(signal, "us", &id, &key) > 0 && self->handlers_.actionInvoked)
            self->handlers_.actionInvoked(id, key);
    } else if (sd_bus_message_is_signal(signal, interface, "NotificationClosed") > 0) {
        std::uint32_t reason = 0;
        if (sd_bus_message_read(signal, "uu", &id, &reason) > 0 && self->handlers_.closed)
            self->handlers_.closed(id);
    }
    return 0;
}

int NotificationBusHandlers::onNotifyReply(sd_bus_message* reply, void* userdata, sd_bus_error*) {
    auto* pending = static_cast<PendingNotify*>(userdata);
    std::optional<std::uint32_t> id;
    std::uint32_t value = 0;
    // Ids start at 1; a server that answers 0 gave no usable id.
    if (!sd_bus_message_is_method_error(reply, nullptr) && sd_bus_message_read(reply, "u", &value) > 0 &&
        value != 0)
        id = value;
    if (pending->sent) {
        auto sent = std::move(pending->sent);
        sent(id);
    }
    return 0;
}

int NotificationBusHandlers::onMatchInstalled(sd_bus_message*, void*, sd_bus_error*) {
    // A refused match only means answers won't come back; notifications still go out.
    return 0;
}

} // namespace Ostrel
