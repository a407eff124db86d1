// Fuzzes the transcript feed: the first byte picks the provider and the limit. Every entry must
// encode as JSON, which holds only for valid UTF-8 text.
#include "FuzzLines.h"
#include "OstrelCore/TranscriptFeed.h"

#include <nlohmann/json.hpp>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace OstrelCore;
    if (size == 0) return 0;
    auto provider = static_cast<TranscriptFeed::Provider>(data[0] % 3);
    int limit = (data[0] >> 2) % 8 - 1; // -1 to 6: the buffer is trimmed often
    auto text = OstrelFuzz::text(data + 1, size - 1);
    auto check = [](const std::vector<TranscriptFeed::Entry>& entries) {
        for (const auto& entry : entries) {
            auto decoded =
                TranscriptFeed::entryFromJSON(nlohmann::json::parse(TranscriptFeed::toJSON(entry).dump()));
            if (!decoded || decoded->id != entry.id || decoded->text != entry.text) __builtin_trap();
        }
    };
    auto entries = TranscriptFeed::entries(OstrelFuzz::lines(text), provider, limit);
    if (entries.size() > static_cast<std::size_t>(limit < 0 ? 0 : limit)) __builtin_trap();
    check(entries);
    check(TranscriptFeed::legacyGeminiEntries(text, 5));
    return 0;
}
