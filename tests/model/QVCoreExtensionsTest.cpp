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

TEST(QVCoreExtensionsTest, ToJsonIsCompactInDictionaryOrderWithSlashesPlain) {
  EXPECT_EQ(X::toJson(QVValue::object()), "{}");
  EXPECT_EQ(X::toJson(dict({{"z", 1}, {"a", QVValue::array({true, nullptr, 1.5})}})),
            R"({"z":1,"a":[true,null,1.5]})");
  EXPECT_EQ(X::toJson(dict({{"u", "\xC3\xA9"}})), "{\"u\":\"\xC3\xA9\"}");
  // Slashes plain, backslashes kept.
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
      QVValue::array({1}),
      QVValue("text"),
      QVValue(),
  };
  for (const QVValue& value : refused) EXPECT_EQ(X::toJson(value), "");
}

// Servers reading integer fields refuse "2.0"; a bad byte costs only itself.
TEST(QVCoreExtensionsTest, ToJsonWritesWholeFloatsAsIntegersAndMendsTextThatIsNotUtf8) {
  EXPECT_EQ(X::toJson(dict({{"w", 2.0},
                            {"f", 0.1},
                            {"e", 1e300},
                            {"z", -0.0},
                            {"big", 1e17},
                            {"beyond", 1e19},
                            {"n", QVValue::array({-3.0, 2.5})}})),
            R"({"w":2,"f":0.1,"e":1e+300,"z":0,"big":100000000000000000,)"
            R"("beyond":1e+19,"n":[-3,2.5]})");
  EXPECT_EQ(X::toJson(dict({{"s", "bad\xFF!"}, {"k\xC3\x28", 1}})),
            "{\"s\":\"bad\xEF\xBF\xBD!\",\"k\xEF\xBF\xBD(\":1}");
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

// Numbers as toJson() writes them (without a "+" a form reader would take
// for a space); nested values and null as their JSON text, escaped as
// strings are, so that the URL stays one that a request can be made from.
TEST(QVCoreExtensionsTest, UrlEncodedStringWritesOtherValuesAsTextAndNothingForNoPairs) {
  QVValue d = dict({{"n", 5},
                    {"neg", -3},
                    {"big", std::numeric_limits<uint64_t>::max()},
                    {"f", 1.5},
                    {"w", 2.0},
                    {"z", -0.0},
                    {"e", 1e300},
                    {"nan", std::numeric_limits<double>::quiet_NaN()},
                    {"t", true},
                    {"no", false},
                    {"null", nullptr},
                    {"list", QVValue::array({1, "a/b+", 2.0, 1e300})},
                    {"obj", dict({{"k", "v&w"}})}});
  EXPECT_EQ(X::urlEncodedString(d),
            "n=5&neg=-3&big=18446744073709551615&f=1.5&w=2&z=0&e=1e300&nan=nan&t=1&no=0"
            "&null=null&list=%5B1,%22a%2Fb%2B%22,2,1e%2B300%5D&obj=%7B%22k%22:%22v%26w%22%7D");
  EXPECT_EQ(X::urlEncodedString(dict({{"ul", QVValue::array({"a/b"})}})), "ul=%5B%22a/b%22%5D");
  EXPECT_EQ(X::urlEncodedString(QVValue::object()), "");
  EXPECT_EQ(X::urlEncodedString(QVValue::array({1, 2})), "");
  EXPECT_EQ(X::urlEncodedString(QVValue("a=b")), "");
}

}  // namespace
}  // namespace qv
