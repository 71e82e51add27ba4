#include "qvcore/platform/QVCoding.h"

namespace qv {

// Out of line so that the vtable and type information live in the library.
QVCoding::~QVCoding() = default;

}  // namespace qv
