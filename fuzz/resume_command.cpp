// Fuzzes reading session ids back from start commands, and the round trip of every id through the
// resume command built for it.
#include "FuzzLines.h"
#include "OstrelCore/ResumeCommand.h"
#include "OstrelCore/Text.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace OstrelCore;
    auto text = OstrelFuzz::text(data, size);
    ResumeCommand::resumeID(text);
    for (SessionKind kind : {SessionKind::claude, SessionKind::codex, SessionKind::gemini}) {
        ResumeCommand::resumeID(kind, text);
        ResumeCommand::transcriptSessionID(kind, text, text);
        // Whatever the id, the command quotes it so that the shell hands it back whole; the agents
        // themselves take an id that looks like an option for one, and Gemini reads "latest" and
        // numbers as list positions.
        std::string_view id = Text::trim(text);
        auto command = ResumeCommand::resumeCommand(kind, text);
        if (id.empty() != !command) std::abort();
        if (!command || id.front() == '-') continue;
        if (kind == SessionKind::gemini &&
            (id == "latest" || id.find_first_not_of("0123456789") == std::string_view::npos))
            continue;
        if (ResumeCommand::resumeID(kind, *command) != id) std::abort();
    }
    return 0;
}
