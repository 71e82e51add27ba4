#include "qvcore/platform/QVStreamException.h"

namespace qv {

QVStreamException::QVStreamException(const std::string& what) : std::runtime_error(what) {}

// Out of line, so that the type information has one home in the library and
// catch clauses elsewhere match it.
QVStreamException::~QVStreamException() = default;

}  // namespace qv
