#include "platform/host/QVApplicationIdentifier.h"

#include <limits.h>
#include <unistd.h>

#include "qvcore/platform/QVBundle.h"

namespace qv {

namespace {

// The identifier names a folder and a file, so it must not climb out of the
// folder that holds it.
bool isUsableFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

std::string executableFileName() {
  char buffer[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return "";
  const std::string path(buffer, static_cast<std::size_t>(n));
  return path.substr(path.find_last_of('/') + 1);
}

}  // namespace

std::string applicationIdentifier() {
  const QVValue info = QVBundle::mainBundle()->infoDictionary();
  const auto it = info.find("CFBundleIdentifier");
  if (it != info.end() && it->is_string() && isUsableFileName(it->get<std::string>())) {
    return it->get<std::string>();
  }
  std::string name = executableFileName();
  return isUsableFileName(name) ? name : "qvcore";
}

}  // namespace qv
