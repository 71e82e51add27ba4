#pragma once

#include <string>

namespace qv {

// The name under which the application keeps its data: the main bundle's
// "CFBundleIdentifier" when it is a usable file name, else the file name of
// the running executable. Never empty.
std::string applicationIdentifier();

}  // namespace qv
