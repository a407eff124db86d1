// Placing sessions, automatic splitting at the size limits, drag and drop, templates. Templates with
// fewer panes than sessions and closing the last pane are driven through the store's tests.
#include "OstrelCore/PanePlacement.h"

#include "OstrelCore/PaneTestSupport.h"

#include <gtest/gtest.h>

using namespace PaneTest;
using OstrelCore::PaneDropZone;
using OstrelCore::PanePlacement;
using OstrelCore::PaneSize;

namespace {
// The tree's text form, then the focused leaf: its number, or "new" for a leaf the call made.
std::string shown(const PanePlacement& placed, const PaneNode& before) {
    const std::string focus = before.containsLeaf(placed.leaf) ? number(placed.leaf, 0x00) : "new";
    return describe(placed.tree).append(" -> ").append(focus);
}
} // namespace

TEST(PanePlacement, AutoSplitHalvesTheLargestPaneThatStillFitsTheMinimum) {
    struct Case {
        const char* name;
        PaneNode tree;
        PaneSize area;
        std::string expected;
    };
    const Case cases[] = {
        {"wide pane goes side by side", L(1, 1), {805, 100}, "H{L1@S1 0.5, L? 0.5} -> new"},
        {"narrow halves stack, first of equals",
         H(100, {L(1, 1), L(2, 2)}),
         {1005, 600},
         "H{V{L1@S1 0.5, L? 0.5} 0.5, L2@S2 0.5} -> new"},
        {"the larger pane",
         H(100, {L(1, 1), L(2, 2)}, {0.3, 0.7}),
         {1000, 600},
         "H{L1@S1 0.3, V{L2@S2 0.5, L? 0.5} 0.7} -> new"},
        {"a full window reuses the focused pane",
         H(100, {L(1, 1), L(2, 2)}),
         {1000, 280},
         "H{L1@S1 0.5, L2@S2 0.5} -> 2"},
        {"nothing is split before layout", L(1, 1), {0, 0}, "L1@S1 -> 1"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(shown(PanePlacement::autoSplit(c.tree, id(2), c.area), c.tree), c.expected);
}

TEST(PanePlacement, PlaceSessionPrefersItsOwnPaneThenPendingThenEmptyThenRoom) {
    const PaneNode full = H(100, {L(1, 1), L(2, 2)});
    const PaneNode gaps = H(100, {L(1, 1), L(2), L(3)}, {0.5, 0.25, 0.25});
    struct Case {
        const PaneNode& tree;
        int session;
        std::optional<UUID> pending;
        bool allowSplit;
        std::string expected;
    };
    const Case cases[] = {
        {full, 2, id(1), true, "H{L1@S1 0.5, L2@S2 0.5} -> 2"},
        {gaps, 5, id(3), true, "H{L1@S1 0.5, L2 0.25, L3@S5 0.25} -> 3"},
        {gaps, 5, id(9), true, "H{L1@S1 0.5, L2@S5 0.25, L3 0.25} -> 2"},
        {gaps, 5, id(100), true, "H{L1@S1 0.5, L2@S5 0.25, L3 0.25} -> 2"},
        {full, 5, std::nullopt, false, "H{L1@S1 0.5, L2@S5 0.5} -> 2"},
        {full, 5, std::nullopt, true, "H{L1@S1 0.5, V{L2@S2 0.5, L?@S5 0.5} 0.5} -> new"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(shown(PanePlacement::placeSession(c.tree, sid(c.session), c.pending, id(2), c.allowSplit,
                                                    {1000, 600}),
                        c.tree),
                  c.expected);
}

TEST(PanePlacement, DropSwapsInTheCentreAndMovesToAnEdge) {
    const PaneNode tree = H(100, {L(1, 1), L(2, 2), L(3)}, {0.5, 0.25, 0.25});
    struct Case {
        const char* name;
        int session;
        int target;
        PaneDropZone zone;
        std::string expected; // empty: nothing happens
    };
    const Case cases[] = {
        {"centre swaps", 1, 2, PaneDropZone::center, "H{L1@S2 0.5, L2@S1 0.25, L3 0.25} -> 2"},
        {"centre of an empty pane", 1, 3, PaneDropZone::center, "H{L1 0.5, L2@S2 0.25, L3@S1 0.25} -> 3"},
        {"from outside, the occupant loses its pane", 7, 2, PaneDropZone::center,
         "H{L1@S1 0.5, L2@S7 0.25, L3 0.25} -> 2"},
        {"edge of an empty pane acts as centre", 1, 3, PaneDropZone::trailing,
         "H{L1 0.5, L2@S2 0.25, L3@S1 0.25} -> 3"},
        {"leading edge closes the old pane", 1, 2, PaneDropZone::leading,
         "H{L9@S1 0.25, L2@S2 0.25, L3 0.5} -> 9"},
        {"bottom edge nests", 1, 2, PaneDropZone::bottom, "H{V{L2@S2 0.5, L9@S1 0.5} 0.5, L3 0.5} -> 9"},
        {"top edge from outside", 7, 2, PaneDropZone::top,
         "H{L1@S1 0.5, V{L9@S7 0.5, L2@S2 0.5} 0.25, L3 0.25} -> 9"},
        {"its own pane", 2, 2, PaneDropZone::bottom, ""},
        {"unknown target", 1, 8, PaneDropZone::center, ""},
        {"a split as target", 1, 100, PaneDropZone::top, ""},
    };
    for (const auto& c : cases) {
        const auto dropped = PanePlacement::drop(tree, sid(c.session), id(c.target), c.zone, id(9));
        // Leaf 9 is made by the drop, yet numbered: show it by number rather than as "new".
        EXPECT_EQ(dropped ? describe(dropped->tree) + " -> " + number(dropped->leaf, 0) : "", c.expected)
            << c.name;
    }
}

TEST(PanePlacement, TemplatesFillLeavesInOrderAndASwapMayTakeAnEmptyPane) {
    const PaneNode shape = H(100, {L(1, 4), V(101, {L(2), L(3)})}, {0.7, 0.3});
    const std::vector<UUID> few{sid(1), sid(2)};
    const auto placed = PanePlacement::applyTemplate(shape, few);
    EXPECT_EQ(describe(placed.tree), "H{L?@S1 0.7, V{L?@S2 0.5, L? 0.5} 0.3}");
    EXPECT_EQ(placed.leaf, placed.tree.leafIDs().front());
    // A swap with an empty pane moves the session there.
    EXPECT_EQ(describe(PanePlacement::swapPanes(H(100, {L(1, 1), L(2)}), id(1), id(2))),
              "H{L1 0.5, L2@S1 0.5}");
}
