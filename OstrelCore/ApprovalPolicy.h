// Whether an answer from a notification or the phone may still be typed into a session waiting
// for a tool approval, and what to type, so that a late tap never confirms a stale question.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace OstrelCore {

class ApprovalPolicy {
public:
    enum class Decision : std::uint8_t { approve, deny };

    // What the agent asks to run, shortened for a notification.
    struct Request {
        std::string toolName;
        std::string detail;

        bool operator==(const Request&) const = default;
    };

    // An answer is accepted up to a quarter of an hour after the question.
    static constexpr double staleAfter = 900.0;
    static constexpr std::size_t detailLimit = 120;

    static std::string_view rawValue(Decision decision);
    static std::optional<Decision> decisionNamed(std::string_view rawValue);

    // Approve is a carriage return, deny is escape: the keys the agents' approval prompts take.
    static std::string keystrokes(Decision decision);
    static bool canAct(std::chrono::system_clock::time_point emittedAt,
                       std::chrono::system_clock::time_point now, bool stillWaiting, bool alreadyAnswered);
    static Request summarize(std::string_view toolName, std::string_view detail);
};

} // namespace OstrelCore
