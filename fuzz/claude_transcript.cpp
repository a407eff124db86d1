// Fuzzes the Claude reader over arbitrary lines.
#include "FuzzLines.h"
#include "OstrelCore/ClaudeTranscript.h"
#include "OstrelCore/TranscriptTail.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace OstrelCore;
    auto text = OstrelFuzz::text(data, size);
    auto lines = OstrelFuzz::lines(text);
    ClaudeTranscript::parse(lines);
    ClaudeTranscript::isClearSuccessor(lines);
    if (auto head = TranscriptTail::headLines(text)) ClaudeTranscript::isClearSuccessor(*head);
    return 0;
}
