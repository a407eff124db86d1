// What runs in a session, and what state it is in: the two facts every part of the workspace
// shares about a session.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace OstrelCore {

// The order is the launcher's, and that of every walk over all kinds.
enum class SessionKind : std::uint8_t { claude, codex, gemini, shell, service };

inline constexpr std::array<SessionKind, 5> allSessionKinds = {
    SessionKind::claude, SessionKind::codex, SessionKind::gemini, SessionKind::shell, SessionKind::service};

constexpr std::string_view rawValue(SessionKind kind) {
    switch (kind) {
    case SessionKind::claude: return "claude";
    case SessionKind::codex: return "codex";
    case SessionKind::gemini: return "gemini";
    case SessionKind::shell: return "shell";
    case SessionKind::service: return "service";
    }
    return "shell";
}

constexpr std::optional<SessionKind> sessionKind(std::string_view raw) {
    for (SessionKind kind : allSessionKinds)
        if (rawValue(kind) == raw) return kind;
    return std::nullopt;
}

constexpr bool isAgent(SessionKind kind) {
    return kind == SessionKind::claude || kind == SessionKind::codex || kind == SessionKind::gemini;
}

// The agents' own names; the others are looked up by localisation key ("kind.shell").
constexpr std::string_view displayNameOrKey(SessionKind kind) {
    switch (kind) {
    case SessionKind::claude: return "Claude Code";
    case SessionKind::codex: return "Codex";
    case SessionKind::gemini: return "Gemini";
    case SessionKind::shell: return "kind.shell";
    case SessionKind::service: return "kind.service";
    }
    return "kind.shell";
}

constexpr std::optional<std::string_view> defaultCommand(SessionKind kind) {
    switch (kind) {
    case SessionKind::claude: return "claude";
    case SessionKind::codex: return "codex";
    case SessionKind::gemini: return "gemini";
    default: return std::nullopt;
    }
}

// failed(code) carries the exit code; the other cases carry nothing.
struct SessionStatus {
    enum class Case : std::uint8_t { failed, ready, working, waiting, idle, done };
    Case status = Case::ready;
    std::int32_t code = 0; // meaningful for failed only

    static constexpr SessionStatus failed(std::int32_t code) { return {Case::failed, code}; }
    static constexpr SessionStatus ready() { return {Case::ready, 0}; }
    static constexpr SessionStatus working() { return {Case::working, 0}; }
    static constexpr SessionStatus waiting() { return {Case::waiting, 0}; }
    static constexpr SessionStatus idle() { return {Case::idle, 0}; }
    static constexpr SessionStatus done() { return {Case::done, 0}; }

    // Alive: ready, working, waiting or idle.
    constexpr bool isAlive() const { return status >= Case::ready && status <= Case::idle; }
    constexpr bool operator==(const SessionStatus& other) const {
        return status == other.status && (status != Case::failed || code == other.code);
    }
    // "ready", "working", ... "failed" (the code is separate).
    constexpr std::string_view name() const {
        switch (status) {
        case Case::failed: return "failed";
        case Case::ready: return "ready";
        case Case::working: return "working";
        case Case::waiting: return "waiting";
        case Case::idle: return "idle";
        case Case::done: return "done";
        }
        return "ready";
    }
};

} // namespace OstrelCore
