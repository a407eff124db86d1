// The switches that steer the workspace, each with its default: every module reads its switch
// through this table, so that an unset key means the same thing wherever it is read.
#pragma once

#include "Ostrel/Settings.h"

#include <array>
#include <optional>
#include <string_view>

namespace Ostrel {

struct BooleanSetting {
    std::string_view key;
    bool defaultValue = true;

    bool operator==(const BooleanSetting&) const = default;
};

namespace SettingKeys {

// key, default
inline constexpr BooleanSetting notificationsEnabled{"notif.enabled", true}; // all notifications
inline constexpr BooleanSetting notifyWaiting{"notif.type.waiting", true};
inline constexpr BooleanSetting notifyIdle{"notif.type.idle", true};
inline constexpr BooleanSetting notifyDone{"notif.type.done", true};
inline constexpr BooleanSetting notifyFailed{"notif.type.failed", true};
inline constexpr BooleanSetting notifyQuota{"notif.type.quota", true}; // quota alerts and auto-resume
inline constexpr BooleanSetting confirmSessionClose{"confirmSessionClose", true};
inline constexpr BooleanSetting telemetryEnabled{"telemetry.enabled", true}; // usage events
inline constexpr BooleanSetting autoResume{"resume.auto", true};             // after a rate limit
inline constexpr BooleanSetting restoreEnabled{"restore.enabled", true};     // sessions at launch
inline constexpr BooleanSetting sidebarHidden{"sidebarHidden", false};

inline constexpr std::array allBooleans = {
    notificationsEnabled, notifyWaiting,    notifyIdle, notifyDone,     notifyFailed,  notifyQuota,
    confirmSessionClose,  telemetryEnabled, autoResume, restoreEnabled, sidebarHidden,
};

// The default of a key of the table; none for a key it doesn't hold.
constexpr std::optional<bool> defaultFor(std::string_view key) {
    for (const BooleanSetting& setting : allBooleans)
        if (setting.key == key) return setting.defaultValue;
    return std::nullopt;
}

} // namespace SettingKeys

// The switch's value, or its default when it is unset or not a boolean.
inline bool isOn(const Settings& settings, const BooleanSetting& setting) {
    return settings.boolean(setting.key, setting.defaultValue);
}

} // namespace Ostrel
