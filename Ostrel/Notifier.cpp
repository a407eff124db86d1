// What each notification says and which switch allows it, one notification per session replaced
// in place, and the answers from its buttons turned into decisions and reveals.
#include "Ostrel/Notifier.h"

#include "Ostrel/Localization.h"
#include "Ostrel/SettingKeys.h"
#include "Ostrel/Settings.h"
#include "TerminalEngine/Pty/DispatchQueue.h"

#include <algorithm>
#include <cmath>

#include <asio/post.hpp>

namespace Ostrel {
namespace {

using Decision = OstrelCore::ApprovalPolicy::Decision;
using Status = OstrelCore::SessionStatus::Case;
using Message = NotificationBus::Message;

// A waiting notification stays until it is answered or dismissed: one that vanished after a few
// seconds couldn't be answered from. The others take the server's usual time.
constexpr std::int32_t untilDismissed = 0;
constexpr std::int32_t serverDefault = -1;

// The statuses that notify, with their switch, title and themed icon.
struct NotificationType {
    Status status;
    BooleanSetting setting;
    std::string_view titleKey;
    std::string_view icon;
};

constexpr NotificationType notificationTypes[] = {
    // status, switch, title, icon
    {Status::waiting, SettingKeys::notifyWaiting, "notif.waiting", "dialog-question"},
    {Status::idle, SettingKeys::notifyIdle, "notif.idle", "dialog-information"},
    {Status::done, SettingKeys::notifyDone, "notif.done", "dialog-information"},
    {Status::failed, SettingKeys::notifyFailed, "notif.failed", "dialog-error"},
};

const NotificationType* typeFor(Status status) {
    for (const auto& type : notificationTypes)
        if (type.status == status) return &type;
    return nullptr; // ready and working don't notify
}

// Clicking the notification itself; servers show no button for it.
NotificationBus::Action revealAction() {
    return {"default", std::string(Localization::text("notif.action.show"))};
}

std::string escapeMarkup(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        default: out += c;
        }
    }
    return out;
}

// Whole percent, rounded down, so that 89.6 never reads as the 90 of the last warning.
long long wholePercent(double percent) {
    return std::isfinite(percent) ? static_cast<long long>(std::floor(std::max(percent, 0.0))) : 0;
}

} // namespace

Notifier& Notifier::shared() {
    // Never destroyed: it lives as long as the process, and the main loop may be gone at exit.
    static Notifier* notifier =
        new Notifier(Settings::shared(), TerminalEngine::DispatchQueue::main().context());
    return *notifier;
}

Notifier::Notifier(Settings& settings, asio::io_context& context, NotificationBus::Options options)
    : settings_(settings)
    , context_(context)
    , bus_(context,
           NotificationBus::Handlers{
               [this] { serviceChanged(); },
               [this](std::uint32_t id, std::string_view action) { actionInvoked(id, action); },
               [this](std::uint32_t id) { closed(id); },
           },
           options) {}

Notifier::~Notifier() = default;

bool Notifier::available() const {
    const auto& capabilities = bus_.capabilities();
    return capabilities && capabilities->actions;
}

bool Notifier::checking() const {
    return bus_.checking();
}

Attention Notifier::attention(const NotificationSubject& subject, SessionVisibility visibility) {
    // The user is looking at the session: a notification would tell them what they see.
    if (visibility.selected && visibility.applicationActive) return Attention::seen;
    notify(subject);
    return Attention::pending;
}

void Notifier::notify(const NotificationSubject& subject) {
    if (!isOn(settings_, SettingKeys::notificationsEnabled)) return;
    const NotificationType* type = typeFor(subject.status.status);
    if (type == nullptr || !isOn(settings_, type->setting) || !available()) return;
    if (onUsageEvent) onUsageEvent("notification");

    Message message;
    message.icon = type->icon;
    message.summary = subject.status.status == Status::failed
                          ? Localization::format(type->titleKey, subject.displayTitle, subject.status.code)
                          : Localization::format(type->titleKey, subject.displayTitle);
    std::string body = subject.projectName.value_or("");
    if (subject.status.status == Status::waiting) {
        if (const auto& request = subject.pendingRequest) {
            body = request->toolName;
            if (!request->detail.empty()) body += ": " + request->detail;
        }
        message.actions = {
            {std::string(approveAction), std::string(Localization::text("notif.action.approve"))},
            {std::string(denyAction), std::string(Localization::text("notif.action.deny"))},
            revealAction(),
        };
        message.expireTimeout = untilDismissed;
    } else {
        message.actions = {revealAction()};
        message.expireTimeout = serverDefault;
    }
    message.body = bodyText(body);
    std::string key = subject.sessionID.uuidString();
    message.session = key;
    post(key, std::move(message));
}

void Notifier::notifyQuota(const QuotaAlert& alert) {
    if (!isOn(settings_, SettingKeys::notificationsEnabled) || !isOn(settings_, SettingKeys::notifyQuota) ||
        !available())
        return;
    Message message;
    message.icon = "dialog-warning";
    message.summary = Localization::format(alert.threshold >= 90 ? "notif.quota90" : "notif.quota75",
                                           alert.providerName, alert.windowLabel);
    std::string body = Localization::format("notif.quotaBody", wholePercent(alert.percent));
    if (alert.resetsAt && *alert.resetsAt > alert.now) {
        auto left = std::chrono::duration_cast<std::chrono::seconds>(*alert.resetsAt - alert.now);
        body += " " + Localization::format("quota.resetIn", shortInterval(left));
    }
    message.body = bodyText(body);
    // The 90 % warning of a window takes the place of its 75 % one.
    post("quota." + alert.providerName + "." + alert.windowLabel, std::move(message));
}

void Notifier::notifyResumed(std::string_view sessionTitle) {
    if (!isOn(settings_, SettingKeys::notificationsEnabled) || !isOn(settings_, SettingKeys::notifyQuota) ||
        !available())
        return;
    Message message;
    message.icon = "media-playback-start";
    message.summary = Localization::format("notif.resumed", sessionTitle);
    post("resumed." + std::string(sessionTitle), std::move(message));
}

void Notifier::test() {
    if (!available()) return;
    Message message;
    message.icon = "dialog-information";
    message.summary = std::string(Localization::text("settings.notif.test"));
    message.body = bodyText(Localization::text("settings.notif.testBody"));
    post("test", std::move(message));
}

void Notifier::clearDelivered(const OstrelCore::UUID& sessionID) {
    if (!available()) return;
    auto it = deliveries_.find(sessionID.uuidString());
    if (it == deliveries_.end()) return;
    Delivery& delivery = it->second;
    if (delivery.inFlight) {
        // Its id isn't known yet: close it as soon as the server gives it.
        delivery.closeWhenSent = true;
        delivery.queued.reset();
        return;
    }
    bus_.close(delivery.id);
    deliveries_.erase(it);
}

std::string Notifier::shortInterval(std::chrono::seconds interval) {
    // To the nearest minute, and at least one: "0m" would read as "now".
    long long minutes = std::max<long long>(1, (interval.count() + 30) / 60);
    struct Unit {
        long long value;
        std::string_view key;
    };
    const Unit units[] = {
        {minutes / (24 * 60), "time.short.days"},
        {minutes / 60 % 24, "time.short.hours"},
        {minutes % 60, "time.short.minutes"},
    };
    std::size_t first = 0;
    while (units[first].value == 0)
        ++first; // the minutes are never all zero
    std::string text = Localization::format(units[first].key, units[first].value);
    if (first + 1 < std::size(units) && units[first + 1].value != 0)
        text += " " + Localization::format(units[first + 1].key, units[first + 1].value);
    return text;
}

void Notifier::post(const std::string& key, Message message) {
    Delivery& delivery = deliveries_[key];
    if (delivery.inFlight) {
        // Without the id of the one on its way, this one couldn't replace it: it waits, and only
        // the newest of those that wait is sent.
        delivery.queued = std::move(message);
        delivery.closeWhenSent = false;
        return;
    }
    message.replacesId = delivery.id;
    std::uint64_t ticket = nextTicket_++;
    bool started =
        bus_.notify(message, [this, key, ticket](std::optional<std::uint32_t> id) { sent(key, ticket, id); });
    if (!started) {
        if (delivery.id == 0) deliveries_.erase(key);
        return;
    }
    delivery.inFlight = true;
    delivery.ticket = ticket;
}

void Notifier::sent(const std::string& key, std::uint64_t ticket, std::optional<std::uint32_t> id) {
    auto it = deliveries_.find(key);
    // A reply for a notification forgotten since (the server left) or superseded is stale.
    if (it == deliveries_.end() || !it->second.inFlight || it->second.ticket != ticket) return;
    Delivery& delivery = it->second;
    delivery.inFlight = false;
    // On a failure the one before may still be on screen, under its old id.
    if (id) delivery.id = *id;
    if (delivery.closeWhenSent) {
        bus_.close(delivery.id);
        deliveries_.erase(it);
        return;
    }
    if (delivery.queued) {
        Message next = std::move(*delivery.queued);
        delivery.queued.reset();
        post(key, std::move(next));
        return;
    }
    if (delivery.id == 0) deliveries_.erase(it);
}

void Notifier::serviceChanged() {
    // The ids belonged to the server that left; nothing waits for the next one.
    if (!available()) deliveries_.clear();
}

void Notifier::actionInvoked(std::uint32_t id, std::string_view action) {
    if (id == 0) return; // never a server's id; it would match a notification still on its way
    auto it = std::find_if(deliveries_.begin(), deliveries_.end(),
                           [id](const auto& entry) { return entry.second.id == id; });
    if (it == deliveries_.end()) return;
    // Quota, resumed and sample notifications belong to no session and answer nothing.
    auto session = OstrelCore::UUID::parse(it->first);
    if (!session) return;
    std::optional<Decision> decision;
    if (action == approveAction) decision = Decision::approve;
    if (action == denyAction) decision = Decision::deny;
    // The owner's callbacks run outside the bus's dispatch, so they may notify, clear or even tear
    // down the session freely.
    std::weak_ptr<bool> alive = alive_;
    asio::post(context_, [this, alive, session = *session, decision] {
        if (alive.expired()) return;
        if (decision) {
            if (onDecision) onDecision(session, *decision);
        } else if (onReveal) {
            onReveal(session);
        }
    });
}

void Notifier::closed(std::uint32_t id) {
    if (id == 0) return;
    for (auto it = deliveries_.begin(); it != deliveries_.end(); ++it) {
        if (it->second.id != id) continue;
        if (it->second.inFlight)
            it->second.id = 0; // the reply on its way tells the id that stands now
        else
            deliveries_.erase(it);
        return;
    }
}

std::string Notifier::bodyText(std::string_view text) const {
    const auto& capabilities = bus_.capabilities();
    if (capabilities && capabilities->bodyMarkup) return escapeMarkup(text);
    return std::string(text);
}

} // namespace Ostrel
