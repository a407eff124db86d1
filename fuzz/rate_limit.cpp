// Arbitrary text through the terminal and transcript limit detectors and the reset parser, at a
// fixed "now" next to a clock change so that gaps and repeated hours are reached.
#include "OstrelCore/RateLimitReset.h"
#include "OstrelCore/RateLimitSignals.h"
#include "OstrelCore/Text.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include <date/date.h>
#include <date/tz.h>

using namespace OstrelCore;

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

void checkBlock(const std::optional<RateLimitBlock>& block, RateLimitSignals::Date now) {
    if (!block) return;
    check(!block->rawMessage.empty());
    check(Text::count(block->rawMessage) <= RateLimitSignals::rawMessageLimit);
    check(Text::isValidUtf8(block->rawMessage));
    if (auto resume = RateLimitSignals::resumeDate(*block, std::nullopt, now))
        check(*resume >= now + std::chrono::seconds(90));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace std::chrono;
    using namespace date::literals;
    static const date::time_zone* newYork = date::locate_zone("America/New_York");
    const RateLimitSignals::Date now = time_point_cast<RateLimitSignals::Date::duration>(
        date::sys_days(2025_y / 3 / 9) + hours(6) + minutes(30));

    std::string_view text(reinterpret_cast<const char*>(data), size);
    checkBlock(RateLimitSignals::detect(text, now, newYork), now);

    std::vector<std::string_view> lines;
    for (std::size_t start = 0; start <= text.size();) {
        std::size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    auto provider = static_cast<RateLimitBlock::Provider>(size % 3);
    checkBlock(RateLimitSignals::detect(std::span<const std::string_view>(lines), provider, now, newYork),
               now);

    for (const date::time_zone* zone : {newYork, static_cast<const date::time_zone*>(nullptr)}) {
        if (auto reset = RateLimitReset::parse(text, now, zone)) {
            // Whatever the form, a date stays within a few centuries of now.
            check(*reset > now - hours(24 * 366 * 200) && *reset < now + hours(24 * 366 * 200));
        }
    }
    return 0;
}
