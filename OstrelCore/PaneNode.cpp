// Pane tree operations and the tree's JSON form. Trees are small, so every operation rebuilds
// what it touches and copies the rest.
#include "OstrelCore/PaneNode.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <unordered_set>

#include <nlohmann/json.hpp>

namespace OstrelCore {
namespace {

using json = nlohmann::json;

// Below this a sum of fractions is treated as this, so that scaling never divides by zero.
constexpr double smallestFractionSum = 0.0001;

template <typename F>
void forEachLeaf(const PaneNode& node, F&& visit) {
    if (const auto* leaf = node.asLeaf()) {
        visit(*leaf);
        return;
    }
    for (const auto& child : node.asSplit()->children)
        forEachLeaf(child, visit);
}

template <typename F>
bool anyNode(const PaneNode& node, F&& test) {
    if (test(node)) return true;
    if (const auto* split = node.asSplit())
        return std::any_of(split->children.begin(), split->children.end(),
                           [&](const PaneNode& child) { return anyNode(child, test); });
    return false;
}

// Leaf-wise rewrite: `change` returns the new payload of a leaf; splits are rebuilt around it.
template <typename F>
PaneNode mapLeaves(const PaneNode& node, F&& change) {
    if (const auto* leaf = node.asLeaf()) return PaneNode(change(*leaf));
    PaneNode::SplitPayload split = *node.asSplit();
    for (auto& child : split.children)
        child = mapLeaves(child, change);
    return PaneNode(std::move(split));
}

std::vector<double> equalShares(std::size_t count) {
    return std::vector<double>(count, count == 0 ? 0.0 : 1.0 / static_cast<double>(count));
}

bool fractionsAreUsable(const std::vector<double>& fractions) {
    double sum = 0;
    for (double f : fractions) {
        if (!std::isfinite(f) || f < 0) return false;
        sum += f;
    }
    return std::isfinite(sum) && sum > 0;
}

// Puts `newLeaf` beside the leaf `target`. Returns none when the target isn't below `node`, or
// when it is but the new leaf would sit deeper than maxDepth.
std::optional<PaneNode> insertBeside(const PaneNode& node, UUID target, const PaneNode::LeafPayload& newLeaf,
                                     PaneAxis axis, bool before, std::size_t depth) {
    if (const auto* leaf = node.asLeaf()) {
        if (leaf->id != target || depth + 1 > PaneNode::maxDepth) return std::nullopt;
        std::vector<PaneNode> children{PaneNode(*leaf), PaneNode(newLeaf)};
        if (before) std::swap(children[0], children[1]);
        return PaneNode(PaneNode::SplitPayload{UUID::random(), axis, std::move(children), {0.5, 0.5}});
    }
    const auto& split = *node.asSplit();
    if (split.axis == axis) {
        for (std::size_t i = 0; i < split.children.size(); ++i) {
            const auto* child = split.children[i].asLeaf();
            if (!child || child->id != target) continue;
            PaneNode::SplitPayload grown = split;
            grown.fractions = PaneNode::effectiveFractions(split);
            const double half = grown.fractions[i] / 2;
            grown.fractions[i] = half;
            const std::size_t at = before ? i : i + 1;
            grown.children.insert(grown.children.begin() + static_cast<std::ptrdiff_t>(at),
                                  PaneNode(newLeaf));
            grown.fractions.insert(grown.fractions.begin() + static_cast<std::ptrdiff_t>(at), half);
            return PaneNode(std::move(grown));
        }
    }
    for (std::size_t i = 0; i < split.children.size(); ++i) {
        if (auto changed = insertBeside(split.children[i], target, newLeaf, axis, before, depth + 1)) {
            PaneNode::SplitPayload rebuilt = split;
            rebuilt.children[i] = std::move(*changed);
            return PaneNode(std::move(rebuilt));
        }
    }
    return std::nullopt;
}

struct Removal {
    enum class Kind { unchanged, gone, replaced } kind = Kind::unchanged;
    PaneNode node;
};

Removal removeLeaf(const PaneNode& node, UUID target) {
    if (const auto* leaf = node.asLeaf())
        return leaf->id == target ? Removal{Removal::Kind::gone, {}} : Removal{};
    const auto& split = *node.asSplit();
    const std::vector<double> fractions = PaneNode::effectiveFractions(split);
    std::vector<PaneNode> children;
    std::vector<double> kept;
    bool changed = false;
    bool lostChild = false;
    for (std::size_t i = 0; i < split.children.size(); ++i) {
        Removal result = removeLeaf(split.children[i], target);
        switch (result.kind) {
        case Removal::Kind::unchanged:
            children.push_back(split.children[i]);
            kept.push_back(fractions[i]);
            break;
        case Removal::Kind::replaced:
            children.push_back(std::move(result.node));
            kept.push_back(fractions[i]);
            changed = true;
            break;
        case Removal::Kind::gone: changed = lostChild = true; break;
        }
    }
    if (!changed) return Removal{};
    if (children.empty()) return Removal{Removal::Kind::gone, {}};
    // A split never keeps a single child: the survivor takes its place.
    if (children.size() == 1) return Removal{Removal::Kind::replaced, std::move(children.front())};
    if (lostChild) {
        const double sum = std::max(std::accumulate(kept.begin(), kept.end(), 0.0), smallestFractionSum);
        for (double& f : kept)
            f /= sum;
    }
    return Removal{Removal::Kind::replaced, PaneNode(PaneNode::SplitPayload{
                                                split.id, split.axis, std::move(children), std::move(kept)})};
}

std::optional<PaneNode> withFractions(const PaneNode& node, UUID splitID,
                                      const std::vector<double>& fractions) {
    const auto* split = node.asSplit();
    if (!split) return std::nullopt;
    if (split->id == splitID) {
        if (fractions.size() != split->children.size()) return std::nullopt;
        PaneNode::SplitPayload updated = *split;
        updated.fractions = fractions;
        return PaneNode(std::move(updated));
    }
    for (std::size_t i = 0; i < split->children.size(); ++i) {
        if (auto changed = withFractions(split->children[i], splitID, fractions)) {
            PaneNode::SplitPayload rebuilt = *split;
            rebuilt.children[i] = std::move(*changed);
            return PaneNode(std::move(rebuilt));
        }
    }
    return std::nullopt;
}

PaneNode freshCopy(const PaneNode& node) {
    if (node.isLeaf()) return PaneNode::emptyLeaf();
    PaneNode::SplitPayload split = *node.asSplit();
    split.id = UUID::random();
    for (auto& child : split.children)
        child = freshCopy(child);
    return PaneNode(std::move(split));
}

// JSON

json encode(const PaneNode& node) {
    if (const auto* leaf = node.asLeaf()) {
        json payload = {{"id", leaf->id.uuidString()}};
        if (leaf->sessionID) payload["sessionID"] = leaf->sessionID->uuidString();
        return json{{"leaf", std::move(payload)}};
    }
    const auto& split = *node.asSplit();
    json children = json::array();
    for (const auto& child : split.children)
        children.push_back(encode(child));
    return json{{"split",
                 {{"id", split.id.uuidString()},
                  {"axis", rawValue(split.axis)},
                  {"children", std::move(children)},
                  {"fractions", split.fractions}}}};
}

const json* member(const json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return nullptr;
    return &*it;
}

std::optional<UUID> uuidValue(const json* value) {
    if (!value) return std::nullopt;
    const auto* text = value->get_ptr<const json::string_t*>();
    return text ? UUID::parse(*text) : std::nullopt;
}

struct Decoder {
    std::unordered_set<UUID> ids;
    std::unordered_set<UUID> sessions;

    bool claim(std::unordered_set<UUID>& seen, UUID id) { return seen.insert(id).second; }

    std::optional<PaneNode> decode(const json& value, std::size_t depth) {
        if (depth > PaneNode::maxDepth || !value.is_object() || value.size() != 1) return std::nullopt;
        if (const json* leaf = member(value, "leaf")) return decodeLeaf(*leaf);
        if (const json* split = member(value, "split")) return decodeSplit(*split, depth);
        return std::nullopt;
    }

    std::optional<PaneNode> decodeLeaf(const json& payload) {
        if (!payload.is_object()) return std::nullopt;
        auto id = uuidValue(member(payload, "id"));
        if (!id || !claim(ids, *id)) return std::nullopt;
        std::optional<UUID> session;
        if (const json* sessionValue = member(payload, "sessionID")) {
            session = uuidValue(sessionValue);
            if (!session || !claim(sessions, *session)) return std::nullopt;
        }
        return PaneNode(PaneNode::LeafPayload{*id, session});
    }

    std::optional<PaneNode> decodeSplit(const json& payload, std::size_t depth) {
        if (!payload.is_object()) return std::nullopt;
        auto id = uuidValue(member(payload, "id"));
        if (!id || !claim(ids, *id)) return std::nullopt;
        const json* axisValue = member(payload, "axis");
        const auto* axisText = axisValue ? axisValue->get_ptr<const json::string_t*>() : nullptr;
        auto axis = axisText ? paneAxis(*axisText) : std::nullopt;
        if (!axis) return std::nullopt;
        const json* childValues = member(payload, "children");
        if (!childValues || !childValues->is_array() || childValues->size() < 2) return std::nullopt;

        PaneNode::SplitPayload split{*id, *axis, {}, {}};
        split.children.reserve(childValues->size());
        for (const auto& childValue : *childValues) {
            auto child = decode(childValue, depth + 1);
            if (!child) return std::nullopt;
            split.children.push_back(std::move(*child));
        }
        if (const json* fractionValues = member(payload, "fractions")) {
            if (!fractionValues->is_array()) return std::nullopt;
            for (const auto& f : *fractionValues) {
                if (!f.is_number()) return std::nullopt;
                const double value = f.get<double>();
                if (!std::isfinite(value) || value < 0) return std::nullopt;
                split.fractions.push_back(value);
            }
        }
        // Older or hand-edited files may lack fractions; equal shares is how they were shown.
        if (split.fractions.size() != split.children.size() || !fractionsAreUsable(split.fractions))
            split.fractions = equalShares(split.children.size());
        return PaneNode(std::move(split));
    }
};

} // namespace

std::string_view rawValue(PaneAxis axis) {
    switch (axis) {
    case PaneAxis::horizontal: return "horizontal";
    case PaneAxis::vertical: return "vertical";
    }
    return "horizontal";
}

std::optional<PaneAxis> paneAxis(std::string_view rawValue) {
    if (rawValue == "horizontal") return PaneAxis::horizontal;
    if (rawValue == "vertical") return PaneAxis::vertical;
    return std::nullopt;
}

PaneNode::PaneNode() = default;
PaneNode::PaneNode(const PaneNode&) = default;
PaneNode::PaneNode(PaneNode&&) noexcept = default;
PaneNode& PaneNode::operator=(const PaneNode&) = default;
PaneNode& PaneNode::operator=(PaneNode&&) noexcept = default;
PaneNode::~PaneNode() = default;

const UUID& PaneNode::id() const {
    return std::visit([](const auto& node) -> const UUID& { return node.id; }, payload);
}

PaneNode PaneNode::emptyLeaf() {
    return PaneNode(LeafPayload{UUID::random(), std::nullopt});
}

std::vector<UUID> PaneNode::leafIDs() const {
    std::vector<UUID> ids;
    forEachLeaf(*this, [&](const LeafPayload& leaf) { ids.push_back(leaf.id); });
    return ids;
}

std::vector<UUID> PaneNode::sessionIDs() const {
    std::vector<UUID> ids;
    forEachLeaf(*this, [&](const LeafPayload& leaf) {
        if (leaf.sessionID) ids.push_back(*leaf.sessionID);
    });
    return ids;
}

std::optional<UUID> PaneNode::session(UUID inLeaf) const {
    std::optional<UUID> found;
    anyNode(*this, [&](const PaneNode& node) {
        const auto* leaf = node.asLeaf();
        if (!leaf || leaf->id != inLeaf) return false;
        found = leaf->sessionID;
        return true;
    });
    return found;
}

std::optional<UUID> PaneNode::leaf(UUID forSession) const {
    std::optional<UUID> found;
    anyNode(*this, [&](const PaneNode& node) {
        const auto* leaf = node.asLeaf();
        if (!leaf || leaf->sessionID != forSession) return false;
        found = leaf->id;
        return true;
    });
    return found;
}

std::optional<UUID> PaneNode::firstEmptyLeaf() const {
    std::optional<UUID> found;
    anyNode(*this, [&](const PaneNode& node) {
        const auto* leaf = node.asLeaf();
        if (!leaf || leaf->sessionID) return false;
        found = leaf->id;
        return true;
    });
    return found;
}

bool PaneNode::containsLeaf(UUID leafID) const {
    return anyNode(*this, [&](const PaneNode& node) { return node.isLeaf() && node.id() == leafID; });
}

bool PaneNode::containsID(UUID id) const {
    return anyNode(*this, [&](const PaneNode& node) { return node.id() == id; });
}

std::size_t PaneNode::depth() const {
    std::size_t deepest = 0;
    if (const auto* split = asSplit())
        for (const auto& child : split->children)
            deepest = std::max(deepest, child.depth());
    return deepest + 1;
}

std::vector<double> PaneNode::effectiveFractions(const SplitPayload& split) {
    if (split.fractions.size() == split.children.size()) return split.fractions;
    return equalShares(split.children.size());
}

PaneNode PaneNode::assigning(std::optional<UUID> session, UUID toLeaf) const {
    if (!containsLeaf(toLeaf)) return *this;
    return mapLeaves(*this, [&](LeafPayload leaf) {
        if (leaf.id == toLeaf)
            leaf.sessionID = session;
        else if (session && leaf.sessionID == session)
            leaf.sessionID.reset();
        return leaf;
    });
}

PaneNode PaneNode::removingSession(UUID session) const {
    return mapLeaves(*this, [&](LeafPayload leaf) {
        if (leaf.sessionID == session) leaf.sessionID.reset();
        return leaf;
    });
}

PaneNode PaneNode::splitting(UUID leaf, PaneAxis axis) const {
    return splitting(leaf, axis, UUID::random());
}

PaneNode PaneNode::splitting(UUID leaf, PaneAxis axis, UUID newLeafID) const {
    if (containsID(newLeafID)) return *this;
    return insertBeside(*this, leaf, LeafPayload{newLeafID, std::nullopt}, axis, false, 1).value_or(*this);
}

PaneNode PaneNode::inserting(UUID session, UUID newLeafID, UUID nextTo, PaneAxis axis, bool before) const {
    if (!containsLeaf(nextTo) || containsID(newLeafID)) return *this;
    auto grown =
        insertBeside(removingSession(session), nextTo, LeafPayload{newLeafID, session}, axis, before, 1);
    return grown ? std::move(*grown) : *this;
}

std::optional<PaneNode> PaneNode::removingLeaf(UUID leaf) const {
    Removal result = removeLeaf(*this, leaf);
    switch (result.kind) {
    case Removal::Kind::unchanged: return *this;
    case Removal::Kind::gone: return std::nullopt;
    case Removal::Kind::replaced: return std::move(result.node);
    }
    return *this;
}

PaneNode PaneNode::settingFractions(UUID splitID, const std::vector<double>& fractions) const {
    if (!fractionsAreUsable(fractions)) return *this;
    const double sum = std::accumulate(fractions.begin(), fractions.end(), 0.0);
    std::vector<double> scaled = fractions;
    for (double& f : scaled)
        f /= sum;
    return withFractions(*this, splitID, scaled).value_or(*this);
}

PaneNode PaneNode::cleaned() const {
    return freshCopy(*this);
}

nlohmann::json PaneNode::toJSON() const {
    return encode(*this);
}

std::optional<PaneNode> PaneNode::fromJSON(const nlohmann::json& json) {
    return Decoder{}.decode(json, 1);
}

} // namespace OstrelCore
