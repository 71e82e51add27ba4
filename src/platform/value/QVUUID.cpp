#include "qvcore/platform/QVUUID.h"

#include <uuid/uuid.h>

namespace qv {

std::string QVUUID::randomUUIDString() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  return text;
}

}  // namespace qv
