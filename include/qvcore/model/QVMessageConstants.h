#pragma once

#include "qvcore/QVExport.h"

namespace qv {

// Keys of message archives, exported so that modules archive their message
// subclasses under the same names. The value of each constant is its own
// name.

extern QV_EXPORT const char* const KeyQVMessageOffset;
extern QV_EXPORT const char* const KeyQVMessageLogLevel;

extern QV_EXPORT const char* const KeyQVApplicationContextType;
extern QV_EXPORT const char* const KeyQVApplicationContextName;
extern QV_EXPORT const char* const KeyQVApplicationContextReferrer;
extern QV_EXPORT const char* const KeyQVApplicationContextKlassName;
extern QV_EXPORT const char* const KeyQVApplicationContextReferrerKlassName;
extern QV_EXPORT const char* const KeyQVApplicationContextCurrentScreenId;
extern QV_EXPORT const char* const KeyQVApplicationContextCurrentScreenIdSetDate;
extern QV_EXPORT const char* const KeyQVApplicationContextPreviousScreenId;
// "Applicaiton" is deliberate: archives already written depend on this exact
// spelling, in the name and in the value alike.
extern QV_EXPORT const char* const KeyQVApplicaitonContextPreviousScreenIdSetDate;

}  // namespace qv
