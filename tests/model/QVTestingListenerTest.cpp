#include "qvcore/model/QVTestingListener.h"

#include <gtest/gtest.h>

#include "qvcore/model/QVTestingHelper.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVFieldsMessage.h"

namespace qv {
namespace {

using Dicts = std::vector<QVValue>;
using test::messageWithOffset;

QVValue offsetDict(uint64_t offset) { return messageWithOffset(offset)->jsonDictionary(); }

TEST(QVTestingListenerTest, OnlyTheValueOnePostsAnything) {
  QVTestingListener listener;
  for (const char* off : {static_cast<const char*>(nullptr), "0", "2", "", "x1", "11"}) {
    SCOPED_TRACE(off ? off : "unset");
    if (off) {
      ::setenv(QVTestingHelper::kJsonLoggingName, off, 1);
    } else {
      ::unsetenv(QVTestingHelper::kJsonLoggingName);
    }
    QVTestingHelper::logForTesting(messageWithOffset(1));
    QVRunLoop::main().runUntilIdle();
    EXPECT_EQ(listener.getJsonStackWithFlush(false), Dicts{});
  }
  for (const char* on : {"1", "01", " 1"}) {
    ::setenv(QVTestingHelper::kJsonLoggingName, on, 1);
    QVTestingHelper::logForTesting(messageWithOffset(2));
  }
  QVTestingHelper::logForTesting(nullptr);
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(listener.getJsonStackWithFlush(false), Dicts(3, offsetDict(2)));
}

// The dictionary is made when the main loop runs, so a change made before
// then shows, a message without one is left out without stopping the loop,
// and a listener made by then hears it while one already gone does not.
TEST(QVTestingListenerTest, DictionaryIsBuiltWhenTheMainLoopRuns) {
  ::setenv(QVTestingHelper::kJsonLoggingName, "1", 1);
  auto gone = QVTestingListener::create();
  std::shared_ptr<const QVValue> seen;
  const void* seenSender = nullptr;
  int other = 0;
  QVNotificationCenter::defaultCenter().addObserver(
      &other, QVTestingHelper::kJsonLoggingName, nullptr, [&](const QVNotification& n) {
        seen = QVTestingHelper::jsonDictionaryOfNotification(n);
        seenSender = n.sender;
      });
  auto first = messageWithOffset(1);
  QVTestingHelper::logForTesting(first);
  QVTestingHelper::logForTesting(std::make_shared<test::QVFailingMessage>());
  QVTestingHelper::logForTesting(messageWithOffset(3));
  first->setOffset(10);
  gone.reset();
  QVTestingListener listener;
  EXPECT_EQ(listener.jsonMessages(), Dicts{}) << "nothing before the loop runs";
  EXPECT_NO_THROW(QVRunLoop::main().runUntilIdle());
  EXPECT_EQ(listener.jsonMessages(), (Dicts{offsetDict(10), offsetDict(3)}));
  ASSERT_TRUE(seen);
  EXPECT_EQ(seenSender, seen.get()) << "the sender is the dictionary itself";
  QVNotificationCenter::defaultCenter().removeObserver(&other);
}

TEST(QVTestingListenerTest, FlushEmptiesOnlyWhenAsked) {
  QVTestingListener listener;
  const Dicts held{offsetDict(1), offsetDict(2)};
  listener.setJsonMessages(held);
  EXPECT_EQ(listener.getJsonStackWithFlush(false), held);
  EXPECT_EQ(listener.getJsonStackWithFlush(true), held);
  EXPECT_EQ(listener.getJsonStackWithFlush(false), Dicts{});
  // A notification of that name that carries no dictionary adds nothing.
  QVNotificationCenter::defaultCenter().post(QVTestingHelper::kJsonLoggingName);
  EXPECT_EQ(listener.jsonMessages(), Dicts{});
}

}  // namespace
}  // namespace qv
