// Turns an agent's transcript into a short readable list of what happened: what the person said,
// what the agent answered, which tools ran and how they ended. Shown on the phone page and in the
// session views in place of the raw terminal.
#pragma once

#include "OstrelCore/InternetDateTime.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace OstrelCore::TranscriptFeed {

enum class Provider : std::uint8_t { claude, codex, gemini };
enum class Role : std::uint8_t { user, assistant, tool, error, notice };

using Date = InternetDateTime::Time;

struct Entry {
    // Stable across reads of the same file, also when the window read from it moves on: a
    // record's own identifier where it has one, else a digest of the record's line.
    std::string id;
    Role role = Role::notice;
    std::string text;
    std::optional<std::string> tool;   // the tool's name, for tool entries
    std::optional<std::string> target; // what the tool works on
    std::optional<Date> at;            // the record's timestamp
    bool operator==(const Entry&) const = default;
};

// Readable texts keep this many characters, tool targets fewer.
inline constexpr std::size_t textCharacters = 1200;
inline constexpr std::size_t targetCharacters = 300;
// However large the caller's limit, the working buffer is trimmed as if it were at most this.
inline constexpr int maxCap = 5000;
// A line longer than `largeLineBytes` is searched for its markers only in its first and last
// `searchWindowBytes`; one longer than `rawLineBytes` is never decoded, only read by substring.
inline constexpr std::size_t searchWindowBytes = 16384;
inline constexpr std::size_t largeLineBytes = 32768;
inline constexpr std::size_t rawLineBytes = 0x40000;

// What the remote feed reads: the last bytes of the file and the entries it shows.
inline constexpr std::size_t remoteTailBytes = 160000;
inline constexpr int remoteLimit = 50;

// `lines` in file order; the last `limit` entries, oldest first. A limit below 1 gives none.
std::vector<Entry> entries(std::span<const std::string_view> lines, Provider provider, int limit);

// The same for an older single-document Gemini session (one JSON object with `messages`).
std::vector<Entry> legacyGeminiEntries(std::string_view document, int limit);

std::string_view roleName(Role role);
std::optional<Role> roleNamed(std::string_view name);

// Encoded under the keys id, role, text, tool, target, at; absent optionals are left out and the
// date is an internet date-time in UTC.
nlohmann::json toJSON(const Entry& entry);
std::optional<Entry> entryFromJSON(const nlohmann::json& value);

// Leading and trailing white space dropped, at most `characters` kept, "…" when text was cut.
std::string clamp(std::string_view text, std::size_t characters);

} // namespace OstrelCore::TranscriptFeed
