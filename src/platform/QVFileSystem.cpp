#include "qvcore/platform/QVFileSystem.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace qv {

namespace fs = std::filesystem;

namespace {

std::optional<std::string> readRegularFile(int fd, std::size_t maxBytes) {
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  if (st.st_size < 0 || static_cast<std::uintmax_t>(st.st_size) > maxBytes) return std::nullopt;
  std::string bytes;
  try {
    bytes.resize(static_cast<std::size_t>(st.st_size));
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) break;  // The file shrank while being read.
    done += static_cast<std::size_t>(n);
  }
  bytes.resize(done);
  return bytes;
}

bool writeAll(int fd, std::string_view bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

bool QVFileSystem::fileExistsAtPath(const std::string& path, bool* isDirectory) {
  if (isDirectory) *isDirectory = false;
  if (path.empty()) return false;
  std::error_code ec;
  const fs::file_status status = fs::status(path, ec);
  if (ec || !fs::exists(status)) return false;
  if (isDirectory) *isDirectory = fs::is_directory(status);
  return true;
}

bool QVFileSystem::isFileAtPath(const std::string& path) {
  bool isDirectory = false;
  return fileExistsAtPath(path, &isDirectory) && !isDirectory;
}

bool QVFileSystem::isDirectoryAtPath(const std::string& path) {
  bool isDirectory = false;
  return fileExistsAtPath(path, &isDirectory) && isDirectory;
}

std::optional<std::string> QVFileSystem::contentsAtPath(const std::string& path,
                                                        std::size_t maxBytes) {
  // Opened without blocking and checked on the open descriptor: a FIFO or a
  // device named like a file must not hang the reader, and a file swapped in
  // after a size query cannot slip past the limit.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  std::optional<std::string> result = readRegularFile(fd, maxBytes);
  ::close(fd);
  return result;
}

bool QVFileSystem::writeAtomically(const std::string& path, std::string_view bytes) {
  std::string temp = path + ".XXXXXX";
  const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) return false;
  // mkostemp makes the file private; the file it replaces is an ordinary one.
  const bool written = ::fchmod(fd, 0644) == 0 && writeAll(fd, bytes) && ::fsync(fd) == 0;
  const bool closed = ::close(fd) == 0;
  if (written && closed && ::rename(temp.c_str(), path.c_str()) == 0) return true;
  ::unlink(temp.c_str());
  return false;
}

std::string QVFileSystem::stringByAppendingPathComponent(const std::string& path,
                                                         const std::string& component) {
  if (path.empty()) return component;
  if (path.back() == '/') return path + component;
  return path + "/" + component;
}

std::string QVFileSystem::stringByDeletingLastPathComponent(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

}  // namespace qv
