// Placement decisions over pane trees.
#include "OstrelCore/PanePlacement.h"

#include <algorithm>

namespace OstrelCore {
namespace {

// A hand-built tree could in principle have no leaf at all; it is then replaced rather than
// trusted.
PanePlacement intoFreshTree(std::optional<UUID> session) {
    PaneNode tree = PaneNode::emptyLeaf();
    const UUID leaf = tree.id();
    return {tree.assigning(session, leaf), leaf};
}

} // namespace

std::optional<UUID> PanePlacement::focusedLeaf(const PaneNode& tree, std::optional<UUID> remembered) {
    if (remembered && tree.containsLeaf(*remembered)) return remembered;
    const auto leaves = tree.leafIDs();
    if (leaves.empty()) return std::nullopt;
    return leaves.front();
}

PanePlacement PanePlacement::autoSplit(const PaneNode& tree, std::optional<UUID> focused, PaneSize paneArea) {
    const auto focus = focusedLeaf(tree, focused);
    if (!focus) return intoFreshTree(std::nullopt);

    struct Candidate {
        UUID leaf;
        PaneSize size;
    };
    // One layout pass gives every leaf's rect at once.
    std::vector<Candidate> candidates;
    for (const auto& leaf : PaneLayout::of(tree, {0, 0, paneArea.width, paneArea.height}).leaves)
        candidates.push_back({leaf.id, leaf.frame.size()});
    // Stable, so that among equal areas the earlier leaf is split.
    std::stable_sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
        return a.size.width * a.size.height > b.size.width * b.size.height;
    });
    for (const auto& candidate : candidates) {
        std::optional<PaneAxis> axis;
        if ((candidate.size.width - PaneLayout::dividerThickness) * 0.5 >= PaneLayout::minPaneWidth)
            axis = PaneAxis::horizontal;
        else if ((candidate.size.height - PaneLayout::dividerThickness) * 0.5 >= PaneLayout::minPaneHeight)
            axis = PaneAxis::vertical;
        if (!axis) continue;
        const UUID newLeaf = UUID::random();
        PaneNode split = tree.splitting(candidate.leaf, *axis, newLeaf);
        // Refused only at the nesting limit; a smaller leaf may still take it.
        if (split.containsLeaf(newLeaf)) return {std::move(split), newLeaf};
    }
    return {tree, *focus};
}

PanePlacement PanePlacement::placeSession(const PaneNode& tree, UUID session, std::optional<UUID> pendingLeaf,
                                          std::optional<UUID> focused, bool allowSplit, PaneSize paneArea) {
    if (auto current = tree.leaf(session)) return {tree, *current};

    std::optional<UUID> target;
    PaneNode base = tree;
    if (pendingLeaf && tree.containsLeaf(*pendingLeaf))
        target = pendingLeaf;
    else
        target = tree.firstEmptyLeaf();
    if (!target) {
        if (allowSplit) {
            PanePlacement room = autoSplit(tree, focused, paneArea);
            base = std::move(room.tree);
            target = room.leaf;
        } else {
            target = focusedLeaf(tree, focused);
        }
    }
    if (!target) return intoFreshTree(session);
    return {base.assigning(session, *target), *target};
}

std::optional<PanePlacement> PanePlacement::drop(const PaneNode& tree, UUID session, UUID target,
                                                 PaneDropZone zone) {
    return drop(tree, session, target, zone, UUID::random());
}

std::optional<PanePlacement> PanePlacement::drop(const PaneNode& tree, UUID session, UUID target,
                                                 PaneDropZone zone, UUID newLeafID) {
    if (!tree.containsLeaf(target)) return std::nullopt;
    const auto from = tree.leaf(session);
    // Dropping a pane anywhere on itself is no move at all.
    if (from == target) return std::nullopt;

    const auto occupant = tree.session(target);
    if (zone == PaneDropZone::center || !occupant) {
        PaneNode moved = tree;
        if (from) moved = moved.assigning(occupant, *from);
        return PanePlacement{moved.assigning(session, target), target};
    }

    const PaneAxis axis = zone == PaneDropZone::leading || zone == PaneDropZone::trailing
                              ? PaneAxis::horizontal
                              : PaneAxis::vertical;
    const bool before = zone == PaneDropZone::leading || zone == PaneDropZone::top;
    PaneNode moved = tree;
    // The old pane closes so that its area goes back to its neighbours. It is never the whole
    // tree here, since the target is another leaf.
    if (from) moved = moved.removingLeaf(*from).value_or(tree);
    PaneNode inserted = moved.inserting(session, newLeafID, target, axis, before);
    if (!inserted.containsLeaf(newLeafID)) return std::nullopt; // the id was taken, or nesting is full
    return PanePlacement{std::move(inserted), newLeafID};
}

PanePlacement PanePlacement::applyTemplate(const PaneNode& templateNode, std::span<const UUID> sessions) {
    PaneNode tree = templateNode.cleaned();
    const auto leaves = tree.leafIDs();
    if (leaves.empty())
        return intoFreshTree(sessions.empty() ? std::nullopt : std::optional(sessions.front()));
    const std::size_t placed = std::min(leaves.size(), sessions.size());
    for (std::size_t i = 0; i < placed; ++i)
        tree = tree.assigning(sessions[i], leaves[i]);
    return {std::move(tree), leaves.front()};
}

PaneNode PanePlacement::closePane(const PaneNode& tree, UUID leaf) {
    auto remaining = tree.removingLeaf(leaf);
    return remaining ? std::move(*remaining) : PaneNode::emptyLeaf();
}

PaneNode PanePlacement::swapPanes(const PaneNode& tree, UUID first, UUID second) {
    if (first == second || !tree.containsLeaf(first) || !tree.containsLeaf(second)) return tree;
    const auto firstSession = tree.session(first);
    const auto secondSession = tree.session(second);
    return tree.assigning(std::nullopt, first)
        .assigning(std::nullopt, second)
        .assigning(secondSession, first)
        .assigning(firstSession, second);
}

} // namespace OstrelCore
