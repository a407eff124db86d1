// Sharing a split's extent, leaf sizes and frames, drop zones.
#include "OstrelCore/PaneLayout.h"

#include "OstrelCore/PaneTestSupport.h"

#include <limits>

#include <gtest/gtest.h>

using namespace PaneTest;
using OstrelCore::PaneDropZone;
using OstrelCore::PaneLayout;
using OstrelCore::PaneSize;

TEST(PaneLayout, DistributeSharesTheExtentAndKeepsMinimumsWithinAnEqualShare) {
    struct Case {
        const char* name;
        std::vector<double> fractions;
        std::size_t count;
        double extent;
        double minimum;
        std::vector<double> expected;
    };
    const double third = 1.0 / 3;
    const Case cases[] = {
        {"three equal in 1000", {third, third, third}, 3, 1000, 400, {330, 330, 330}},
        {"last takes the rounding", {third, third, third}, 3, 1001, 100, {330, 330, 331}},
        {"small child raised from the largest", {0.9, 0.1}, 2, 500, 400, {248, 247}},
        {"two raised, largest gives first", {0.5, 0.25, 0.25}, 3, 1010, 400, {334, 333, 333}},
        {"minimum under the share", {0.8, 0.2}, 2, 1005, 140, {800, 200}},
        {"fractional extent", {0.5, 0.5}, 2, 1000.5, 0, {497, 498.5}},
        {"too small for the dividers", {0.5, 0.5}, 2, 3, 400, {0, 0}},
        {"negative extent", {0.5, 0.5}, 2, -50, 400, {0, 0}},
        {"wrong count is equal", {1.0}, 2, 205, 10, {100, 100}},
        {"bad sum is scaled", {0.9, 0.9}, 2, 205, 10, {100, 100}},
        {"not a number is equal", {std::numeric_limits<double>::quiet_NaN(), 1.0}, 2, 205, 10, {100, 100}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(PaneLayout::distribute(c.fractions, c.count, c.extent, c.minimum), c.expected) << c.name;
}

TEST(PaneLayout, RectAndFramesAgreeOnANestedTree) {
    const PaneNode tree = H(100, {L(1), V(101, {L(2), L(3)}, {0.25, 0.75})}, {0.4, 0.6});
    EXPECT_EQ(PaneLayout::rect(tree, id(3), {1205, 805}), (PaneSize{720, 600}));
    EXPECT_EQ(PaneLayout::rect(tree, id(101), {1205, 805}), std::nullopt);
    const PaneLayout layout = PaneLayout::of(tree, {10, 20, 1205, 805});
    EXPECT_EQ(layout.leaves,
              (std::vector<PaneLayout::Leaf>{
                  {id(1), {10, 20, 480, 805}}, {id(2), {495, 20, 720, 200}}, {id(3), {495, 225, 720, 600}}}));
    EXPECT_EQ(layout.dividers,
              (std::vector<PaneLayout::Divider>{{id(100), 0, PaneAxis::horizontal, {490, 20, 5, 805}},
                                                {id(101), 0, PaneAxis::vertical, {495, 220, 720, 5}}}));
    // Too small for its dividers: they are cut at the edge, nothing leaves the container.
    const PaneNode three = H(100, {L(1), L(2), L(3)});
    EXPECT_EQ(PaneLayout::of(three, {0, 0, 7, 50}).dividers.back().frame.width, 2);
}

TEST(PaneLayout, DropZonesOfferEdgesOnlyWherePanesCanBeHalved) {
    struct Case {
        const char* name;
        double x, y, width, height;
        PaneDropZone expected;
    };
    const Case cases[] = {
        {"790 wide has no side edges", 5, 150, 790, 300, PaneDropZone::center},
        {"800 wide has them", 5, 150, 800, 300, PaneDropZone::leading},
        {"trailing", 795, 150, 800, 300, PaneDropZone::trailing},
        {"band capped at 160", 159, 150, 1000, 1000, PaneDropZone::leading},
        {"past the band", 161, 500, 1000, 1000, PaneDropZone::center},
        {"bottom band capped at 120", 500, 881, 1000, 1000, PaneDropZone::bottom},
        {"279 high has no top", 100, 5, 300, 279, PaneDropZone::center},
        {"280 high has", 100, 5, 300, 280, PaneDropZone::top},
        {"corner tie goes to leading", 0, 0, 1000, 1000, PaneDropZone::leading},
        {"nearer edge wins", 30, 10, 1000, 1000, PaneDropZone::top},
        {"zero width", 0, 0, 0, 500, PaneDropZone::center},
    };
    for (const auto& c : cases)
        EXPECT_EQ(PaneLayout::dropZone({c.x, c.y}, {c.width, c.height}), c.expected) << c.name;
}
