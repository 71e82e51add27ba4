#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <functional>
#include <string>

#include "qvcore/core/QVConfigurationSaver.h"
#include "qvcore/platform/QVPropertyList.h"
#include "support/QVTempFolder.h"
#include "support/QVTestModule.h"

namespace qv::test {

// A test module that can persist its configuration: it records what it was
// asked to save and answers as told; onSave, when set, runs inside the save.
class QVSavingModule : public QVTestModule, public QVConfigurationSaver {
 public:
  using QVTestModule::QVTestModule;
  bool saveCurrentConfigurableItems(const QVValue& items) override {
    ++saves;
    saved = items;
    if (onSave) onSave();
    return saveResult;
  }
  std::atomic<int> saves{0};
  QVValue saved;
  bool saveResult = true;
  std::function<void()> onSave;
};

// Runs body in a process started afresh from this test binary, so that
// process-wide state (singletons, the environment read at first use) starts
// new; the test fails unless body returns true.
inline void expectInFreshProcess(const std::function<bool()>& body) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(std::exit(body() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

}  // namespace qv::test
