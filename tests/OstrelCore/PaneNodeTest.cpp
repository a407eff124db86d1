// Pane tree operations, presets, templates and the tree's JSON form.
#include "OstrelCore/PaneNode.h"

#include "OstrelCore/PanePreset.h"
#include "OstrelCore/PaneTemplate.h"
#include "OstrelCore/PaneTestSupport.h"

#include <functional>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace PaneTest;
using OstrelCore::PaneTemplate;
using json = nlohmann::json;

namespace {
const PaneNode two = H(100, {L(1, 1), L(2, 2)});
const PaneNode three = H(100, {L(1), L(2), L(3)}, {0.5, 0.25, 0.25});
const PaneNode nested = H(100, {L(1, 1), V(101, {L(2, 2), L(3)})}, {0.6, 0.4});
constexpr auto h = PaneAxis::horizontal;
constexpr auto v = PaneAxis::vertical;
} // namespace

// Unknown ids are the random runs' concern (PaneTreePropertyTest).
TEST(PaneNode, OperationsGiveTheExpectedShapesAndBadArgumentsChangeNothing) {
    struct Case {
        const char* name;
        const PaneNode& tree;
        std::function<PaneNode(const PaneNode&)> operation;
        std::string expected; // empty: unchanged
    };
    const std::vector<double> scaled{30, 70}, odd{1, 1, 1}, negative{-0.5, 1.5};
    const Case cases[] = {
        {"split second of two sideways", two, [](auto& t) { return t.splitting(id(2), h, id(9)); },
         "H{L1@S1 0.5, L2@S2 0.25, L9 0.25}"},
        {"split across the parent nests", two, [](auto& t) { return t.splitting(id(2), v, id(9)); },
         "H{L1@S1 0.5, V{L2@S2 0.5, L9 0.5} 0.5}"},
        {"split a split", nested, [](auto& t) { return t.splitting(id(101), h, id(9)); }, ""},
        {"split with a taken id", two, [](auto& t) { return t.splitting(id(1), h, id(2)); }, ""},
        {"insert before", three, [](auto& t) { return t.inserting(sid(5), id(9), id(1), h, true); },
         "H{L9@S5 0.25, L1 0.25, L2 0.25, L3 0.25}"},
        {"insert takes the session from its old leaf", two,
         [](auto& t) { return t.inserting(sid(2), id(9), id(1), v, true); },
         "H{V{L9@S2 0.5, L1@S1 0.5} 0.5, L2 0.5}"},
        {"insert next to unknown", two, [](auto& t) { return t.inserting(sid(5), id(9), id(7), h, true); },
         ""},
        {"remove one of two", two, [](auto& t) { return *t.removingLeaf(id(1)); }, "L2@S2"},
        {"remove last of three", three, [](auto& t) { return *t.removingLeaf(id(3)); },
         "H{L1 0.666667, L2 0.333333}"},
        {"remove collapses a nested split", nested, [](auto& t) { return *t.removingLeaf(id(3)); },
         "H{L1@S1 0.6, L2@S2 0.4}"},
        {"remove a split's id", nested, [](auto& t) { return *t.removingLeaf(id(101)); }, ""},
        {"assign moves a placed session", nested, [](auto& t) { return t.assigning(sid(1), id(3)); },
         "H{L1 0.6, V{L2@S2 0.5, L3@S1 0.5} 0.4}"},
        {"assign none empties", nested, [](auto& t) { return t.assigning(std::nullopt, id(2)); },
         "H{L1@S1 0.6, V{L2 0.5, L3 0.5} 0.4}"},
        {"remove session", nested, [](auto& t) { return t.removingSession(sid(2)); },
         "H{L1@S1 0.6, V{L2 0.5, L3 0.5} 0.4}"},
        {"fractions are scaled to a sum of 1", nested,
         [&](auto& t) { return t.settingFractions(id(101), scaled); },
         "H{L1@S1 0.6, V{L2@S2 0.3, L3 0.7} 0.4}"},
        {"fractions of the wrong count", nested, [&](auto& t) { return t.settingFractions(id(101), odd); },
         ""},
        {"negative fractions", nested, [&](auto& t) { return t.settingFractions(id(101), negative); }, ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(describe(c.operation(c.tree)), c.expected.empty() ? describe(c.tree) : c.expected)
            << c.name;
    EXPECT_FALSE(L(1, 1).removingLeaf(id(1)));
}

TEST(PaneNode, QueriesWalkLeavesDepthFirstLeftToRight) {
    const PaneNode tree = V(100, {H(101, {L(1), L(2, 7)}), L(3, 4), H(102, {L(5), L(6, 1)})});
    EXPECT_EQ(tree.leafIDs(), (std::vector{id(1), id(2), id(3), id(5), id(6)}));
    EXPECT_EQ(tree.sessionIDs(), (std::vector{sid(7), sid(4), sid(1)}));
    EXPECT_EQ(tree.session(id(2)), sid(7));
    EXPECT_EQ(tree.leaf(sid(1)), id(6));
    EXPECT_EQ(tree.firstEmptyLeaf(), id(1));
}

TEST(PaneNode, CleanedKeepsTheShapeWithFreshIdsAndNoSessions) {
    const PaneNode clean = nested.cleaned();
    EXPECT_EQ(describe(clean), "H{L? 0.6, V{L? 0.5, L? 0.5} 0.4}");
    EXPECT_FALSE(nested.containsID(clean.id()));
}

TEST(PaneNode, NestingStopsAtTheDepthTheStateFileAccepts) {
    PaneNode tree = L(1);
    UUID deepest = id(1);
    for (std::size_t i = 0; i < 2 * PaneNode::maxDepth; ++i) {
        const UUID next = UUID::random();
        tree = tree.splitting(deepest, i % 2 ? v : h, next);
        if (tree.containsLeaf(next)) deepest = next;
    }
    EXPECT_EQ(tree.depth(), PaneNode::maxDepth);
    EXPECT_EQ(PaneNode::fromJSON(tree.toJSON()), tree);
    const json deeper = {{"split",
                          {{"id", UUID::random().uuidString()},
                           {"axis", "vertical"},
                           {"children", {tree.toJSON(), L(200).toJSON()}}}}};
    EXPECT_FALSE(PaneNode::fromJSON(deeper));
}

TEST(PaneNode, EncodesLeavesAndSplitsUnderTheirSingleKey) {
    EXPECT_EQ(L(1, 1).toJSON().dump(), R"({"leaf":{"id":"00000000-0000-0000-0000-000000000001",)"
                                       R"("sessionID":"EE000000-0000-0000-0000-000000000001"}})");
    EXPECT_EQ(
        H(100, {L(1), L(2)}, {0.3, 0.7}).toJSON().dump(),
        R"({"split":{"axis":"horizontal","children":[{"leaf":{"id":"00000000-0000-0000-0000-000000000001"}},)"
        R"({"leaf":{"id":"00000000-0000-0000-0000-000000000002"}}],"fractions":[0.3,0.7],)"
        R"("id":"00000000-0000-0000-0000-000000000064"}})");
    EXPECT_EQ(PaneNode::fromJSON(nested.toJSON()), nested);
}

TEST(PaneNode, DecodingRejectsAnyDamageButFillsMissingFractions) {
    const json valid = nested.toJSON();
    struct Case {
        const char* pointer;
        json value; // null: the key is removed
        bool decodes;
    };
    const Case cases[] = {
        {"/split/fractions", nullptr, true},
        {"/split/fractions", {1.0}, true},
        {"/split/children/0/leaf/sessionID", nullptr, true},
        {"/split/children/0/leaf/id", "00000000-0000-0000-0000-00000000000a", true},
        {"/split/children/0/leaf/extra", 1, true},
        {"/split/axis", "diagonal", false},
        {"/split/axis", nullptr, false},
        {"/split/id", "not-a-uuid", false},
        {"/split/children/0/leaf/id", 7, false},
        {"/split/children/0/leaf/sessionID", "x", false},
        {"/split/children/0/leaf/sessionID", "EE000000-0000-0000-0000-000000000002", false},
        {"/split/children/0/leaf/id", "00000000-0000-0000-0000-000000000002", false},
        {"/split/children/1/split/children", json::array({L(5).toJSON()}), false},
        {"/split/children/1/split/children", json::object(), false},
        {"/split/children/1", json::array(), false},
        {"/split/children/1/leaf", L(5).toJSON()["leaf"], false},
        {"/split/children/0/leaf", "00000000-0000-0000-0000-000000000001", false},
        {"/split/fractions", {0.5, "0.5"}, false},
        {"/split/fractions", {1.5, -0.5}, false},
        {"/split/fractions", 0.5, false},
    };
    for (const auto& c : cases) {
        json damaged = valid;
        if (c.value.is_null())
            damaged[json::json_pointer(c.pointer).parent_pointer()].erase(
                json::json_pointer(c.pointer).back());
        else
            damaged[json::json_pointer(c.pointer)] = c.value;
        EXPECT_EQ(PaneNode::fromJSON(damaged).has_value(), c.decodes) << c.pointer << " = " << c.value;
    }
    auto noFractions = valid;
    noFractions["split"].erase("fractions");
    EXPECT_EQ(describe(*PaneNode::fromJSON(noFractions)), "H{L1@S1 0.5, V{L2@S2 0.5, L3 0.5} 0.5}");
    for (const char* text : {"[]", "null", R"({"pane":{}})"})
        EXPECT_FALSE(PaneNode::fromJSON(json::parse(text)));
}

TEST(PaneNode, PresetsHaveTheirShapesWithFreshIdsAndEmptyLeaves) {
    using OstrelCore::PanePreset;
    const std::pair<PanePreset, const char*> cases[] = {
        {PanePreset::single, "L?"},
        {PanePreset::twoColumns, "H{L? 0.5, L? 0.5}"},
        {PanePreset::twoRows, "V{L? 0.5, L? 0.5}"},
        {PanePreset::onePlusTwo, "H{L? 0.5, V{L? 0.5, L? 0.5} 0.5}"},
        {PanePreset::grid, "V{H{L? 0.5, L? 0.5} 0.5, H{L? 0.5, L? 0.5} 0.5}"},
    };
    for (const auto& [preset, shape] : cases) {
        const PaneNode tree = makePaneTree(preset);
        EXPECT_EQ(describe(tree), shape);
        EXPECT_EQ(PaneNode::fromJSON(tree.toJSON()), tree); // ids unique, or decoding would refuse
        EXPECT_NE(makePaneTree(preset).id(), tree.id());
    }
}

TEST(PaneTemplate, RoundTripsDropsSessionsAndRejectsMissingKeys) {
    const PaneTemplate saved = PaneTemplate::make("Review", nested);
    EXPECT_EQ(describe(saved.node), "H{L? 0.6, V{L? 0.5, L? 0.5} 0.4}");
    EXPECT_EQ(PaneTemplate::fromJSON(saved.toJSON()), saved);
    json withSessions = saved.toJSON();
    withSessions["node"] = nested.toJSON();
    EXPECT_TRUE(PaneTemplate::fromJSON(withSessions)->node.sessionIDs().empty());
    for (const char* key : {"id", "name", "node"}) {
        json damaged = saved.toJSON();
        damaged[key] = 42;
        EXPECT_FALSE(PaneTemplate::fromJSON(damaged)) << key;
    }
}
