// The one sink of usage events ("project_add", "session_close", ...): JSON lines appended to a
// file in the data folder while the setting "telemetry.enabled" is on. Nothing leaves the machine.
#pragma once

#include "Ostrel/Settings.h"
#include "OstrelCore/SessionKind.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Ostrel {

class UsageEvents {
public:
    // Past this size the older half of the file is dropped, so the log never grows without end.
    static constexpr std::size_t maxFileBytes = 512 * 1024;

    struct Event {
        std::string name;
        std::optional<OstrelCore::SessionKind> kind;
        std::optional<double> seconds;                  // a duration, for events that have one
        std::optional<std::int64_t> projects, sessions; // counts, for peak records
    };

    UsageEvents(std::string path, const Settings& settings);

    // Appends one line {"event", "kind"?, "seconds"?, "projects"?, "sessions"?, "time"}, unless the
    // setting is off. A write failure is dropped: usage events never disturb the workspace.
    void send(const Event& event);
    void send(std::string_view name, std::optional<OstrelCore::SessionKind> kind = std::nullopt);
    // Records the most projects and sessions seen at once in this run, when either grows.
    void recordPeak(std::size_t projects, std::size_t sessions);

    const std::string& path() const { return path_; }

private:
    std::string path_;
    const Settings& settings_;
    std::size_t peakProjects_ = 0;
    std::size_t peakSessions_ = 0;
};

} // namespace Ostrel
