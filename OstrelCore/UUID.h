// The identity of projects, sessions, panes and templates: 16 bytes, written as canonical
// 8-4-4-4-12 hexadecimal text in upper case, the form the state file stores.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace OstrelCore {

struct UUID {
    std::array<std::uint8_t, 16> bytes{}; // all zero: the nil UUID

    // A version 4 (random) UUID from the system's cryptographic random source.
    static UUID random();
    // Accepts the canonical 8-4-4-4-12 form only, hexadecimal digits in either case; anything
    // else (braces, missing hyphens, "urn:uuid:", surrounding blanks) is none.
    static std::optional<UUID> parse(std::string_view text);

    std::string uuidString() const; // "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"

    bool operator==(const UUID&) const = default;
    auto operator<=>(const UUID&) const = default;
};

} // namespace OstrelCore

template <>
struct std::hash<OstrelCore::UUID> {
    std::size_t operator()(const OstrelCore::UUID& uuid) const noexcept;
};
