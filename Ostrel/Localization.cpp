// Key lookup across the string tables, with the language taken from the locale variables.
#include "Ostrel/Localization.h"

#include <atomic>
#include <cstdlib>
#include <string>
#include <unordered_map>

namespace Ostrel {
namespace {

using Table = std::unordered_map<std::string_view, const LocalizedText*>;

const Table& table() {
    static const Table all = [] {
        Table t;
        for (auto tableOf : {commonStrings, workspaceStrings, inspectStrings, notificationStrings})
            for (const LocalizedText& entry : tableOf())
                t.emplace(entry.key, &entry);
        return t;
    }();
    return all;
}

std::atomic<int>& currentLanguage() {
    static std::atomic<int> language{static_cast<int>(Localization::languageFromEnvironment())};
    return language;
}

} // namespace

Language Localization::languageFromEnvironment() {
    const char* value = nullptr;
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* v = std::getenv(name);
        if (v != nullptr && v[0] != '\0') {
            value = v;
            break;
        }
    }
    if (value == nullptr) return Language::en;
    std::string_view code(value);
    code = code.substr(0, code.find_first_of("_.@"));
    if (code == "fr") return Language::fr;
    if (code == "de") return Language::de;
    if (code == "es") return Language::es;
    if (code == "pt") return Language::pt;
    return Language::en;
}

Language Localization::current() {
    return static_cast<Language>(currentLanguage().load());
}

void Localization::setCurrent(Language language) {
    currentLanguage() = static_cast<int>(language);
}

std::string_view Localization::text(std::string_view key, Language language) {
    const auto& all = table();
    auto it = all.find(key);
    if (it == all.end()) return key;
    const LocalizedText& entry = *it->second;
    std::string_view translated;
    switch (language) {
    case Language::en: translated = entry.en; break;
    case Language::fr: translated = entry.fr; break;
    case Language::de: translated = entry.de; break;
    case Language::es: translated = entry.es; break;
    case Language::pt: translated = entry.pt; break;
    }
    return translated.empty() ? entry.en : translated;
}

} // namespace Ostrel
