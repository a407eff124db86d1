// A usage limit an agent ran into: whose it is, when it lifts, what the agent said, and how sure
// the recognition is.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace OstrelCore {

struct RateLimitBlock {
    enum class Provider : std::uint8_t { claude, codex, gemini };
    // Only a `certain` block may be resumed more than once: a `likely` one may be a false alarm.
    enum class Confidence : std::uint8_t { certain, likely };

    Provider provider = Provider::claude;
    std::optional<std::chrono::system_clock::time_point> resumeAt; // when the limit lifts, as stated
    std::string rawMessage; // white space collapsed, at most 240 characters
    Confidence confidence = Confidence::likely;

    bool operator==(const RateLimitBlock&) const = default;

    static std::string_view rawValue(Provider provider);
    static std::optional<Provider> providerNamed(std::string_view rawValue);
    static std::string_view rawValue(Confidence confidence);
    static std::optional<Confidence> confidenceNamed(std::string_view rawValue);
};

} // namespace OstrelCore
