// Long random runs of tree operations, checking after every step what the store and the views
// rely on: unique ids and sessions, well-formed splits, a layout that tiles its container, and
// panes that keep their id and session while the tree is reshaped around them.
#include "OstrelCore/PaneLayout.h"
#include "OstrelCore/PanePlacement.h"
#include "OstrelCore/PaneTestSupport.h"

#include <algorithm>
#include <random>
#include <unordered_set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace PaneTest;
using OstrelCore::PaneDropZone;
using OstrelCore::PaneLayout;
using OstrelCore::PanePlacement;
using OstrelCore::PaneRect;
using OstrelCore::PaneSize;

namespace {

void checkStructure(const PaneNode& node, std::unordered_set<UUID>& ids, std::unordered_set<UUID>& sessions,
                    std::vector<UUID>& splits) {
    ASSERT_TRUE(ids.insert(node.id()).second) << "repeated id";
    if (const auto* leaf = node.asLeaf()) {
        ASSERT_TRUE(!leaf->sessionID || sessions.insert(*leaf->sessionID).second) << "session in two leaves";
        return;
    }
    const auto& split = *node.asSplit();
    splits.push_back(split.id);
    ASSERT_GE(split.children.size(), 2u);
    ASSERT_EQ(split.fractions.size(), split.children.size());
    double sum = 0;
    for (double f : split.fractions)
        sum += f;
    ASSERT_NEAR(sum, 1.0, 1e-9);
    for (const auto& child : split.children)
        checkStructure(child, ids, sessions, splits);
}

// Inside, pairwise disjoint, and together exactly as large as the container: a tiling.
void checkLayout(const PaneNode& tree, PaneRect bounds) {
    const PaneLayout layout = PaneLayout::of(tree, bounds);
    ASSERT_EQ(layout.leaves.size(), tree.leafIDs().size());
    std::vector<PaneRect> frames;
    for (const auto& leaf : layout.leaves) {
        frames.push_back(leaf.frame);
        ASSERT_EQ(PaneLayout::rect(tree, leaf.id, bounds.size()), leaf.frame.size());
    }
    for (const auto& divider : layout.dividers)
        frames.push_back(divider.frame);
    double area = 0;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const auto& f = frames[i];
        ASSERT_TRUE(f.width >= 0 && f.height >= 0);
        ASSERT_TRUE(f.x >= bounds.x - 1e-9 && f.x + f.width <= bounds.x + bounds.width + 1e-9);
        ASSERT_TRUE(f.y >= bounds.y - 1e-9 && f.y + f.height <= bounds.y + bounds.height + 1e-9);
        for (std::size_t j = i + 1; j < frames.size(); ++j) {
            const auto& g = frames[j];
            const double w = std::min(f.x + f.width, g.x + g.width) - std::max(f.x, g.x);
            const double h = std::min(f.y + f.height, g.y + g.height) - std::max(f.y, g.y);
            ASSERT_FALSE(w > 1e-9 && h > 1e-9) << "frames overlap";
        }
        area += f.width * f.height;
    }
    ASSERT_NEAR(area, bounds.width * bounds.height, 1e-6 * (1 + bounds.width * bounds.height));
}

void runRandomOperations(unsigned seed, int steps) {
    std::mt19937 random(seed);
    auto uniform = [&](int low, int high) { return std::uniform_int_distribution<int>(low, high)(random); };
    auto real = [&](double low, double high) {
        return std::uniform_real_distribution<double>(low, high)(random);
    };
    PaneNode tree = PaneNode::emptyLeaf();
    std::optional<UUID> focused; // as the store remembers it: may name a leaf that is gone
    std::vector<UUID> splits;
    for (int step = 0; step < steps; ++step) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
        const auto leaves = tree.leafIDs();
        const UUID leaf = leaves[static_cast<std::size_t>(uniform(0, static_cast<int>(leaves.size()) - 1))];
        const UUID session = sid(uniform(1, 12));
        const auto axis = uniform(0, 1) ? PaneAxis::horizontal : PaneAxis::vertical;
        // Grow while small and shrink while large, so that a run visits many sizes.
        const bool grow = leaves.size() < 3 || (leaves.size() < 30 && uniform(0, 2) > 0);
        const PaneNode before = tree;
        switch (uniform(0, 9)) {
        case 0:
            if (!grow) break;
            tree = tree.splitting(leaf, axis);
            ASSERT_EQ(tree.session(leaf), before.session(leaf));
            ASSERT_EQ(tree.sessionIDs(), before.sessionIDs());
            break;
        case 1:
            if (grow) tree = tree.inserting(session, UUID::random(), leaf, axis, uniform(0, 1));
            break;
        case 2: tree = PanePlacement::closePane(tree, leaf); break;
        case 3:
            tree = tree.assigning(uniform(0, 3) ? std::optional(session) : std::nullopt, leaf);
            ASSERT_EQ(tree.leafIDs(), leaves);
            for (const UUID& other : leaves)
                ASSERT_TRUE(other == leaf || before.session(other) == session ||
                            tree.session(other) == before.session(other));
            break;
        case 4: tree = tree.removingSession(session); break;
        case 5: {
            if (splits.empty()) break;
            const UUID split =
                splits[static_cast<std::size_t>(uniform(0, static_cast<int>(splits.size()) - 1))];
            // Any positive numbers, as a view measuring in points would send.
            std::vector<double> fractions(static_cast<std::size_t>(uniform(2, 4)));
            for (double& f : fractions)
                f = real(0.01, 900);
            tree = tree.settingFractions(split, fractions);
            break;
        }
        case 6: {
            const auto zone = static_cast<PaneDropZone>(uniform(0, 4));
            if (zone != PaneDropZone::center && !grow) break;
            if (auto dropped = PanePlacement::drop(tree, session, leaf, zone)) {
                tree = std::move(dropped->tree);
                ASSERT_EQ(tree.session(dropped->leaf), session);
            }
            break;
        }
        case 8: {
            // A new or selected session, as the store places it: maybe from a pending pane, with
            // splitting only while the tree may grow, in a window of some size.
            const std::optional<UUID> pending = uniform(0, 3) == 0 ? std::optional(leaf) : std::nullopt;
            const PaneSize area{real(0, 3000), real(0, 1800)};
            const auto placed = PanePlacement::placeSession(tree, session, pending, focused, grow, area);
            const auto had = before.leaf(session);
            tree = placed.tree;
            focused = placed.leaf;
            ASSERT_TRUE(tree.containsLeaf(placed.leaf));
            ASSERT_EQ(tree.session(placed.leaf), session);
            if (had) {
                ASSERT_EQ(placed.leaf, *had); // a placed session never moves
            }
            ASSERT_GE(tree.leafIDs().size(), leaves.size());
            break;
        }
        case 9: {
            // The tree as a template for its own sessions and one more.
            auto sessions = before.sessionIDs();
            sessions.push_back(sid(13));
            const auto applied = PanePlacement::applyTemplate(before.cleaned(), sessions);
            tree = applied.tree;
            focused = applied.leaf;
            const auto placed = tree.sessionIDs();
            ASSERT_EQ(tree.leafIDs().size(), leaves.size());
            ASSERT_EQ(placed.size(), std::min(leaves.size(), sessions.size()));
            ASSERT_TRUE(std::equal(placed.begin(), placed.end(), sessions.begin()));
            ASSERT_EQ(focused, tree.leafIDs().front());
            tree = tree.removingSession(sid(13));
            break;
        }
        case 7:
            ASSERT_EQ(tree.splitting(UUID::random(), axis), tree);
            ASSERT_EQ(tree.removingLeaf(UUID::random()), tree);
            ASSERT_EQ(tree.assigning(session, UUID::random()), tree);
            ASSERT_EQ(PaneNode::fromJSON(tree.toJSON()), tree);
            break;
        }
        std::unordered_set<UUID> ids;
        std::unordered_set<UUID> sessions;
        splits.clear();
        checkStructure(tree, ids, sessions, splits);
        ASSERT_LE(tree.depth(), PaneNode::maxDepth);
        checkLayout(tree, {real(-50, 50), real(-50, 50), real(0, 2500), real(0, 1500)});
        const auto focus = PanePlacement::focusedLeaf(tree, focused);
        ASSERT_TRUE(focus && tree.containsLeaf(*focus)); // a tree always has a leaf to focus
        if (testing::Test::HasFatalFailure()) return;    // the first broken step tells the story
    }
}

} // namespace

TEST(PaneTreeProperty, InvariantsHoldThroughLongRandomRuns) {
    for (unsigned seed : {1u, 7u, 42u, 2024u}) {
        runRandomOperations(seed, 3000);
        if (HasFatalFailure()) return;
    }
}
