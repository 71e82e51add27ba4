#pragma once

#include "qvcore/QVExport.h"

extern "C" {
// Version constants exported by the framework.
QV_EXPORT extern const double QVCoreVersionNumber;
QV_EXPORT extern const unsigned char QVCoreVersionString[];
}
