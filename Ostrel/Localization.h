// Every text a user reads, looked up by its dotted key ("status.waiting", "notif.idle") in one
// table: English first, then French, German, Spanish and Portuguese. A language that lacks a key
// falls back to English; an unknown key reads as the key itself, so a gap is visible, not blank.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include <fmt/args.h>
#include <fmt/format.h>

namespace Ostrel {

enum class Language { en, fr, de, es, pt };

// One entry of a string table. Placeholders are fmt's: "{}" in order, or "{0}", "{1}".
struct LocalizedText {
    std::string_view key;
    std::string_view en;
    std::string_view fr;
    std::string_view de;
    std::string_view es;
    std::string_view pt;
};

class Localization {
public:
    // The language of LC_ALL, else LC_MESSAGES, else LANG ("fr_FR.UTF-8" is French); English
    // for anything else.
    static Language languageFromEnvironment();
    static Language current();
    static void setCurrent(Language language);

    static std::string_view text(std::string_view key, Language language);
    static std::string_view text(std::string_view key) { return text(key, current()); }

    template <typename... Args>
    static std::string format(std::string_view key, Args&&... args) {
        std::string_view pattern = text(key);
        fmt::dynamic_format_arg_store<fmt::format_context> store;
        (store.push_back(std::forward<Args>(args)), ...);
        // A damaged translation must not take the program down: fall back to English, then to
        // the bare pattern.
        try {
            return fmt::vformat(pattern, store);
        } catch (const fmt::format_error&) {
            try {
                return fmt::vformat(text(key, Language::en), store);
            } catch (const fmt::format_error&) {
                return std::string(pattern);
            }
        }
    }
};

// The string tables, one per area of the application (Ostrel/Strings/*.cpp).
std::span<const LocalizedText> commonStrings();
std::span<const LocalizedText> workspaceStrings();
std::span<const LocalizedText> inspectStrings();
std::span<const LocalizedText> notificationStrings();

} // namespace Ostrel
