#include "qvcore/platform/QVFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <vector>

#include "platform/host/QVApplicationIdentifier.h"
#include "platform/host/QVSwallowed.h"

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
  } catch (const std::bad_alloc& e) {
    noteSwallowed(__func__, e);
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

std::optional<std::string> readFile(const std::string& path, int flags, std::size_t maxBytes) {
  // Opened without blocking and checked on the open descriptor: a FIFO or a
  // device named like a file must not hang the reader, and a file swapped in
  // after a size query cannot slip past the limit.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | flags);
  if (fd < 0) return std::nullopt;
  std::optional<std::string> bytes = readRegularFile(fd, maxBytes);
  ::close(fd);
  return bytes;
}

QVFileSystem::EntryKind kindOf(mode_t mode) {
  if (S_ISREG(mode)) return QVFileSystem::EntryKind::kRegularFile;
  if (S_ISLNK(mode)) return QVFileSystem::EntryKind::kSymbolicLink;
  return QVFileSystem::EntryKind::kOther;
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

// The folder that the host set in place of the environment's choice. Never
// destroyed: modules may write their files while the process exits.
struct HomeOverride {
  std::mutex mutex;
  std::string path;
};

HomeOverride& homeOverride() {
  static auto* settings = new HomeOverride;
  return *settings;
}

std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::string userHome() {
  std::string home = environmentValue("HOME");
  if (!home.empty()) return home;
  std::vector<char> buffer(16384);
  struct passwd entry {};
  struct passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found ||
      !found->pw_dir) {
    return "";
  }
  return found->pw_dir;
}

std::string defaultHomeDirectory() {
  std::string home = environmentValue("QVCORE_HOME");
  if (!home.empty()) return home;
  std::string dataHome = environmentValue("XDG_DATA_HOME");
  if (dataHome.empty() || dataHome.front() != '/') {
    const std::string user = userHome();
    if (user.empty()) return "";
    dataHome = QVFileSystem::stringByAppendingPathComponent(user, ".local/share");
  }
  return QVFileSystem::stringByAppendingPathComponent(dataHome, applicationIdentifier());
}

std::optional<QVFileSystemAttributes> statFileSystem(const std::string& path, int& error) {
  struct statvfs st {};
  if (::statvfs(path.c_str(), &st) != 0) {
    error = errno;
    return std::nullopt;
  }
  const uint64_t unit = st.f_frsize ? st.f_frsize : st.f_bsize;
  return QVFileSystemAttributes{static_cast<uint64_t>(st.f_blocks) * unit,
                                static_cast<uint64_t>(st.f_bavail) * unit};
}

// The folder that holds path; a relative path without a folder part lies in
// the current folder.
std::string containingFolder(const std::string& path) {
  std::string parent = QVFileSystem::stringByDeletingLastPathComponent(path);
  return parent.empty() ? std::string(".") : parent;
}

// The file that a write to path goes to before it is renamed over path: in
// the same folder, so that the rename stays on one file system, and hidden
// (".name.XXXXXX"), so that a reader listing the folder never takes a write
// still going on, or one that a killed process left unfinished, for a file
// of the kind it looks for: the queue cache, for one, reads every entry whose
// name starts with a module's name.
std::string temporarySibling(const std::string& path) {
  const auto slash = path.find_last_of('/');
  const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(0, nameStart) + "." + path.substr(nameStart) + ".XXXXXX";
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
  return readFile(path, 0, maxBytes);
}

std::optional<std::vector<QVFileSystem::FolderEntry>> QVFileSystem::entriesOfFolderNoFollow(
    const std::string& path) {
  // The folder is opened without following a link and listed through that
  // descriptor, so a link put in its place is never listed through.
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  DIR* folder = ::fdopendir(fd);
  if (!folder) {
    ::close(fd);
    return std::nullopt;
  }
  std::vector<FolderEntry> entries;
  while (const dirent* entry = ::readdir(folder)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    struct stat st {};
    const bool known = ::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    entries.push_back({name, known ? kindOf(st.st_mode) : EntryKind::kOther});
  }
  ::closedir(folder);
  std::sort(entries.begin(), entries.end(),
            [](const FolderEntry& a, const FolderEntry& b) { return a.name < b.name; });
  return entries;
}

bool QVFileSystem::isDirectoryNoFollowAtPath(const std::string& path) {
  struct stat st {};
  return !path.empty() && ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::optional<std::string> QVFileSystem::contentsAtPathNoFollow(const std::string& path,
                                                                std::size_t maxBytes) {
  return readFile(path, O_NOFOLLOW, maxBytes);
}

bool QVFileSystem::removeFileNoFollow(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return false;
  const EntryKind kind = kindOf(st.st_mode);
  // unlink never follows a link and never removes a folder.
  return kind != EntryKind::kOther && ::unlink(path.c_str()) == 0;
}

bool QVFileSystem::writeAtomically(const std::string& path, std::string_view bytes) {
  // mkostemp makes the file private; the file it replaces is an ordinary one.
  return writeAtomically(path, bytes, 0644);
}

bool QVFileSystem::writeAtomically(const std::string& path, std::string_view bytes, mode_t mode) {
  std::string temp = temporarySibling(path);
  const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
  if (fd < 0) return false;
  // fchmod is not masked by the umask, so the file gets the mode asked for.
  const bool written = ::fchmod(fd, mode) == 0 && writeAll(fd, bytes) && ::fsync(fd) == 0;
  const bool closed = ::close(fd) == 0;
  if (written && closed && ::rename(temp.c_str(), path.c_str()) == 0) return true;
  ::unlink(temp.c_str());
  return false;
}

bool QVFileSystem::createDirectoryAtPath(const std::string& path, mode_t mode) {
  if (path.empty()) return false;
  if (isDirectoryAtPath(path)) return true;
  const std::string parent = stringByDeletingLastPathComponent(path);
  if (!parent.empty() && parent != path && !createDirectoryAtPath(parent, mode)) return false;
  // mkdir's mode is masked by the umask; chmod sets it as asked.
  if (::mkdir(path.c_str(), mode) == 0) return ::chmod(path.c_str(), mode) == 0;
  return errno == EEXIST && isDirectoryAtPath(path);
}

std::string QVFileSystem::homeDirectory() {
  {
    HomeOverride& settings = homeOverride();
    std::lock_guard lock(settings.mutex);
    if (!settings.path.empty()) return settings.path;
  }
  return defaultHomeDirectory();
}

void QVFileSystem::setHomeDirectory(const std::string& path) {
  HomeOverride& settings = homeOverride();
  std::lock_guard lock(settings.mutex);
  settings.path = path;
}

std::string QVFileSystem::documentsDirectory() {
  const std::string home = homeDirectory();
  return home.empty() ? "" : stringByAppendingPathComponent(home, "Documents");
}

std::optional<QVFileSystemAttributes> QVFileSystem::attributesOfFileSystemForPath(
    const std::string& path) {
  std::string probe = path;
  while (!probe.empty()) {
    int error = 0;
    if (auto attributes = statFileSystem(probe, error)) return attributes;
    if (error != ENOENT && error != ENOTDIR) return std::nullopt;
    std::string parent = containingFolder(probe);
    if (parent == probe) return std::nullopt;
    probe = std::move(parent);
  }
  return std::nullopt;
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
