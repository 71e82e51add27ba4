#pragma once

#include <stdlib.h>

#include <fstream>
#include <stdexcept>
#include <thread>

#include "qvcore/core/QVUncaughtExceptionHandler.h"
#include "qvcore/platform/QVHostReachabilitySource.h"
#include "support/QVFakeInterfaceAddressSource.h"
#include "support/QVQueueServiceTestSupport.h"

// A crash test crashes a child process, which re-runs the test from its
// start. Parent and child share a folder whose path the parent hands down in
// the environment; the child leaves its traces there, one line per event.
namespace qv::test {

class QVCrashFolder {
 public:
  QVCrashFolder() {
    if (const char* inherited = std::getenv("QVTEST_CRASH_FOLDER")) {
      path_ = inherited;
    } else {
      owned_ = std::make_unique<QVTempFolder>();
      path_ = owned_->path();
      ::setenv("QVTEST_CRASH_FOLDER", path_.c_str(), 1);
    }
  }
  ~QVCrashFolder() {
    if (owned_) ::unsetenv("QVTEST_CRASH_FOLDER");
  }

  std::string at(const std::string& name) const { return path_ + "/" + name; }
  void append(const std::string& name, const std::string& line) const {
    std::ofstream(at(name), std::ios::app) << line << "\n";
  }
  bool exists(const std::string& name) const { return std::filesystem::exists(at(name)); }
  std::vector<std::string> lines(const std::string& name) const {
    std::vector<std::string> lines;
    std::ifstream in(at(name));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  // Bounded, so that a test that goes wrong still ends.
  bool waitForLines(const std::string& name, size_t count) const {
    for (int i = 0; i < 3000 && lines(name).size() < count; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return lines(name).size() >= count;
  }

 private:
  std::string path_;
  std::unique_ptr<QVTempFolder> owned_;
};

inline std::string describe(const std::exception_ptr& exception) {
  if (!exception) return "none";
  try {
    std::rethrow_exception(exception);
  } catch (const std::exception& e) {
    return e.what();
  }
}

// Writes each exception it is told of to "told"; may fail while doing so.
class QVCrashRecordingModule : public QVTestModule, public QVUncaughtExceptionHandler {
 public:
  QVCrashRecordingModule(const std::string& name, const QVCrashFolder& folder)
      : QVTestModule(name, ""), folder_(folder) {}
  void handleUncaughtException(std::exception_ptr exception) override {
    folder_.append("told", describe(exception));
    if (failsWhenTold) throw std::runtime_error("the module failed too");
  }
  bool failsWhenTold = false;

 private:
  const QVCrashFolder& folder_;
};

// Registers the modules by name and configures them and the core (every
// message let through, plain bodies, and coreItems on top) on a network the
// host reports as up.
inline void configureCore(
    const std::string& home,
    const std::vector<std::pair<std::shared_ptr<QVTestModule>, QVValue>>& modules,
    const QVValue& coreItems = QVValue::object()) {
  QVFileSystem::setHomeDirectory(home);
  auto reachability = std::make_shared<QVHostReachabilitySource>();
  reachability->setFlags(0x2);
  QVReachabilitySource::setShared(reachability);
  QVInterfaceAddressSource::setShared(std::make_shared<QVFakeInterfaceAddressSource>());
  QVConfigService::Configurations configurations;
  configurations["QVCore"] = std::make_shared<QVValue>(QVValue{{"PostMessageLevelWiFi", 5},
                                                               {"PostMessageLevelCellular", 5},
                                                               {"CompressPostMessage", false}});
  configurations["QVCore"]->update(coreItems);
  for (const auto& [module, items] : modules) {
    QVClassRegistry::shared().registerClass(module->className(), [module] { return module; });
    configurations[module->className()] = std::make_shared<QVValue>(items);
  }
  QVConfigService::sharedInstance()->setConfigurations(configurations);
}

// An exception that nothing catches: it meets a noexcept frame, so the
// runtime calls std::terminate with the exception current.
[[noreturn]] inline void raise(const std::string& what) { throw std::runtime_error(what); }
inline void crashWithUncaughtException(const std::string& what) noexcept { raise(what); }

}  // namespace qv::test
