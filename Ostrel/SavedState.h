// The workspace as it survives a restart: projects, pane shapes, templates, counters and the
// sessions to start again, with the JSON form of state.json.
#pragma once

#include "OstrelCore/PaneNode.h"
#include "OstrelCore/PaneTemplate.h"
#include "OstrelCore/SessionKind.h"
#include "OstrelCore/UUID.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace Ostrel {

using OstrelCore::UUID;

// A working folder the user added. JSON keys are the field names.
struct Project {
    UUID id;
    std::string name; // starts as the folder's last path component
    std::string path; // absolute; unique among projects
    std::int64_t colorIndex = 0;
    std::optional<std::string> customColorHex; // overrides colorIndex when present

    nlohmann::json toJSON() const;
    static std::optional<Project> fromJSON(const nlohmann::json& json);

    bool operator==(const Project&) const = default;
};

// One session that was alive at quit, as the next launch starts it again.
struct RestorableSession {
    OstrelCore::SessionKind kind = OstrelCore::SessionKind::shell;
    std::string title;                  // the user's title, may be empty
    std::optional<std::string> command; // the resume command, else the command it was started with
    std::optional<std::int64_t> tintIndex;
    double fontSize = 11.0;
    // Index among the occupied panes of the project's tree, in leaf order; none when the session
    // had no pane.
    std::optional<std::int64_t> visibleSlot;

    nlohmann::json toJSON() const;
    static std::optional<RestorableSession> fromJSON(const nlohmann::json& json);

    bool operator==(const RestorableSession&) const = default;
};

// The root of state.json. Every key but `projects` is optional on reading, so files written by
// older versions load as they are; there is no version field. Maps keyed by UUID are written as
// one flat array alternating key and value ([id, value, id, value, ...]) with the UUID in
// canonical upper-case text.
struct SavedState {
    std::vector<Project> projects;                             // sidebar order
    std::map<UUID, OstrelCore::PaneNode> layouts;              // cleaned trees
    std::vector<OstrelCore::PaneTemplate> templates;           //
    std::map<std::string, std::int64_t> usageCounts;           // by SessionKind raw value
    std::optional<UUID> selectedProjectID;                     //
    std::vector<UUID> collapsedProjects;                       // a set in the store
    std::map<UUID, std::vector<RestorableSession>> restorable; // by project id

    nlohmann::json toJSON() const;
    std::string encode() const;
    // None when the text isn't JSON, `projects` is missing, or any present key has the wrong
    // form (a damaged tree, a bad UUID, an unknown kind): such a file is not half-trusted.
    // Unknown keys are ignored, and null counts as absent.
    static std::optional<SavedState> fromJSON(const nlohmann::json& json);
    static std::optional<SavedState> decode(std::string_view text);

    bool operator==(const SavedState&) const = default;
};

} // namespace Ostrel
