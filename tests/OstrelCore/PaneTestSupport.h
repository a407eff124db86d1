// Builders and a text form for pane trees, so that tables read as layouts: leaves L1, L2...,
// sessions S1..., splits H{...} or V{...} with each child's fraction after it. Ids the tree makes
// itself print as "?".
#pragma once

#include "OstrelCore/PaneNode.h"

#include <cstdio>
#include <string>

namespace PaneTest {

using OstrelCore::PaneAxis;
using OstrelCore::PaneNode;
using OstrelCore::UUID;

inline UUID numbered(std::uint8_t prefix, int n) {
    UUID uuid;
    uuid.bytes[0] = prefix;
    uuid.bytes[15] = static_cast<std::uint8_t>(n);
    return uuid;
}
inline UUID id(int n) {
    return numbered(0x00, n);
}
inline UUID sid(int n) {
    return numbered(0xEE, n);
}

inline std::string number(UUID uuid, std::uint8_t prefix) {
    const int n = uuid.bytes[15];
    uuid.bytes[15] = 0;
    return uuid == numbered(prefix, 0) ? std::to_string(n) : "?";
}

inline PaneNode L(int n) {
    return PaneNode::LeafPayload{id(n), std::nullopt};
}
inline PaneNode L(int n, int session) {
    return PaneNode::LeafPayload{id(n), sid(session)};
}
inline PaneNode split(PaneAxis axis, int n, std::vector<PaneNode> children, std::vector<double> fractions) {
    if (fractions.empty()) fractions.assign(children.size(), 1.0 / static_cast<double>(children.size()));
    return PaneNode::SplitPayload{id(n), axis, std::move(children), std::move(fractions)};
}
inline PaneNode H(int n, std::vector<PaneNode> children, std::vector<double> fractions = {}) {
    return split(PaneAxis::horizontal, n, std::move(children), std::move(fractions));
}
inline PaneNode V(int n, std::vector<PaneNode> children, std::vector<double> fractions = {}) {
    return split(PaneAxis::vertical, n, std::move(children), std::move(fractions));
}

// Appends rather than chaining operator+: g++ 12 misreads such chains (-Wrestrict).
inline std::string describe(const PaneNode& node) {
    if (const auto* leaf = node.asLeaf()) {
        std::string text = "L";
        text.append(number(leaf->id, 0x00));
        if (leaf->sessionID) text.append("@S").append(number(*leaf->sessionID, 0xEE));
        return text;
    }
    const auto& split = *node.asSplit();
    std::string text(split.axis == PaneAxis::horizontal ? "H" : "V");
    text.push_back('{');
    for (std::size_t i = 0; i < split.children.size(); ++i) {
        char fraction[32];
        std::snprintf(fraction, sizeof fraction, " %g",
                      i < split.fractions.size() ? split.fractions[i] : -1.0);
        text.append(i ? ", " : "").append(describe(split.children[i])).append(fraction);
    }
    return text + "}";
}

} // namespace PaneTest
