// Pane templates and their JSON form.
#include "OstrelCore/PaneTemplate.h"

#include <nlohmann/json.hpp>

namespace OstrelCore {

PaneTemplate PaneTemplate::make(std::string name, const PaneNode& tree) {
    return PaneTemplate{UUID::random(), std::move(name), tree.cleaned()};
}

nlohmann::json PaneTemplate::toJSON() const {
    return nlohmann::json{{"id", id.uuidString()}, {"name", name}, {"node", node.toJSON()}};
}

std::optional<PaneTemplate> PaneTemplate::fromJSON(const nlohmann::json& json) {
    if (!json.is_object()) return std::nullopt;
    auto idIt = json.find("id");
    auto nameIt = json.find("name");
    auto nodeIt = json.find("node");
    if (idIt == json.end() || nameIt == json.end() || nodeIt == json.end()) return std::nullopt;
    const auto* idText = idIt->get_ptr<const nlohmann::json::string_t*>();
    const auto* name = nameIt->get_ptr<const nlohmann::json::string_t*>();
    if (!idText || !name) return std::nullopt;
    auto id = UUID::parse(*idText);
    auto node = PaneNode::fromJSON(*nodeIt);
    if (!id || !node) return std::nullopt;
    for (const UUID& session : node->sessionIDs())
        *node = node->removingSession(session);
    return PaneTemplate{*id, *name, std::move(*node)};
}

} // namespace OstrelCore
