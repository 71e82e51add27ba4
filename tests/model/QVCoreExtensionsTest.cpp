#include <gtest/gtest.h>

#include <limits>

#include "qvcore/model/QVCoreExtensions.h"

namespace qv {
namespace {

using X = QVCoreExtensions;

QVValue dict(std::initializer_list<std::pair<const char*, QVValue>> entries) {
  QVValue d = QVValue::object();
  for (const auto& [key, value] : entries) d[key] = value;
  return d;
}

TEST(QVCoreExtensionsTest, ToJsonIsCompactInDictionaryOrder) {
  EXPECT_EQ(X::toJson(QVValue::object()), "{}");
  EXPECT_EQ(X::toJson(dict({{"z", 1}, {"a", QVValue::array({true, nullptr, 1.5})}})),
            R"({"z":1,"a":[true,null,1.5]})");
  EXPECT_EQ(X::toJson(dict({{"u", "\xC3\xA9"}})), "{\"u\":\"\xC3\xA9\"}");
}

TEST(QVCoreExtensionsTest, ToJsonWritesSlashesPlainAndKeepsBackslashes) {
  EXPECT_EQ(X::toJson(dict({{"p", "a/b"}})), R"({"p":"a/b"})");
  const std::string tricky = "a\\/b";  // a backslash, then a slash
  const std::string text = X::toJson(dict({{"p", tricky}}));
  EXPECT_EQ(QVValue::parse(text)["p"], tricky);
}

TEST(QVCoreExtensionsTest, ToJsonIsEmptyForWhatJsonCannotCarry) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const QVValue refused[] = {
      dict({{"n", nan}}),
      dict({{"deep", dict({{"list", QVValue::array({1, -inf})}})}}),
      dict({{"b", QVValue::binary({1, 2})}}),
      dict({{"s", "bad\xFF"}}),
      dict({{"bad\xFF", 1}}),
      QVValue::array({1}),
      QVValue("text"),
      QVValue(),
  };
  for (const QVValue& value : refused) EXPECT_EQ(X::toJson(value), "");
}

TEST(QVCoreExtensionsTest, UrlEncodedStringEscapesStrings) {
  EXPECT_EQ(X::urlEncodedString(dict({{"a", "x&y"}})), "a=x%26y");
  EXPECT_EQ(X::urlEncodedString(dict({{"a", "p/q"}})), "a=p%2Fq");
  EXPECT_EQ(X::urlEncodedString(dict({{"ul", "p/q"}})), "ul=p/q");
  EXPECT_EQ(X::urlEncodedString(dict({{"s", "a b=c+d?e:f@g;h,i'!$*()~_.-"}})),
            "s=a%20b=c+d?e:f@g;h,i'!$*()~_.-");
  EXPECT_EQ(X::urlEncodedString(dict({{"s", "100%#[]\"<>\\^`{|}\n"}})),
            "s=100%25%23%5B%5D%22%3C%3E%5C%5E%60%7B%7C%7D%0A");
  EXPECT_EQ(X::urlEncodedString(dict({{"s", "\xC3\xA9\xE2\x82\xAC"}})), "s=%C3%A9%E2%82%AC");
  EXPECT_EQ(X::urlEncodedString(dict({{"a b/c", "v"}})), "a b/c=v");  // keys as they are
}

TEST(QVCoreExtensionsTest, UrlEncodedStringWritesOtherValuesAsText) {
  QVValue d = dict({{"n", 5},
                    {"neg", -3},
                    {"big", std::numeric_limits<uint64_t>::max()},
                    {"f", 1.5},
                    {"nan", std::numeric_limits<double>::quiet_NaN()},
                    {"t", true},
                    {"no", false},
                    {"null", nullptr},
                    {"list", QVValue::array({1, "a/b"})},
                    {"obj", dict({{"k", "v&w"}})}});
  EXPECT_EQ(X::urlEncodedString(d),
            "n=5&neg=-3&big=18446744073709551615&f=1.5&nan=nan&t=1&no=0&null=<null>"
            "&list=[1,\"a/b\"]&obj={\"k\":\"v&w\"}");
}

TEST(QVCoreExtensionsTest, UrlEncodedStringIsEmptyForNoPairs) {
  EXPECT_EQ(X::urlEncodedString(QVValue::object()), "");
  EXPECT_EQ(X::urlEncodedString(QVValue::array({1, 2})), "");
  EXPECT_EQ(X::urlEncodedString(QVValue("a=b")), "");
}

}  // namespace
}  // namespace qv
