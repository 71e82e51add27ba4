#include "qvcore/platform/QVArchiveException.h"

namespace qv {

QVArchiveException::QVArchiveException(const std::string& what) : std::runtime_error(what) {}

// Defined out of line so that the type information has one home in the
// library and catch clauses in other libraries match it.
QVArchiveException::~QVArchiveException() = default;

}  // namespace qv
