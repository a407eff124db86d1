// The digits to type in the Codex agent's model menu to reach a model and reasoning effort:
// auto presets first, then one line that opens the other models; each level takes one digit.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace OstrelCore {

struct CodexModel {
    std::string slug;
    bool visible = false; // listed in the agent's menu
    std::string defaultEffort;
    std::vector<std::string> efforts;

    bool operator==(const CodexModel&) const = default;
};

class CodexPicker {
public:
    // Slugs of this prefix are the menu's auto presets.
    static constexpr std::string_view presetPrefix = "codex-auto-";

    // The agent's model cache ("models_cache.json"); bad data gives an empty catalogue.
    static std::vector<CodexModel> parse(std::string_view data);
    static std::optional<std::vector<std::string>> efforts(std::string_view slug,
                                                           const std::vector<CodexModel>& catalog);
    // Absent when the model or effort can't be reached by single digits; the choice is then the
    // user's.
    static std::optional<std::vector<int>> digits(std::string_view model,
                                                  std::optional<std::string_view> effort,
                                                  const std::vector<CodexModel>& catalog);
};

} // namespace OstrelCore
