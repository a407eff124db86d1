// Renders a terminal's screen as plain text or as JSON cells, for tools and tests.
#pragma once

#include <string>

namespace TerminalEngine {

class Terminal;

struct ScreenSnapshot {
    // Rows with trailing blanks removed, trailing empty rows dropped; with `includeScrollback`
    // the lines above the screen come first.
    static std::string text(Terminal& terminal, bool includeScrollback = false);
    // {"cols","rows","cursor":{x,y,visible},"title","modes":{...},"lines":[[cell...]...]} where a
    // cell is {"text","width","fg","bg","attributes"} and trailing default blanks are left out.
    static std::string json(Terminal& terminal, bool includeScrollback = false);
};

} // namespace TerminalEngine
