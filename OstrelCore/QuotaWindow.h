// One usage window of an agent subscription (a session of some hours, a week, a week of one model):
// how much of it is used and when it resets.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace OstrelCore {

struct QuotaWindow {
    enum class Provider : std::uint8_t { claude, codex };
    enum class Kind : std::uint8_t { session, weekly, weeklyOpus, weeklySonnet, weeklyModel };

    Provider provider = Provider::claude;
    Kind kind = Kind::session;
    double percent = 0;                                            // used, 0 to 100
    std::optional<std::chrono::system_clock::time_point> resetsAt; // none: the provider gave no date
    std::optional<std::string> modelName;                          // for weeklyModel

    bool operator==(const QuotaWindow&) const = default;

    static constexpr std::string_view rawValue(Provider provider) {
        return provider == Provider::claude ? "claude" : "codex";
    }
    static constexpr std::string_view rawValue(Kind kind) {
        switch (kind) {
        case Kind::session: return "session";
        case Kind::weekly: return "weekly";
        case Kind::weeklyOpus: return "weeklyOpus";
        case Kind::weeklySonnet: return "weeklySonnet";
        case Kind::weeklyModel: return "weeklyModel";
        }
        return "session";
    }
    // "claude.weekly", "codex.weeklyModel.gpt-5": the identity of a window across refreshes.
    std::string id() const {
        std::string text = std::string(rawValue(provider)) + "." + std::string(rawValue(kind));
        if (kind == Kind::weeklyModel && modelName) text += "." + *modelName;
        return text;
    }
};

} // namespace OstrelCore
