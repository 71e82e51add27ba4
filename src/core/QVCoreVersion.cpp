#include "qvcore/core/QVCoreVersion.h"

#include "core/QVCoreFrameworkVersion.h"
#include "qvcore/core/QVCore.h"

extern "C" {
const double QVCoreVersionNumber = 1.0;
const unsigned char QVCoreVersionString[] = "@(#)PROGRAM:QVCore  PROJECT:QVCore-1\n";
}

namespace qv {

std::string QVCore::frameworkVersion() const { return kQVCoreFrameworkVersion; }

}  // namespace qv
