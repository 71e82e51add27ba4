#pragma once

#include <string_view>

namespace qv::QVText {

// Spaces, tabs and line ends: what surrounds a header's name and value.
inline constexpr std::string_view kBlanks = " \t\r\n";

// ASCII letters compared without their case, whatever the process locale:
// HTTP header names, XML element names.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

// text without the characters of blanks at its ends; empty when nothing
// else is there.
std::string_view trimmed(std::string_view text, std::string_view blanks = kBlanks);
std::string_view trimmedRight(std::string_view text, std::string_view blanks = kBlanks);

}  // namespace qv::QVText
