// settings.json: read once, written whole through a temporary file.
#include "Ostrel/Settings.h"

#include "Ostrel/Paths.h"

#include <filesystem>

namespace Ostrel {

Settings& Settings::shared() {
    static Settings settings(Paths::configFolder() + "/settings.json");
    return settings;
}

Settings::Settings(std::string path)
    : path_(std::move(path)) {
    reload();
}

void Settings::reload() {
    values_ = nlohmann::json::object();
    auto text = Paths::readFile(path_, 4u << 20);
    if (!text) return;
    auto parsed = nlohmann::json::parse(*text, nullptr, false);
    // A damaged file counts as no settings; it is replaced at the next change.
    if (!parsed.is_discarded() && parsed.is_object()) values_ = std::move(parsed);
}

const nlohmann::json* Settings::find(std::string_view key) const {
    auto it = values_.find(key);
    return it == values_.end() ? nullptr : &*it;
}

bool Settings::boolean(std::string_view key, bool fallback) const {
    const auto* value = find(key);
    return value != nullptr && value->is_boolean() ? value->get<bool>() : fallback;
}

std::optional<std::string> Settings::string(std::string_view key) const {
    const auto* value = find(key);
    if (value == nullptr || !value->is_string()) return std::nullopt;
    return value->get<std::string>();
}

std::optional<std::int64_t> Settings::integer(std::string_view key) const {
    const auto* value = find(key);
    if (value == nullptr || !value->is_number_integer()) return std::nullopt;
    return value->get<std::int64_t>();
}

std::optional<double> Settings::number(std::string_view key) const {
    const auto* value = find(key);
    if (value == nullptr || !value->is_number()) return std::nullopt;
    return value->get<double>();
}

void Settings::store(std::string_view key, nlohmann::json value) {
    values_[std::string(key)] = std::move(value);
    Paths::ensureFolder(std::filesystem::path(path_).parent_path().string());
    // A failed write is not an error for the user: the value holds for this run.
    Paths::writeFileAtomically(path_,
                               values_.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

void Settings::setBoolean(std::string_view key, bool value) {
    store(key, value);
}
void Settings::setString(std::string_view key, std::string_view value) {
    store(key, std::string(value));
}
void Settings::setInteger(std::string_view key, std::int64_t value) {
    store(key, value);
}
void Settings::setNumber(std::string_view key, double value) {
    store(key, value);
}

void Settings::remove(std::string_view key) {
    if (values_.erase(std::string(key)) == 0) return;
    Paths::ensureFolder(std::filesystem::path(path_).parent_path().string());
    Paths::writeFileAtomically(path_,
                               values_.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

} // namespace Ostrel
