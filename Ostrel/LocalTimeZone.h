// The user's time zone, as the rate-limit and transcript readers need it to date what agents say.
#pragma once

#include <date/tz.h>

namespace Ostrel {

// TZ when it names a zone of the database (":Europe/Paris" and ".../zoneinfo/Europe/Paris" too),
// else the system's zone (/etc/localtime). Null when neither is known: times then read as UTC.
const date::time_zone* localTimeZone();

} // namespace Ostrel
