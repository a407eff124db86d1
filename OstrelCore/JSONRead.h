// Non-throwing reads of decoded foreign JSON: a member of the wrong type is absent, and an integer
// counts only when its value converts exactly. Works for both `json` and `ordered_json`.
#pragma once

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace OstrelCore::JSONRead {

// Decodes one document with exceptions off; a document that isn't well-formed gives absent.
template <typename J = nlohmann::json>
std::optional<J> parse(std::string_view text) {
    J value = J::parse(text.begin(), text.end(), nullptr, false);
    if (value.is_discarded()) return std::nullopt;
    return value;
}

// Like `parse`, but only an object counts.
template <typename J = nlohmann::json>
std::optional<J> parseObject(std::string_view text) {
    auto value = parse<J>(text);
    if (!value || !value->is_object()) return std::nullopt;
    return value;
}

template <typename J>
const J* member(const J& object, std::string_view key) {
    if (!object.is_object()) return nullptr;
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

template <typename J>
const J* object(const J& object, std::string_view key) {
    const J* value = member(object, key);
    return value && value->is_object() ? value : nullptr;
}

template <typename J>
const J* array(const J& object, std::string_view key) {
    const J* value = member(object, key);
    return value && value->is_array() ? value : nullptr;
}

template <typename J>
const std::string* text(const J& value) {
    return value.template get_ptr<const std::string*>();
}

template <typename J>
const std::string* text(const J& object, std::string_view key) {
    const J* value = member(object, key);
    return value ? text(*value) : nullptr;
}

// True only for a boolean member that is true.
template <typename J>
bool isTrue(const J& object, std::string_view key) {
    const J* value = member(object, key);
    return value && value->is_boolean() && value->template get<bool>();
}

// Integers as written, unsigned values that fit, and floating values without a fraction that
// fit; everything else (1.5, 1e300, NaN, text) is absent.
template <typename J>
std::optional<std::int64_t> integer(const J& value) {
    // Unsigned first: the library reports an unsigned number as an integer too.
    if (const auto* u = value.template get_ptr<const std::uint64_t*>()) {
        if (*u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return std::nullopt;
        return static_cast<std::int64_t>(*u);
    }
    if (const auto* i = value.template get_ptr<const std::int64_t*>()) return *i;
    if (const auto* d = value.template get_ptr<const double*>()) {
        // 2^63 is exactly representable as a double; the half-open range keeps the cast defined.
        constexpr double limit = 9223372036854775808.0;
        if (!std::isfinite(*d) || std::trunc(*d) != *d || *d < -limit || *d >= limit) return std::nullopt;
        return static_cast<std::int64_t>(*d);
    }
    return std::nullopt;
}

template <typename J>
std::optional<std::int64_t> integer(const J& object, std::string_view key) {
    const J* value = member(object, key);
    return value ? integer(*value) : std::nullopt;
}

// Sums counts without overflow; absent on overflow, so that hostile values can't wrap around.
inline std::optional<std::int64_t> checkedSum(std::initializer_list<std::int64_t> values) {
    std::int64_t sum = 0;
    for (auto v : values)
        if (__builtin_add_overflow(sum, v, &sum)) return std::nullopt;
    return sum;
}

} // namespace OstrelCore::JSONRead
