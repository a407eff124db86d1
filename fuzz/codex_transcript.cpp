// Fuzzes the Codex reader, the ownership test and the raw value reader over arbitrary lines.
#include "FuzzLines.h"
#include "OstrelCore/CodexTranscript.h"
#include "OstrelCore/TranscriptTail.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace OstrelCore;
    auto text = OstrelFuzz::text(data, size);
    auto lines = OstrelFuzz::lines(text);
    CodexTranscript::parse(lines);
    CodexTranscript::belongsToProject(lines, lines.front());
    for (auto line : lines) {
        CodexTranscript::rawStringValue("cwd", line);
        CodexTranscript::rawStringValue(line.substr(0, 8), line);
    }
    if (auto tail = TranscriptTail::lines(text)) CodexTranscript::parse(*tail);
    return 0;
}
