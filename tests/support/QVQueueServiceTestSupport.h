#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qvcore/config/QVConfigService.h"
#include "qvcore/platform/QVClassRegistry.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVHttpSession.h"
#include "qvcore/queue/QVQueueService.h"
#include "support/QVFakeHttpSession.h"
#include "support/QVFieldsMessage.h"
#include "support/QVTempFolder.h"
#include "support/QVTestModule.h"

namespace qv::test {

using Offsets = std::vector<uint64_t>;

// The text of a queue with no sessions, as the service writes it.
inline std::string queueText(int serialNumber) {
  return R"({"messageVersion":"6.0.0.0","serialNumber":)" + std::to_string(serialNumber) +
         R"(,"sessions":[]})";
}

// The offsets of a queue payload's messages, session by session.
inline Offsets offsetsIn(const std::string& payload) {
  Offsets offsets;
  const QVValue parsed = QVValue::parse(payload, nullptr, false);
  if (!parsed.is_object() || !parsed.contains("sessions")) return offsets;
  for (const auto& session : parsed["sessions"]) {
    for (const auto& message : session["messages"]) offsets.push_back(message["offset"]);
  }
  return offsets;
}

inline std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ec)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The queue service over a fake HTTP session, in a data folder of its own,
// with configurations that each test sets exactly.
class QVQueueServiceTestBase : public ::testing::Test {
 protected:
  void SetUp() override {
    QVHttpSession::setShared(session);
    QVFileSystem::setHomeDirectory(folder.at("home"));
    setItems("QVCore", {{"CompressPostMessage", false}});  // readable bodies
  }
  void TearDown() override {
    service->disable();
    QVHttpSession::setShared(nullptr);
    QVFileSystem::setHomeDirectory("");
  }

  void setItems(const std::string& name, const QVValue& items) {
    configurations[name] = std::make_shared<QVValue>(items);
    QVConfigService::sharedInstance()->setConfigurations(configurations);
  }
  // A module found by name, posting to a URL of its own unless items say.
  template <typename Module = QVTestModule>
  std::shared_ptr<Module> defineModule(const std::string& name,
                                       std::optional<QVValue> items = std::nullopt) {
    auto module = std::make_shared<Module>(name, "");
    QVClassRegistry::shared().registerClass(name, [module] { return module; });
    setItems(name, items.value_or(QVValue{{"PostMessageUrl", "http://collector.test/" + name}}));
    return module;
  }
  bool post(const std::shared_ptr<QVLifecycleObject>& module, uint64_t offset,
            std::optional<std::string> sessionID = std::nullopt) {
    return service->postMessageForModuleWithSessionID(messageWithOffset(offset), module,
                                                      std::move(sessionID));
  }
  std::string body(size_t task) const {
    const auto sent = session->task(task).body;
    return sent ? *sent : "";
  }

  std::shared_ptr<QVQueueService> service = QVQueueService::sharedInstance();
  std::shared_ptr<QVFakeHttpSession> session = std::make_shared<QVFakeHttpSession>();
  QVTempFolder folder;
  QVConfigService::Configurations configurations;
};

}  // namespace qv::test
