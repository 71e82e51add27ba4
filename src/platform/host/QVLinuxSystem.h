#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qv {

// What Linux tells about the machine, for the defaults of QVDevice and
// QVApplication. Nothing here fails: an unreadable /proc or /sys gives the
// empty answer and the caller falls back.
class QVLinuxSystem {
 public:
  struct Uname {
    std::string sysname, release, machine;
  };
  // Read once; the kernel does not change under a running process.
  static const Uname& uname();

  // The board's product name from DMI, else the device tree's model (boards
  // without a BIOS), trimmed; empty when neither is readable.
  static std::string hardwareModel();

  // sysconf's physical pages, else MemTotal; 0 when neither is known.
  static uint64_t physicalMemory();
  // MemAvailable, else sysconf's free pages; 0 when neither is known.
  static uint64_t availableMemory();

  // The user's languages as tags ("fr_CA.UTF-8" gives "fr-CA"), without
  // repeats: those of LANGUAGE (a colon list), or when it names none, of the
  // first set of LC_ALL, LC_MESSAGES and LANG. "C", "POSIX" and malformed
  // names are skipped; with nothing left the answer is {"en-US"}, the
  // language of the C locale's messages.
  static std::vector<std::string> languagesFromEnvironment();
  // "fr_CA.UTF-8@euro" gives "fr-CA"; none for "C", "POSIX" and names that
  // are not a language.
  static std::optional<std::string> languageTagFromLocaleName(const std::string& name);

  // The first maxBytes of a file that may be a pseudo-file (whose size
  // reads as 0); none when it cannot be opened.
  static std::optional<std::string> readSmallFile(const char* path, std::size_t maxBytes);
  // The value in bytes of a "Key: N kB" line of /proc/meminfo text.
  static std::optional<uint64_t> meminfoBytes(const std::string& text, const std::string& key);
};

}  // namespace qv
