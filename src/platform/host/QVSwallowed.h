#pragma once

#include <exception>

namespace qv {

// Every exception the framework catches and does not let out passes through
// here, so that none vanishes without a trace: with debug lines on (see
// QVLog::isDebugEnabled) it writes "QVCore debug: <function>: <what>", and
// nothing otherwise. Never throws; cheap while debug lines are off.
void noteSwallowed(const char* function, const std::exception& exception) noexcept;
// For a catch (...), which has no message to show.
void noteSwallowed(const char* function) noexcept;

}  // namespace qv
