// Typed look-ups into foreign JSON (transcripts, caches) that answer "absent" instead of throwing,
// shared by the agent-signal readers.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace OstrelCore::SignalsJson {

// Decodes one JSON object with exceptions off; anything else (bad syntax, bad UTF-8, an array,
// a bare value) is absent.
template <typename Json = nlohmann::json>
std::optional<Json> parseObject(std::string_view text) {
    Json value = Json::parse(text.begin(), text.end(), nullptr, false);
    if (value.is_discarded() || !value.is_object()) return std::nullopt;
    return value;
}

template <typename Json>
const Json* member(const Json& object, std::string_view key) {
    if (!object.is_object()) return nullptr;
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

template <typename Json>
const Json* objectAt(const Json& object, std::string_view key) {
    const Json* value = member(object, key);
    return value != nullptr && value->is_object() ? value : nullptr;
}

template <typename Json>
const Json* arrayAt(const Json& object, std::string_view key) {
    const Json* value = member(object, key);
    return value != nullptr && value->is_array() ? value : nullptr;
}

template <typename Json>
const std::string* text(const Json& value) {
    return value.template get_ptr<const typename Json::string_t*>();
}

template <typename Json>
const std::string* textAt(const Json& object, std::string_view key) {
    const Json* value = member(object, key);
    return value == nullptr ? nullptr : text(*value);
}

template <typename Json>
bool isTrue(const Json& object, std::string_view key) {
    const Json* value = member(object, key);
    return value != nullptr && value->is_boolean() && value->template get<bool>();
}

// An integer only where the number converts exactly: 429 and 429.0 count, 429.5 and 1e300 don't.
template <typename Json>
std::optional<std::int64_t> exactInteger(const Json& value) {
    if (const auto* i = value.template get_ptr<const typename Json::number_integer_t*>()) return *i;
    if (const auto* u = value.template get_ptr<const typename Json::number_unsigned_t*>()) {
        if (*u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return std::nullopt;
        return static_cast<std::int64_t>(*u);
    }
    if (const auto* f = value.template get_ptr<const typename Json::number_float_t*>()) {
        double d = *f;
        // 2^63 is exactly representable; everything below it in magnitude converts without overflow.
        if (!std::isfinite(d) || d != std::trunc(d) || d >= 9223372036854775808.0 ||
            d < -9223372036854775808.0)
            return std::nullopt;
        return static_cast<std::int64_t>(d);
    }
    return std::nullopt;
}

template <typename Json>
std::optional<double> number(const Json& value) {
    if (!value.is_number()) return std::nullopt;
    double d = value.template get<double>();
    if (!std::isfinite(d)) return std::nullopt;
    return d;
}

} // namespace OstrelCore::SignalsJson
