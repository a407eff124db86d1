// A saved pane layout the user can apply to any project: a name and a tree shape without sessions.
#pragma once

#include "OstrelCore/PaneNode.h"

#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace OstrelCore {

struct PaneTemplate {
    UUID id;
    std::string name;
    PaneNode node; // always cleaned: no sessions

    // A new template with a fresh id holding the shape of `tree`.
    static PaneTemplate make(std::string name, const PaneNode& tree);

    nlohmann::json toJSON() const; // {"id", "name", "node"}
    // None when a key is missing, of the wrong type, or the tree is damaged. Sessions found in a
    // stored tree are dropped: a template holds shapes only.
    static std::optional<PaneTemplate> fromJSON(const nlohmann::json& json);

    bool operator==(const PaneTemplate&) const = default;
};

} // namespace OstrelCore
