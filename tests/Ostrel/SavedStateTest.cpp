// state.json on its own: the written form, round trips, and files that are partial or damaged.
#include "Ostrel/SavedState.h"

#include "OstrelCore/PanePreset.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace Ostrel {
namespace {

using OstrelCore::PaneNode;

SavedState sampleState() {
    SavedState state;
    const UUID first = UUID::random(), second = UUID::random();
    state.projects = {{first, "web", "/work/web", 0, std::nullopt},
                      {second, "api's", "/work/api", 3, "#FF8800"}};
    state.layouts.emplace(first, OstrelCore::makePaneTree(OstrelCore::PanePreset::onePlusTwo));
    state.layouts.emplace(second, PaneNode::emptyLeaf());
    state.templates = {
        OstrelCore::PaneTemplate::make("grid", OstrelCore::makePaneTree(OstrelCore::PanePreset::grid))};
    state.usageCounts = {{"claude", 4}, {"shell", 1}};
    state.selectedProjectID = second;
    state.collapsedProjects = {first};
    state.restorable[first] = {
        {OstrelCore::SessionKind::claude, "Fix it", "claude --resume 'a'\\''b'", 2, 13.5, 1},
        {OstrelCore::SessionKind::shell, "", std::nullopt, std::nullopt, 11.0, std::nullopt},
    };
    return state;
}

TEST(SavedState, EncodingRoundTripsAndWritesUUIDMapsAsFlatUpperCaseArrays) {
    const SavedState state = sampleState();
    const std::string text = state.encode();
    EXPECT_EQ(SavedState::decode(text), state);

    const auto json = nlohmann::json::parse(text);
    const auto& layouts = json.at("layouts");
    ASSERT_TRUE(layouts.is_array());
    ASSERT_EQ(layouts.size(), 4u);
    for (std::size_t i = 0; i < layouts.size(); i += 2) {
        const std::string key = layouts[i].get<std::string>();
        EXPECT_EQ(key.find_first_of("abcdef"), std::string::npos) << key;
        const bool web = key == state.projects[0].id.uuidString();
        EXPECT_EQ(layouts[i + 1].contains("split"), web) << key;
    }
    EXPECT_EQ(json.at("restorable").size(), 2u);
    EXPECT_TRUE(json.at("restorable")[1].is_array());
    EXPECT_TRUE(json.at("usageCounts").is_object());
    // Absent optionals are left out, not written as null.
    EXPECT_FALSE(json.at("projects")[0].contains("customColorHex"));
    EXPECT_FALSE(json.at("restorable")[1][1].contains("visibleSlot"));
}

TEST(SavedState, PartialFilesLoadAndDamagedOnesAreRefusedWhole) {
    const std::string id = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
    const std::string project = R"({"id":")" + id + R"(","name":"x","path":"/x","colorIndex":0})";
    struct Case {
        const char* name;
        std::string text;
        bool loads;
    };
    const Case cases[] = {
        {"only projects", R"({"projects":[)" + project + "]}", true},
        {"unknown keys and nulls", R"({"projects":[)" + project + R"(],"future":1,"selectedProjectID":null})",
         true},
        {"lower-case UUID",
         R"({"projects":[{"id":"e621e1f8-c36c-495a-93fc-0c247a3e6e5f","name":"x","path":"/x","colorIndex":0}]})",
         true},
        {"integral double",
         R"({"projects":[{"id":")" + id + R"(","name":"x","path":"/x","colorIndex":2.0}]})", true},
        {"empty object", "{}", false},
        {"not JSON", "{\"projects\": [", false},
        {"a bare array", "[]", false},
        {"project without path", R"({"projects":[{"id":")" + id + R"(","name":"x","colorIndex":0}]})", false},
        {"fractional index",
         R"({"projects":[{"id":")" + id + R"(","name":"x","path":"/x","colorIndex":1.5}]})", false},
        {"bad UUID", R"({"projects":[{"id":"nope","name":"x","path":"/x","colorIndex":0}]})", false},
        {"odd layout array", R"({"projects":[],"layouts":[")" + id + R"("]})", false},
        {"damaged tree", R"({"projects":[],"layouts":[")" + id + R"(",{"split":{"id":")" + id + R"("}}]})",
         false},
        {"layouts as object", R"({"projects":[],"layouts":{}})", false},
        {"unknown kind",
         R"({"projects":[],"restorable":[")" + id + R"(",[{"kind":"vim","title":"","fontSize":11}]]})",
         false},
        {"count as text", R"({"projects":[],"usageCounts":{"claude":"4"}})", false},
        {"collapsed not UUIDs", R"({"projects":[],"collapsedProjects":[1]})", false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(SavedState::decode(c.text).has_value(), c.loads) << c.name;

    const auto partial = SavedState::decode(cases[0].text);
    ASSERT_TRUE(partial);
    EXPECT_EQ(partial->projects.size(), 1u);
    EXPECT_TRUE(partial->layouts.empty() && partial->templates.empty() && partial->restorable.empty());
    EXPECT_FALSE(partial->selectedProjectID);
}

} // namespace
} // namespace Ostrel
