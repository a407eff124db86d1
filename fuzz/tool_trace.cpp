// Arbitrary transcript text through the tool trace of each provider and the questions asked of it.
#include "OstrelCore/Text.h"
#include "OstrelCore/ToolTrace.h"

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

using namespace OstrelCore;

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    for (auto provider :
         {ToolTrace::Provider::claude, ToolTrace::Provider::codex, ToolTrace::Provider::gemini}) {
        auto events = ToolTrace::events(text, provider);
        std::set<std::string_view> ids;
        for (const ToolEvent& event : events) {
            check(!event.id.empty() && ids.insert(event.id).second);
            check(Text::isValidUtf8(event.id) && Text::isValidUtf8(event.name));
            check(Text::isValidUtf8(event.target.value_or("")) &&
                  Text::isValidUtf8(event.error.value_or("")));
            check(Text::count(event.target.value_or("")) <= ToolTrace::targetLimit);
            check(Text::count(event.error.value_or("")) <= ToolTrace::errorLimit);
            check(event.durationSeconds.value_or(0.0) >= 0.0);
        }
        auto summary = ToolTrace::summarize(events, 5);
        check(summary.total == static_cast<std::int64_t>(events.size()));
        check(summary.running + summary.failures <= summary.total);
        check(summary.topTools.size() <= 5);
        auto files = ToolTrace::filesTouched(events, std::string_view("/repo"));
        check(static_cast<std::int64_t>(files.size()) <= summary.total);
        check(ToolTrace::sensitiveTouches(events).size() <= events.size());
        check(ToolTrace::recent(events, 3).size() <= 3);
    }
    return 0;
}
