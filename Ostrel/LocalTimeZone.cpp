// Time zone lookup over the system's tz database; a missing database is no error.
#include "Ostrel/LocalTimeZone.h"

#include <cstdlib>
#include <string_view>

namespace Ostrel {

const date::time_zone* localTimeZone() {
    try {
        if (const char* variable = std::getenv("TZ"); variable != nullptr && variable[0] != '\0') {
            std::string_view name = variable;
            if (name.front() == ':') name.remove_prefix(1);
            if (std::size_t at = name.find("zoneinfo/"); at != std::string_view::npos)
                name.remove_prefix(at + 9);
            try {
                return date::locate_zone(name);
            } catch (...) {
                // A POSIX rule such as "CET-1CEST" names no zone of the database: use the system's.
            }
        }
        return date::current_zone();
    } catch (...) {
        return nullptr;
    }
}

} // namespace Ostrel
