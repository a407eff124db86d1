// Per-user settings: one JSON object in settings.json, keys as dotted paths ("restore.enabled",
// "notif.type.waiting"), written whole on each change. An absent key, or one of the wrong type,
// means the default given at the reading site.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace Ostrel {

class Settings {
public:
    // The settings of the current user ($XDG_CONFIG_HOME/Ostrel/settings.json), read on first use.
    static Settings& shared();
    // A settings file at a given path (tests, tools).
    explicit Settings(std::string path);

    bool boolean(std::string_view key, bool fallback) const;
    std::optional<std::string> string(std::string_view key) const;
    std::optional<std::int64_t> integer(std::string_view key) const;
    std::optional<double> number(std::string_view key) const;

    void setBoolean(std::string_view key, bool value);
    void setString(std::string_view key, std::string_view value);
    void setInteger(std::string_view key, std::int64_t value);
    void setNumber(std::string_view key, double value);
    void remove(std::string_view key);

    // Reads the file again (another process may have changed it).
    void reload();
    const std::string& path() const { return path_; }

private:
    const nlohmann::json* find(std::string_view key) const;
    void store(std::string_view key, nlohmann::json value);

    std::string path_;
    nlohmann::json values_ = nlohmann::json::object();
};

} // namespace Ostrel
