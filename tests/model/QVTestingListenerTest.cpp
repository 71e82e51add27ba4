#include "qvcore/model/QVTestingListener.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <stdexcept>

#include "qvcore/model/QVTestingHelper.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {
namespace {

using Dicts = std::vector<QVValue>;

std::shared_ptr<QVMessage> messageAt(uint64_t offset) {
  auto message = std::make_shared<QVMessage>();
  message->setOffset(offset);
  return message;
}

TEST(QVTestingListenerTest, OnlyTheValueOnePostsAnything) {
  QVTestingListener listener;
  for (const char* off : {static_cast<const char*>(nullptr), "0", "2", "", "x1", "11"}) {
    SCOPED_TRACE(off ? off : "unset");
    if (off) {
      ::setenv(QVTestingHelper::kJsonLoggingName, off, 1);
    } else {
      ::unsetenv(QVTestingHelper::kJsonLoggingName);
    }
    QVTestingHelper::logForTesting(messageAt(1));
    QVRunLoop::main().runUntilIdle();
    EXPECT_EQ(listener.getJsonStackWithFlush(false), Dicts{});
  }
  for (const char* on : {"1", "01", " 1"}) {
    ::setenv(QVTestingHelper::kJsonLoggingName, on, 1);
    QVTestingHelper::logForTesting(messageAt(2));
  }
  QVTestingHelper::logForTesting(nullptr);
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(listener.getJsonStackWithFlush(false), Dicts(3, messageAt(2)->jsonDictionary()));
}

TEST(QVTestingListenerTest, DictionaryIsBuiltWhenTheMainLoopRuns) {
  ::setenv(QVTestingHelper::kJsonLoggingName, "1", 1);
  QVTestingListener listener;
  std::shared_ptr<const QVValue> seen;
  const void* seenSender = nullptr;
  int other = 0;
  QVNotificationCenter::defaultCenter().addObserver(
      &other, QVTestingHelper::kJsonLoggingName, nullptr, [&](const QVNotification& n) {
        seen = QVTestingHelper::jsonDictionaryOfNotification(n);
        seenSender = n.sender;
      });

  auto first = messageAt(1), second = messageAt(2);
  QVTestingHelper::logForTesting(first);
  QVTestingHelper::logForTesting(second);
  first->setOffset(10);
  EXPECT_EQ(listener.jsonMessages(), Dicts{}) << "nothing before the loop runs";
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(listener.jsonMessages(), (Dicts{first->jsonDictionary(), second->jsonDictionary()}));
  EXPECT_EQ(listener.jsonMessages().front(), (QVValue{{"offset", 10}}));
  ASSERT_TRUE(seen);
  EXPECT_EQ(seenSender, seen.get()) << "the sender is the dictionary itself";
  QVNotificationCenter::defaultCenter().removeObserver(&other);
}

// A module's message whose dictionary cannot be made.
class FailingMessage : public QVMessage {
 public:
  QVValue jsonDictionary() const override { throw std::runtime_error("no dictionary"); }
};

TEST(QVTestingListenerTest, AMessageWithoutADictionaryIsLeftOutAndTheMainLoopGoesOn) {
  ::setenv(QVTestingHelper::kJsonLoggingName, "1", 1);
  QVTestingListener listener;
  QVTestingHelper::logForTesting(messageAt(1));
  QVTestingHelper::logForTesting(std::make_shared<FailingMessage>());
  QVTestingHelper::logForTesting(messageAt(3));
  EXPECT_NO_THROW(QVRunLoop::main().runUntilIdle());
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(listener.getJsonStackWithFlush(false),
            (Dicts{messageAt(1)->jsonDictionary(), messageAt(3)->jsonDictionary()}));
}

TEST(QVTestingListenerTest, FlushEmptiesOnlyWhenAsked) {
  QVTestingListener listener;
  listener.setJsonMessages({{{"offset", 1}}, {{"offset", 2}}});
  const Dicts held = listener.jsonMessages();
  ASSERT_EQ(held.size(), 2u);
  EXPECT_EQ(listener.getJsonStackWithFlush(false), held);
  EXPECT_EQ(listener.getJsonStackWithFlush(false), held);
  EXPECT_EQ(listener.getJsonStackWithFlush(true), held);
  EXPECT_EQ(listener.getJsonStackWithFlush(false), Dicts{});
  // A notification of that name that carries no dictionary adds nothing.
  QVNotificationCenter::defaultCenter().post(QVTestingHelper::kJsonLoggingName);
  EXPECT_EQ(listener.jsonMessages(), Dicts{});
}

TEST(QVTestingListenerTest, ListenerGoneBeforeTheTaskRunsMissesItSafely) {
  ::setenv(QVTestingHelper::kJsonLoggingName, "1", 1);
  auto early = QVTestingListener::create();
  QVTestingHelper::logForTesting(messageAt(5));
  early.reset();
  // A listener made after the call but before the loop runs still hears it.
  auto late = QVTestingListener::create();
  QVRunLoop::main().runUntilIdle();
  EXPECT_EQ(late->getJsonStackWithFlush(true), Dicts{messageAt(5)->jsonDictionary()});
}

}  // namespace
}  // namespace qv
