#pragma once
// ISO 8601 dates in the one form the system reads and writes, "YYYY-MM-DDThh:mm:ssZ": UTC, whole
// seconds, years 0000 to 9999 of the proleptic Gregorian calendar. XML property lists and the
// command-line client's output use it.
//
// Pure and thread-safe (no time zone or locale is consulted).

#include <optional>
#include <string>
#include <string_view>

namespace krv {

// Seconds since 1970 of a date in that form; nullopt for anything else, impossible dates and
// times included.
std::optional<double> parseIsoDate(std::string_view text);

// The form of a time rounded down to the whole second; nullopt when the time is not finite or
// falls outside years 0000 to 9999.
std::optional<std::string> formatIsoDate(double secondsSince1970);
// The same form appended to `out` (no allocation beyond its growth); false, appending nothing, for
// a time that has none.
bool appendIsoDate(std::string& out, double secondsSince1970);

}  // namespace krv
