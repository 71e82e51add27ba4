#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "qvcore/platform/QVPropertyList.h"

namespace qv::test {

// The permission bits of a file or folder; 0 if there is none.
inline unsigned modeOf(const std::string& path) {
  std::error_code ec;
  const auto perms = std::filesystem::status(path, ec).permissions();
  return ec ? 0 : static_cast<unsigned>(perms) & 07777;
}

// A fresh folder under the system's temporary folder, removed with its
// contents when the object goes.
class QVTempFolder {
 public:
  QVTempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qvcore.XXXXXX").string();
    if (!::mkdtemp(pattern.data())) ADD_FAILURE() << "mkdtemp failed";
    path_ = pattern;
  }
  ~QVTempFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  QVTempFolder(const QVTempFolder&) = delete;
  QVTempFolder& operator=(const QVTempFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string at(const std::string& relative) const { return path_ + "/" + relative; }

  std::string makeFolder(const std::string& relative) const {
    std::filesystem::create_directories(at(relative));
    return at(relative);
  }
  std::string write(const std::string& relative, const std::string& bytes) const {
    std::filesystem::create_directories(std::filesystem::path(at(relative)).parent_path());
    std::ofstream(at(relative), std::ios::binary) << bytes;
    return at(relative);
  }
  std::string writePlist(const std::string& relative, const QVValue& dict,
                         QVPropertyList::Format format = QVPropertyList::Format::kXML) const {
    std::filesystem::create_directories(std::filesystem::path(at(relative)).parent_path());
    EXPECT_TRUE(QVPropertyList::writeDictionaryToFile(dict, at(relative), format));
    return at(relative);
  }

 private:
  std::string path_;
};

}  // namespace qv::test
