#include "platform/host/QVLinuxSystem.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "platform/value/QVText.h"

namespace qv {

namespace {

// Device-tree strings end with a NUL; sysfs values with a newline.
constexpr std::string_view kFileBlanks{" \t\n\v\f\r\0", 7};

std::optional<std::string> trimmedFile(const char* path) {
  std::optional<std::string> text = QVLinuxSystem::readSmallFile(path, 256);
  if (!text) return std::nullopt;
  std::string value(QVText::trimmed(*text, kFileBlanks));
  if (value.empty()) return std::nullopt;
  return value;
}

// Locale names are ASCII; the checks must not depend on the process locale.
bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isLetterOrDigit(char c) { return isLetter(c) || (c >= '0' && c <= '9'); }

bool isWord(const std::string& text, std::size_t minSize, std::size_t maxSize,
            bool (*allowed)(char)) {
  return text.size() >= minSize && text.size() <= maxSize &&
         std::all_of(text.begin(), text.end(), allowed);
}

std::string withCase(std::string text, bool upper) {
  for (char& c : text) {
    if (upper && c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    if (!upper && c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

uint64_t sysconfBytes(int pagesName) {
  const long pages = ::sysconf(pagesName);
  const long pageSize = ::sysconf(_SC_PAGESIZE);
  if (pages <= 0 || pageSize <= 0) return 0;
  return static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
}

std::optional<uint64_t> meminfoValue(const char* key) {
  // meminfo is a few kilobytes; the lines wanted come first.
  std::optional<std::string> text = QVLinuxSystem::readSmallFile("/proc/meminfo", 16384);
  if (!text) return std::nullopt;
  return QVLinuxSystem::meminfoBytes(*text, key);
}

const char* firstSet(std::initializer_list<const char*> names) {
  for (const char* name : names) {
    const char* value = std::getenv(name);
    if (value && *value) return value;
  }
  return nullptr;
}

}  // namespace

const QVLinuxSystem::Uname& QVLinuxSystem::uname() {
  static const Uname facts = [] {
    struct utsname u {};
    if (::uname(&u) != 0) return Uname{};
    return Uname{u.sysname, u.release, u.machine};
  }();
  return facts;
}

std::string QVLinuxSystem::hardwareModel() {
  if (auto name = trimmedFile("/sys/class/dmi/id/product_name")) return *name;
  if (auto name = trimmedFile("/proc/device-tree/model")) return *name;
  return "";
}

uint64_t QVLinuxSystem::physicalMemory() {
  if (uint64_t bytes = sysconfBytes(_SC_PHYS_PAGES)) return bytes;
  return meminfoValue("MemTotal").value_or(0);
}

uint64_t QVLinuxSystem::availableMemory() {
  // Kernels before 3.14 have no MemAvailable; free pages are the nearest.
  if (auto bytes = meminfoValue("MemAvailable")) return *bytes;
  return sysconfBytes(_SC_AVPHYS_PAGES);
}

std::vector<std::string> QVLinuxSystem::languagesFromEnvironment() {
  std::vector<std::string> tags;
  const auto addTags = [&tags](const char* list) {
    if (!list) return;
    std::istringstream names(list);
    for (std::string name; std::getline(names, name, ':');) {
      std::optional<std::string> tag = languageTagFromLocaleName(name);
      if (tag && std::find(tags.begin(), tags.end(), *tag) == tags.end()) tags.push_back(*tag);
    }
  };
  // As gettext does, a LANGUAGE that names no language leaves the choice to
  // the locale.
  addTags(firstSet({"LANGUAGE"}));
  if (tags.empty()) addTags(firstSet({"LC_ALL", "LC_MESSAGES", "LANG"}));
  if (tags.empty()) tags.push_back("en-US");
  return tags;
}

std::optional<std::string> QVLinuxSystem::languageTagFromLocaleName(const std::string& name) {
  // language[_territory][.codeset][@modifier]; codeset and modifier say
  // nothing about the language.
  const std::string base = name.substr(0, name.find_first_of(".@"));
  const std::size_t underscore = base.find('_');
  const std::string language = base.substr(0, underscore);
  const std::string territory =
      underscore == std::string::npos ? std::string() : base.substr(underscore + 1);
  if (!isWord(language, 2, 8, isLetter) || language == "POSIX") return std::nullopt;
  std::string tag = withCase(language, false);
  if (underscore == std::string::npos) return tag;
  if (!isWord(territory, 2, 3, isLetterOrDigit)) return std::nullopt;
  return tag + "-" + withCase(territory, true);
}

std::optional<std::string> QVLinuxSystem::readSmallFile(const char* path, std::size_t maxBytes) {
  // Pseudo-files report a size of 0 or a page, so read until the end instead
  // of trusting fstat; O_NONBLOCK keeps a FIFO in their place from hanging.
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  std::string bytes(maxBytes, '\0');
  std::size_t done = 0;
  while (done < maxBytes) {
    const ssize_t n = ::read(fd, bytes.data() + done, maxBytes - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  ::close(fd);
  bytes.resize(done);
  return bytes;
}

std::optional<uint64_t> QVLinuxSystem::meminfoBytes(const std::string& text,
                                                    const std::string& key) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(key + ":", 0) != 0) continue;
    std::istringstream fields(line.substr(key.size() + 1));
    uint64_t kibibytes = 0;
    if (!(fields >> kibibytes)) return std::nullopt;
    return kibibytes * 1024;
  }
  return std::nullopt;
}

}  // namespace qv
