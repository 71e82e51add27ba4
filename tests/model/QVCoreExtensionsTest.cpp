#include <gtest/gtest.h>

#include "qvcore/model/QVCoreExtensions.h"

namespace qv {
namespace {

using X = QVCoreExtensions;

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
      {QVValue::array({1}), ""},
      {"text", ""},
      {QVValue(), ""}};
  for (const Row& row : rows) EXPECT_EQ(X::toJson(row.in), row.out) << row.out;
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
      {QVValue::array({1, 2}), ""},
      {"a=b", ""}};
  for (const Row& row : rows) EXPECT_EQ(X::urlEncodedString(row.in), row.out) << row.out;
}

}  // namespace
}  // namespace qv
