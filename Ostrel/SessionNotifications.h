// What the workspace store sees of desktop notifications: a session that needs the user, typing
// that answers it, an automatic resume, and the answers that come back from the buttons.
#pragma once

#include "OstrelCore/ApprovalPolicy.h"
#include "OstrelCore/SessionKind.h"
#include "OstrelCore/UUID.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Ostrel {

// What a notification about a session says, filled by the store from the session and its project.
struct NotificationSubject {
    OstrelCore::UUID sessionID;
    std::string displayTitle;
    OstrelCore::SessionStatus status;
    std::optional<OstrelCore::ApprovalPolicy::Request> pendingRequest; // what a waiting agent asks
    std::optional<std::string> projectName;                            // none without a project

    bool operator==(const NotificationSubject&) const = default;
};

// Where a session is, as the user sees it, at the moment its attention is raised.
struct SessionVisibility {
    bool selected = false;          // it is the selected session of the workspace
    bool applicationActive = false; // the application has the user's focus

    bool operator==(const SessionVisibility&) const = default;
};

// How the store is to treat a session's attention after handing it over.
enum class Attention : std::uint8_t {
    seen,    // the user is looking at it: nothing was sent, and needsAttention is cleared at once
    pending, // needsAttention stays for the sidebar; a notification went out if the switches allow
};

// The store holds one of these (the process's Notifier, or a fake in the store's tests) and uses
// it on the main thread only:
//
//   - When a SessionController raises attention (working to waiting or idle after user input, or
//     the process ended), the store calls attention() with the session's subject and whether it
//     is the selected session of the active application. On Attention::seen it clears the
//     session's needsAttention there and then; on Attention::pending it leaves it set, even when
//     a switch held the notification back.
//   - When the user types into a waiting session, the store calls clearDelivered(): the question
//     is answered, and a notification still on screen would only invite a stale click. Closing a
//     session does the same.
//   - When a rate-limited session is resumed automatically, the store calls notifyResumed().
//   - The store sets onDecision and onReveal once, at start. They run on the main thread, outside
//     any bus dispatch, with the session's id and nothing else: the store looks the session up and
//     gives up quietly when it is gone. onDecision goes to SessionController::answer, which drops
//     a late answer; onReveal selects the session and brings the workspace forward.
class SessionNotifications {
public:
    virtual ~SessionNotifications() = default;

    virtual Attention attention(const NotificationSubject& subject, SessionVisibility visibility) = 0;
    virtual void clearDelivered(const OstrelCore::UUID& sessionID) = 0;
    virtual void notifyResumed(std::string_view sessionTitle) = 0;

    // The approve and deny buttons of a waiting session's notification.
    std::function<void(const OstrelCore::UUID& sessionID, OstrelCore::ApprovalPolicy::Decision)> onDecision;
    // A click on the notification itself, or on any other button.
    std::function<void(const OstrelCore::UUID& sessionID)> onReveal;
};

} // namespace Ostrel
