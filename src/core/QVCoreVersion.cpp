#include "qvcore/core/QVCoreVersion.h"

extern "C" {
const double QVCoreVersionNumber = 1.0;
const unsigned char QVCoreVersionString[] = "@(#)PROGRAM:QVCore  PROJECT:QVCore-1\n";
}
