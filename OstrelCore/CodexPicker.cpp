// Codex model cache and the digit plan through the agent's model menu.
#include "OstrelCore/CodexPicker.h"

#include "OstrelCore/SignalsJson.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace OstrelCore {
namespace {

using Json = nlohmann::json;

constexpr std::string_view fallbackEffort = "medium";
// Efforts beyond the standard ones sit in a sub-menu behind one more line.
constexpr std::string_view extendedEfforts[] = {"max", "ultra"};

struct PresetRank {
    std::string_view slug;
    int rank;
};

// The menu shows the auto presets from fastest to most thorough; others follow in catalogue order.
constexpr PresetRank presetRanks[] = {
    {"codex-auto-fast", 0},
    {"codex-auto-balanced", 1},
    {"codex-auto-thorough", 2},
};
constexpr int unrankedPreset = 3;

int presetRank(std::string_view slug) {
    for (const PresetRank& entry : presetRanks)
        if (entry.slug == slug) return entry.rank;
    return unrankedPreset;
}

bool isExtended(std::string_view effort) {
    return std::find(std::begin(extendedEfforts), std::end(extendedEfforts), effort) !=
           std::end(extendedEfforts);
}

// 1-based place of `value` in `list`.
template <typename List, typename Value>
std::optional<int> place(const List& list, const Value& value) {
    auto it = std::find(list.begin(), list.end(), value);
    if (it == list.end()) return std::nullopt;
    return static_cast<int>(it - list.begin()) + 1;
}

} // namespace

std::vector<CodexModel> CodexPicker::parse(std::string_view data) {
    std::vector<CodexModel> catalog;
    auto document = SignalsJson::parseObject(data);
    if (!document) return catalog;
    const Json* models = SignalsJson::arrayAt(*document, "models");
    if (models == nullptr) return catalog;
    for (const Json& element : *models) {
        const std::string* slug = SignalsJson::textAt(element, "slug");
        if (slug == nullptr) continue;
        CodexModel model;
        model.slug = *slug;
        const std::string* visibility = SignalsJson::textAt(element, "visibility");
        model.visible = visibility != nullptr && *visibility == "list";
        const std::string* defaultEffort = SignalsJson::textAt(element, "default_reasoning_level");
        model.defaultEffort = defaultEffort != nullptr ? *defaultEffort : std::string(fallbackEffort);
        if (const Json* levels = SignalsJson::arrayAt(element, "supported_reasoning_levels"))
            for (const Json& level : *levels)
                if (const std::string* effort = SignalsJson::textAt(level, "effort"))
                    model.efforts.push_back(*effort);
        catalog.push_back(std::move(model));
    }
    return catalog;
}

std::optional<std::vector<std::string>> CodexPicker::efforts(std::string_view slug,
                                                             const std::vector<CodexModel>& catalog) {
    for (const CodexModel& model : catalog)
        if (model.slug == slug) return model.efforts;
    return std::nullopt;
}

std::optional<std::vector<int>> CodexPicker::digits(std::string_view model,
                                                    std::optional<std::string_view> effort,
                                                    const std::vector<CodexModel>& catalog) {
    std::vector<const CodexModel*> presets;
    std::vector<const CodexModel*> regular;
    const CodexModel* chosen = nullptr;
    for (const CodexModel& entry : catalog) {
        if (!entry.visible) continue;
        (entry.slug.starts_with(presetPrefix) ? presets : regular).push_back(&entry);
        if (chosen == nullptr && entry.slug == model) chosen = &entry;
    }
    if (chosen == nullptr) return std::nullopt;
    std::stable_sort(presets.begin(), presets.end(), [](const CodexModel* a, const CodexModel* b) {
        return presetRank(a->slug) < presetRank(b->slug);
    });

    std::vector<int> result;
    bool isPreset = chosen->slug.starts_with(presetPrefix);
    if (isPreset) {
        result.push_back(*place(presets, chosen));
    } else {
        if (!presets.empty()) result.push_back(static_cast<int>(presets.size()) + 1);
        result.push_back(*place(regular, chosen));
    }

    std::vector<std::string_view> standard;
    std::vector<std::string_view> extended;
    for (const std::string& level : chosen->efforts)
        (isExtended(level) ? extended : standard).push_back(level);

    bool effortMenu = isPreset ? !extended.empty() : (standard.size() >= 2 || !extended.empty());
    if (effortMenu) {
        bool offered = effort && std::find(chosen->efforts.begin(), chosen->efforts.end(), *effort) !=
                                     chosen->efforts.end();
        std::string_view wanted = offered ? *effort : std::string_view(chosen->defaultEffort);
        if (!isExtended(wanted)) {
            auto at = place(standard, wanted);
            if (!at) return std::nullopt;
            result.push_back(*at);
        } else {
            auto at = place(extended, wanted);
            if (!at) return std::nullopt;
            result.push_back(static_cast<int>(standard.size()) + 1);
            result.push_back(*at);
        }
    }

    if (std::any_of(result.begin(), result.end(), [](int digit) { return digit < 1 || digit > 9; }))
        return std::nullopt;
    return result;
}

} // namespace OstrelCore
