#include "qvcore/core/QVCoreDLogAnnounceFunctionNamesLineNumbers.h"

namespace qv {

void QVCoreDLogAnnounceFunctionNamesLineNumbers::announceFunctionLine(const std::string&, int64_t) {
}

}  // namespace qv
