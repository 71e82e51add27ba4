// The message model: the base message and the context message in their JSON
// and archived forms, the JSON and query text they are written as, and the
// test log that collects messages while "QV_JSON_Logging" is on.
#include <gtest/gtest.h>

#include "qvcore/core/QVCoreHelper.h"
#include "qvcore/model/QVApplicationContextMessage.h"
#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/model/QVMessageConstants.h"
#include "qvcore/model/QVTestingHelper.h"
#include "qvcore/model/QVTestingListener.h"
#include "qvcore/platform/QVKeyedArchiver.h"
#include "qvcore/platform/QVKeyedUnarchiver.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVFieldsMessage.h"

namespace qv {
namespace {

using Context = QVApplicationContextMessage;
using Dicts = std::vector<QVValue>;
using test::messageWithOffset;
constexpr uint64_t kUMax = UINT64_MAX;

uint64_t now() { return QVCoreHelper::sharedInstance()->now(); }

template <typename M>
std::shared_ptr<M> unarchive(const std::vector<uint8_t>& data) {
  return QVKeyedUnarchiver::unarchiveObjectWithData<M>(data);
}

// The JSON text holds the offset, never the log level (the defaults and a
// subclass's fields are held below and by QVSessionTest); the archive holds
// both base fields; unarchiving starts from zero and stops at the first
// value of a wrong kind.
TEST(QVMessageTest, JsonHoldsOnlyTheOffsetAndTheArchiveBothBaseFields) {
  QVMessage message;
  message.setLogLevel(-7);
  message.setOffset(kUMax);
  EXPECT_EQ(message.toJson(), R"({"offset":18446744073709551615})");
  auto copy = unarchive<QVMessage>(QVKeyedArchiver::archivedDataWithRootObject(message));
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ((QVValue{copy->offset(), copy->logLevel()}), (QVValue{kUMax, -7}));

  // A text where the offset's number belongs: the level after it is not read.
  QVKeyedArchiver archiver;
  archiver.encodeObjectForKey(std::string("9"), "KeyQVMessageOffset");
  archiver.encodeUInt64ForKey(4, "KeyQVMessageLogLevel");
  copy = unarchive<QVMessage>(archiver.archivedData());
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ((QVValue{copy->offset(), copy->logLevel()}), (QVValue{0, 0}));
}

std::shared_ptr<Context> fullMessage(int64_t type, uint64_t setDate) {
  return Context::
      initWithTypeNameReferrerKlassNameReferrerKlassNameCurrentScreenIdCurrentScreenIdSetDatePreviousScreenIdPreviousScreenIdSetDate(
          type, "Home", "Launch", "HomeView", "LaunchView", 11, setDate, 10, kUMax);
}

// Every field and the JSON text, so that messages are compared whole.
QVValue fields(const Context& m) {
  const auto text = [](const auto& s) { return s ? QVValue(*s) : QVValue(); };
  return {m.offset(),           m.logLevel(),
          m.toJson(),           m.contextType(),
          text(m.name()),       text(m.referrer()),
          text(m.klassName()),  text(m.referrerKlassName()),
          m.currentScreenId(),  m.currentScreenIdSetDate(),
          m.previousScreenId(), m.previousScreenIdSetDate()};
}

// Only the full initialiser stamps the current screen's date, and only for
// a type other than 0; the base fields keep their starting values.
TEST(QVApplicationContextMessageTest, OnlyTheFullInitialiserStampsANonZeroType) {
  const char* json = R"({"offset":0})";
  EXPECT_EQ(fields(*Context::initWithTypeNameReferrer(3, "Home", std::nullopt)),
            (QVValue{0, 1, json, 3, "Home", nullptr, "", "", 0, 0, 0, 0}));
  EXPECT_EQ(
      fields(*Context::initWithTypeNameReferrerKlassNameReferrerKlassName(-2, "A", "B", "C", "D")),
      (QVValue{0, 1, json, -2, "A", "B", "C", "D", 0, 0, 0, 0}));
  EXPECT_EQ(fields(*fullMessage(0, 5)),
            (QVValue{0, 1, json, 0, "Home", "Launch", "HomeView", "LaunchView", 11, 5, 10, kUMax}));

  uint64_t before = now();
  auto stamped = fullMessage(3, 5);
  const Context constructed(4, "Cart", "Home", "CartView", "HomeView", 2, 5, 1, 9);
  const uint64_t after = now();
  for (uint64_t date : {stamped->currentScreenIdSetDate(), constructed.currentScreenIdSetDate()})
    EXPECT_TRUE(date >= before && date <= after) << date;

  // The time since the set date is the unsigned difference.
  before = now();
  stamped->setCurrentScreenIdSetDate(before - 1000);
  const uint64_t ago = stamped->timeSinceStart();
  EXPECT_TRUE(ago >= 1000 && ago <= now() - before + 1000) << ago;
  stamped->setCurrentScreenIdSetDate(kUMax);  // now - max wraps to now + 1
  before = now();
  const uint64_t wrapped = stamped->timeSinceStart();
  EXPECT_TRUE(wrapped >= before + 1 && wrapped <= now() + 1) << wrapped;
}

// The archive holds the context fields (the last under its historical
// spelling) but not the base ones; a field that cannot be written or read
// ends the archiving or unarchiving there.
TEST(QVApplicationContextMessageTest, ArchiveCarriesContextNotBaseFieldsAndStopsAtAFaultyKey) {
  auto message = fullMessage(0, 5);
  message->setContextType(INT64_MIN);
  message->setName("Übersicht");
  message->setReferrer(std::nullopt);
  message->setOffset(42);
  message->setLogLevel(9);
  const auto data = QVKeyedArchiver::archivedDataWithRootObject(*message);
  QVKeyedUnarchiver coder(data);
  for (const char* key : {"KeyQVMessageOffset", "KeyQVMessageLogLevel",
                          "KeyQVApplicationContextPreviousScreenIdSetDate"}) {
    EXPECT_FALSE(coder.containsValueForKey(key)) << key;
  }
  EXPECT_EQ(coder.decodeUInt64ForKey("KeyQVApplicaitonContextPreviousScreenIdSetDate"), kUMax);
  message->setOffset(0);
  message->setLogLevel(1);
  auto copy = unarchive<Context>(data);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(fields(*copy), fields(*message));

  message->setReferrer("bad\xFF");
  QVKeyedUnarchiver refused(QVKeyedArchiver::archivedDataWithRootObject(*message));
  EXPECT_TRUE(refused.containsValueForKey(KeyQVApplicationContextName));
  EXPECT_FALSE(refused.containsValueForKey(KeyQVApplicationContextReferrer));
  EXPECT_FALSE(refused.containsValueForKey(KeyQVApplicationContextKlassName));

  QVKeyedArchiver archiver;
  fullMessage(0, 5)->encodeWithCoder(archiver);
  archiver.encodeUInt64ForKey(1, KeyQVApplicationContextReferrer);
  auto partial = unarchive<Context>(archiver.archivedData());
  ASSERT_NE(partial, nullptr);
  EXPECT_EQ(fields(*partial),
            (QVValue{0, 1, R"({"offset":0})", 0, "Home", nullptr, nullptr, nullptr, 0, 0, 0, 0}));
}

struct Row {
  QVValue in;
  std::string out;
};

QVValue parse(const char* json) { return QVValue::parse(json); }

// Compact, in dictionary order, slashes plain; whole floats as integers (servers
// reading integer fields refuse "2.0"); a bad byte costs only itself; nothing
// for what JSON cannot carry.
TEST(QVCoreExtensionsTest, ToJsonIsCompactInOrderWithWholeFloatsAsIntegersAndTextMended) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const Row rows[] = {
      {QVValue::object(), "{}"},
      {parse(R"({"z":1,"a":[true,null,1.5],"u":"é","p":"a/b","b":"a\\/b"})"),
       R"({"z":1,"a":[true,null,1.5],"u":"é","p":"a/b","b":"a\\/b"})"},
      {parse(R"({"w":2.0,"f":0.1,"e":1e300,"z":-0.0,"big":1e17,"beyond":1e19,"n":[-3.0,2.5]})"),
       R"({"w":2,"f":0.1,"e":1e+300,"z":0,"big":100000000000000000,"beyond":1e+19,"n":[-3,2.5]})"},
      {{{"s", "bad\xFF!"}, {"k\xC3\x28", 1}}, "{\"s\":\"bad\xEF\xBF\xBD!\",\"k\xEF\xBF\xBD(\":1}"},
      {{{"n", nan}}, ""},
      {{{"deep", {{"list", {1, -std::numeric_limits<double>::infinity()}}}}}, ""},
      {{{"b", QVValue::binary({1, 2})}}, ""},
      {QVValue::array({1}), ""}};
  for (const Row& row : rows) EXPECT_EQ(QVCoreExtensions::toJson(row.in), row.out) << row.out;
}

// Strings escaped but for the characters a query keeps ("ul" keeps its
// slashes), keys as they are; numbers as toJson() writes them (without a "+" a
// form reader would take for a space); nested values and null as their JSON
// text, escaped as strings are, so that a request can be made from the URL.
TEST(QVCoreExtensionsTest, UrlEncodedStringEscapesValuesAndIsEmptyWithoutPairs) {
  const Row rows[] = {
      {parse(R"({"a":"x&y","b":"p/q","ul":"p/q","a b/c":"v"})"), "a=x%26y&b=p%2Fq&ul=p/q&a b/c=v"},
      {parse(R"({"s":"a b=c+d?e:f@g;h,i'!$*()~_.-"})"), "s=a%20b=c+d?e:f@g;h,i'!$*()~_.-"},
      {parse(R"({"s":"100%#[]\"<>\\^`{|}\n"})"), "s=100%25%23%5B%5D%22%3C%3E%5C%5E%60%7B%7C%7D%0A"},
      {parse(R"({"s":"é€"})"), "s=%C3%A9%E2%82%AC"},
      {parse(R"({"n":5,"neg":-3,"big":18446744073709551615,"f":1.5,"w":2.0,"z":-0.0,"e":1e300})"),
       "n=5&neg=-3&big=18446744073709551615&f=1.5&w=2&z=0&e=1e300"},
      {{{"nan", std::numeric_limits<double>::quiet_NaN()}}, "nan=nan"},
      {parse(R"({"t":true,"no":false,"null":null,"list":[1,"a/b+",2.0,1e300]})"),
       "t=1&no=0&null=null&list=%5B1,%22a%2Fb%2B%22,2,1e%2B300%5D"},
      {parse(R"({"obj":{"k":"v&w"},"ul":["a/b"]})"),
       "obj=%7B%22k%22:%22v%26w%22%7D&ul=%5B%22a/b%22%5D"},
      {QVValue::object(), ""},
      {"a=b", ""}};
  for (const Row& row : rows)
    EXPECT_EQ(QVCoreExtensions::urlEncodedString(row.in), row.out) << row.out;
}

QVValue offsetDict(uint64_t offset) { return messageWithOffset(offset)->jsonDictionary(); }

// Only the value 1 (as a number is read from text) logs; a flush empties the
// log only when asked; a notification without a dictionary adds nothing.
TEST(QVTestingListenerTest, OnlyTheValueOnePostsAnythingAndFlushEmptiesOnlyWhenAsked) {
  QVTestingListener listener;
  for (const char* value : {"", "0", "2", "x1", "11", "1", "01", " 1"}) {
    ::setenv(QVTestingHelper::kJsonLoggingName, value, 1);
    QVTestingHelper::logForTesting(messageWithOffset(std::atoi(value)));
  }
  ::unsetenv(QVTestingHelper::kJsonLoggingName);
  QVTestingHelper::logForTesting(messageWithOffset(7));
  ::setenv(QVTestingHelper::kJsonLoggingName, "1", 1);
  QVTestingHelper::logForTesting(nullptr);
  QVNotificationCenter::defaultCenter().post(QVTestingHelper::kJsonLoggingName);
  QVRunLoop::main().runUntilIdle();
  const Dicts logged(3, offsetDict(1));
  EXPECT_EQ(listener.getJsonStackWithFlush(false), logged);
  EXPECT_EQ(listener.getJsonStackWithFlush(true), logged);
  EXPECT_EQ(listener.getJsonStackWithFlush(false), Dicts{});
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

}  // namespace
}  // namespace qv
