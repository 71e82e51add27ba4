#include "qvcore/model/QVMessageConstants.h"

// Spelling each value from its name keeps the two from drifting apart.
#define QV_ARCHIVE_KEY(name) const char* const name = #name

namespace qv {

QV_ARCHIVE_KEY(KeyQVMessageOffset);
QV_ARCHIVE_KEY(KeyQVMessageLogLevel);

QV_ARCHIVE_KEY(KeyQVApplicationContextType);
QV_ARCHIVE_KEY(KeyQVApplicationContextName);
QV_ARCHIVE_KEY(KeyQVApplicationContextReferrer);
QV_ARCHIVE_KEY(KeyQVApplicationContextKlassName);
QV_ARCHIVE_KEY(KeyQVApplicationContextReferrerKlassName);
QV_ARCHIVE_KEY(KeyQVApplicationContextCurrentScreenId);
QV_ARCHIVE_KEY(KeyQVApplicationContextCurrentScreenIdSetDate);
QV_ARCHIVE_KEY(KeyQVApplicationContextPreviousScreenId);
QV_ARCHIVE_KEY(KeyQVApplicaitonContextPreviousScreenIdSetDate);

}  // namespace qv

#undef QV_ARCHIVE_KEY
