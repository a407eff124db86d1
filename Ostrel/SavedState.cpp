// state.json encoding. Decoding is all or nothing: a file whose present keys don't have their
// form is treated as unreadable, and the store starts empty instead of half-loading it.
#include "Ostrel/SavedState.h"

#include "OstrelCore/JSONRead.h"

#include <cmath>

#include <nlohmann/json.hpp>

namespace Ostrel {
namespace {

using Json = nlohmann::json;
using OstrelCore::PaneNode;
using OstrelCore::PaneTemplate;
namespace JSONRead = OstrelCore::JSONRead;

// A member that is missing or null: optional keys treat both as absent.
const Json* present(const Json& object, std::string_view key) {
    const Json* value = JSONRead::member(object, key);
    return value == nullptr || value->is_null() ? nullptr : value;
}

std::optional<UUID> uuid(const Json& value) {
    const std::string* text = JSONRead::text(value);
    return text ? UUID::parse(*text) : std::nullopt;
}

std::optional<double> number(const Json& value) {
    if (!value.is_number()) return std::nullopt;
    const double result = value.get<double>();
    return std::isfinite(result) ? std::optional(result) : std::nullopt;
}

// Reads an optional member with `read`; false when it is present but doesn't decode.
template <typename T, typename Read>
bool optionalMember(const Json& object, std::string_view key, std::optional<T>& out, Read read) {
    const Json* value = present(object, key);
    if (value == nullptr) return true;
    out = read(*value);
    return out.has_value();
}

std::optional<std::string> text(const Json& value) {
    const std::string* result = JSONRead::text(value);
    return result ? std::optional(*result) : std::nullopt;
}

std::optional<std::int64_t> integer(const Json& value) {
    return JSONRead::integer(value);
}

// [key, value, key, value, ...] with UUID keys; false on an odd length, a bad key or a bad value.
template <typename Value, typename Read>
bool flatMap(const Json& array, std::map<UUID, Value>& out, Read read) {
    if (!array.is_array() || array.size() % 2 != 0) return false;
    for (std::size_t i = 0; i < array.size(); i += 2) {
        auto key = uuid(array[i]);
        if (!key) return false;
        std::optional<Value> value = read(array[i + 1]);
        if (!value) return false;
        out.insert_or_assign(*key, std::move(*value));
    }
    return true;
}

template <typename Value, typename Write>
Json flatArray(const std::map<UUID, Value>& map, Write write) {
    Json array = Json::array();
    for (const auto& [key, value] : map) {
        array.push_back(key.uuidString());
        array.push_back(write(value));
    }
    return array;
}

template <typename T, typename Read>
std::optional<std::vector<T>> arrayOf(const Json& array, Read read) {
    if (!array.is_array()) return std::nullopt;
    std::vector<T> result;
    result.reserve(array.size());
    for (const Json& element : array) {
        std::optional<T> value = read(element);
        if (!value) return std::nullopt;
        result.push_back(std::move(*value));
    }
    return result;
}

} // namespace

Json Project::toJSON() const {
    Json json{{"id", id.uuidString()}, {"name", name}, {"path", path}, {"colorIndex", colorIndex}};
    if (customColorHex) json["customColorHex"] = *customColorHex;
    return json;
}

std::optional<Project> Project::fromJSON(const Json& json) {
    if (!json.is_object()) return std::nullopt;
    const Json* idValue = JSONRead::member(json, "id");
    const std::string* name = JSONRead::text(json, "name");
    const std::string* path = JSONRead::text(json, "path");
    const auto colorIndex = JSONRead::integer(json, "colorIndex");
    if (idValue == nullptr || name == nullptr || path == nullptr || !colorIndex) return std::nullopt;
    auto id = uuid(*idValue);
    if (!id) return std::nullopt;
    Project project{*id, *name, *path, *colorIndex, std::nullopt};
    if (!optionalMember(json, "customColorHex", project.customColorHex, text)) return std::nullopt;
    return project;
}

Json RestorableSession::toJSON() const {
    Json json{{"kind", OstrelCore::rawValue(kind)}, {"title", title}, {"fontSize", fontSize}};
    if (command) json["command"] = *command;
    if (tintIndex) json["tintIndex"] = *tintIndex;
    if (visibleSlot) json["visibleSlot"] = *visibleSlot;
    return json;
}

std::optional<RestorableSession> RestorableSession::fromJSON(const Json& json) {
    if (!json.is_object()) return std::nullopt;
    const std::string* kindText = JSONRead::text(json, "kind");
    const std::string* title = JSONRead::text(json, "title");
    const Json* fontSizeValue = JSONRead::member(json, "fontSize");
    if (kindText == nullptr || title == nullptr || fontSizeValue == nullptr) return std::nullopt;
    auto kind = OstrelCore::sessionKind(*kindText);
    auto fontSize = number(*fontSizeValue);
    if (!kind || !fontSize) return std::nullopt;
    RestorableSession session{*kind, *title, std::nullopt, std::nullopt, *fontSize, std::nullopt};
    if (!optionalMember(json, "command", session.command, text) ||
        !optionalMember(json, "tintIndex", session.tintIndex, integer) ||
        !optionalMember(json, "visibleSlot", session.visibleSlot, integer))
        return std::nullopt;
    return session;
}

Json SavedState::toJSON() const {
    Json json = Json::object();
    Json projectList = Json::array();
    for (const Project& project : projects)
        projectList.push_back(project.toJSON());
    json["projects"] = std::move(projectList);
    json["layouts"] = flatArray(layouts, [](const PaneNode& node) { return node.toJSON(); });
    Json templateList = Json::array();
    for (const PaneTemplate& paneTemplate : templates)
        templateList.push_back(paneTemplate.toJSON());
    json["templates"] = std::move(templateList);
    Json counts = Json::object();
    for (const auto& [kind, count] : usageCounts)
        counts[kind] = count;
    json["usageCounts"] = std::move(counts);
    if (selectedProjectID) json["selectedProjectID"] = selectedProjectID->uuidString();
    Json collapsed = Json::array();
    for (const UUID& id : collapsedProjects)
        collapsed.push_back(id.uuidString());
    json["collapsedProjects"] = std::move(collapsed);
    json["restorable"] = flatArray(restorable, [](const std::vector<RestorableSession>& sessions) {
        Json list = Json::array();
        for (const RestorableSession& session : sessions)
            list.push_back(session.toJSON());
        return list;
    });
    return json;
}

std::string SavedState::encode() const {
    // Replacement instead of an exception: a title or path with broken UTF-8 must not cost the
    // whole file.
    return toJSON().dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::optional<SavedState> SavedState::fromJSON(const Json& json) {
    if (!json.is_object()) return std::nullopt;
    SavedState state;
    const Json* projectList = JSONRead::array(json, "projects");
    if (projectList == nullptr) return std::nullopt;
    auto projects = arrayOf<Project>(*projectList, Project::fromJSON);
    if (!projects) return std::nullopt;
    state.projects = std::move(*projects);

    if (const Json* value = present(json, "layouts");
        value && !flatMap(*value, state.layouts, PaneNode::fromJSON))
        return std::nullopt;
    if (const Json* value = present(json, "templates")) {
        auto templates = arrayOf<PaneTemplate>(*value, PaneTemplate::fromJSON);
        if (!templates) return std::nullopt;
        state.templates = std::move(*templates);
    }
    if (const Json* value = present(json, "usageCounts")) {
        if (!value->is_object()) return std::nullopt;
        for (const auto& [kind, count] : value->items()) {
            auto number = JSONRead::integer(count);
            if (!number) return std::nullopt;
            state.usageCounts[kind] = *number;
        }
    }
    if (!optionalMember(json, "selectedProjectID", state.selectedProjectID, uuid)) return std::nullopt;
    if (const Json* value = present(json, "collapsedProjects")) {
        auto ids = arrayOf<UUID>(*value, uuid);
        if (!ids) return std::nullopt;
        state.collapsedProjects = std::move(*ids);
    }
    if (const Json* value = present(json, "restorable")) {
        const auto readSessions = [](const Json& list) {
            return arrayOf<RestorableSession>(list, RestorableSession::fromJSON);
        };
        if (!flatMap(*value, state.restorable, readSessions)) return std::nullopt;
    }
    return state;
}

std::optional<SavedState> SavedState::decode(std::string_view text) {
    auto json = JSONRead::parse(text);
    return json ? fromJSON(*json) : std::nullopt;
}

} // namespace Ostrel
