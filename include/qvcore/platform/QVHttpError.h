#pragma once

#include <string>

#include "qvcore/QVExport.h"

namespace qv {

// Why a transfer did not complete: no connection, time-out, a connection
// closed before the answer, a URL the session cannot fetch.
struct QV_EXPORT QVHttpError {
  // libcurl's CURLcode for the real session; kCancelled when the session
  // went away with the task unfinished; any number a fake chooses.
  int code = 0;
  std::string message;

  static constexpr int kCancelled = -1;
};

}  // namespace qv
