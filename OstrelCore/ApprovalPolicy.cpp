// Approval answers: their keys, their time window and the request's short form.
#include "OstrelCore/ApprovalPolicy.h"

#include "OstrelCore/Text.h"

namespace OstrelCore {

std::string_view ApprovalPolicy::rawValue(Decision decision) {
    return decision == Decision::approve ? "approve" : "deny";
}

std::optional<ApprovalPolicy::Decision> ApprovalPolicy::decisionNamed(std::string_view raw) {
    for (Decision decision : {Decision::approve, Decision::deny})
        if (rawValue(decision) == raw) return decision;
    return std::nullopt;
}

std::string ApprovalPolicy::keystrokes(Decision decision) {
    return decision == Decision::approve ? std::string("\r") : std::string("\x1b");
}

bool ApprovalPolicy::canAct(std::chrono::system_clock::time_point emittedAt,
                            std::chrono::system_clock::time_point now, bool stillWaiting,
                            bool alreadyAnswered) {
    if (!stillWaiting || alreadyAnswered) return false;
    auto age = now - emittedAt;
    auto limit = std::chrono::duration_cast<std::chrono::system_clock::duration>(
        std::chrono::duration<double>(staleAfter));
    return age >= std::chrono::system_clock::duration::zero() && age <= limit;
}

ApprovalPolicy::Request ApprovalPolicy::summarize(std::string_view toolName, std::string_view detail) {
    // Newlines and tabs become blanks; runs of blanks become one.
    std::string flat;
    flat.reserve(detail.size());
    bool pendingBlank = false;
    for (std::size_t i = 0; i < detail.size();) {
        char32_t c = Text::decode(detail, i);
        if (c == U' ' || c == U'\t' || Text::isNewline(c)) {
            pendingBlank = !flat.empty();
            continue;
        }
        if (pendingBlank) flat += ' ';
        pendingBlank = false;
        Text::appendUtf8(flat, c); // a malformed byte comes out as U+FFFD
    }
    return Request{std::string(toolName), Text::truncated(flat, detailLimit, "…")};
}

} // namespace OstrelCore
