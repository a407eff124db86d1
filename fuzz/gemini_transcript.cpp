// Fuzzes the Gemini reader and the project identity helpers; the first line doubles as a path.
#include "FuzzLines.h"
#include "OstrelCore/GeminiTranscript.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace OstrelCore;
    auto text = OstrelFuzz::text(data, size);
    auto lines = OstrelFuzz::lines(text);
    std::string_view path = lines.front();
    GeminiTranscript::parse(lines);
    GeminiTranscript::parseLegacyDocument(text);
    GeminiTranscript::belongsToProject(lines, path);
    GeminiTranscript::isSubagentTranscript(lines);
    GeminiTranscript::isSessionFile(path);
    GeminiTranscript::contextWindow(path);
    GeminiTranscript::projectSlug(path);
    GeminiTranscript::candidateTranscriptDirectories(path, path);
    GeminiTranscript::transcriptDirectory(path, text, "/home/me");
    GeminiTranscript::directoryOwnsProject(text, path);
    return 0;
}
