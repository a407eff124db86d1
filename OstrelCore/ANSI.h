// Removes escape sequences from terminal text, keeping what a reader would see.
#pragma once

#include <string>
#include <string_view>

namespace OstrelCore::ANSI {

// Drops CSI sequences, OSC/DCS/APC/PM/SOS strings, two-byte escapes and C0 controls other than
// tab, line feed and carriage return. A sequence cut off at the end of the text is dropped.
std::string strip(std::string_view text);

} // namespace OstrelCore::ANSI
