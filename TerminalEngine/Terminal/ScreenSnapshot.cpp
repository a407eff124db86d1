// Screen text and JSON for ostrel-term and the end-to-end tests.
#include "TerminalEngine/Terminal/ScreenSnapshot.h"

#include "TerminalEngine/Terminal/Terminal.h"

#include <cstdio>

#include <nlohmann/json.hpp>

namespace TerminalEngine {
namespace {

nlohmann::json colorJson(const Attribute::Color& c) {
    switch (c.kind()) {
    case Attribute::Color::Kind::ansi256: return c.code();
    case Attribute::Color::Kind::trueColor: {
        char buf[8];
        std::snprintf(buf, sizeof buf, "#%02x%02x%02x", c.red(), c.green(), c.blue());
        return buf;
    }
    case Attribute::Color::Kind::defaultInvertedColor: return "inverted";
    case Attribute::Color::Kind::defaultColor: break;
    }
    return nullptr;
}

nlohmann::json attributesJson(const Attribute& a) {
    nlohmann::json out = nlohmann::json::array();
    struct Flag {
        CharacterStyle style;
        const char* name;
    };
    static constexpr Flag flags[] = {
        {CharacterStyle::bold, "bold"},
        {CharacterStyle::dim, "dim"},
        {CharacterStyle::italic, "italic"},
        {CharacterStyle::blink, "blink"},
        {CharacterStyle::inverse, "inverse"},
        {CharacterStyle::invisible, "invisible"},
        {CharacterStyle::crossedOut, "crossedOut"},
    };
    for (const auto& f : flags)
        if (has(a.style, f.style)) out.push_back(f.name);
    if (has(a.style, CharacterStyle::underline)) {
        static constexpr const char* names[] = {"none", "single", "double", "curly", "dotted", "dashed"};
        out.push_back(std::string("underline:") + names[static_cast<int>(a.underlineStyle)]);
    }
    return out;
}

bool isDefaultBlank(const CharData& c) {
    return c.code == 0 && c.width == 1 && c.attribute == Attribute{};
}

int firstLine(Terminal& t, bool includeScrollback) {
    return includeScrollback ? 0 : t.buffer->yBase;
}

} // namespace

std::string ScreenSnapshot::text(Terminal& t, bool includeScrollback) {
    std::vector<std::string> lines;
    int end = t.buffer->yBase + t.rows;
    for (int i = firstLine(t, includeScrollback); i < end; ++i) {
        BufferLine* line = t.getScrollInvariantLine(i);
        lines.push_back(line ? line->translateToString(true, 0, -1, true, &t.graphemes) : std::string());
    }
    while (!lines.empty() && lines.back().empty())
        lines.pop_back();
    std::string out;
    for (const auto& l : lines)
        out += l + "\n";
    return out;
}

std::string ScreenSnapshot::json(Terminal& t, bool includeScrollback) {
    nlohmann::json doc;
    doc["cols"] = t.cols;
    doc["rows"] = t.rows;
    doc["cursor"] = {
        {"x", std::min(t.buffer->x, t.cols - 1)}, {"y", t.buffer->y}, {"visible", !t.cursorHidden}};
    doc["title"] = t.terminalTitle;
    doc["alternateScreen"] = t.isAltBufferActive();
    doc["modes"] = {{"applicationCursor", t.applicationCursor},
                    {"applicationKeypad", t.applicationKeypad},
                    {"bracketedPaste", t.bracketedPasteMode},
                    {"insert", t.insertMode},
                    {"originMode", t.originMode},
                    {"wraparound", t.wraparound},
                    {"reverseWraparound", t.reverseWraparound},
                    {"sendFocus", t.sendFocus},
                    {"mouseMode", static_cast<int>(t.mouseMode)},
                    {"mouseEncoding", static_cast<int>(t.mouseProtocol)},
                    {"synchronizedOutput", t.synchronizedOutputActive},
                    {"keyboardFlags", t.keyboardEnhancementFlags()}};
    // One line of output per screen line keeps the document readable and easy to grep.
    auto dump = [](const nlohmann::json& j) {
        return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    };
    std::string out = dump(doc);
    out.pop_back(); // reopen the object to append the lines
    out += ",\"lines\":[\n";
    bool first = true;
    int end = t.buffer->yBase + t.rows;
    for (int i = firstLine(t, includeScrollback); i < end; ++i) {
        BufferLine* line = t.getScrollInvariantLine(i);
        nlohmann::json cells = nlohmann::json::array();
        if (line) {
            int last = line->count() - 1;
            while (last >= 0 && isDefaultBlank((*line)[last]))
                --last;
            for (int c = 0; c <= last; ++c) {
                const CharData& cell = (*line)[c];
                nlohmann::json j;
                j["text"] = cell.code == 0 ? (cell.width == 0 ? "" : " ") : t.getCharacter(cell.code);
                j["width"] = cell.width;
                j["fg"] = colorJson(cell.attribute.fg);
                j["bg"] = colorJson(cell.attribute.bg);
                j["attributes"] = attributesJson(cell.attribute);
                if (cell.attribute.underlineColor)
                    j["underlineColor"] = colorJson(*cell.attribute.underlineColor);
                if (cell.payload.code != 0)
                    if (auto link = cell.payload.target()) j["link"] = *link;
                cells.push_back(std::move(j));
            }
        }
        nlohmann::json entry = {{"wrapped", line && line->isWrapped}, {"cells", std::move(cells)}};
        if (!first) out += ",\n";
        out += dump(entry);
        first = false;
    }
    out += "\n]}\n";
    return out;
}

} // namespace TerminalEngine
