#include <gtest/gtest.h>

#include <sstream>

#include "QVShell.h"
#include "QVShellLine.h"
#include "qvcore/core/QVCore.h"

namespace qv::shell {
namespace {

TEST(QVShellLineTest, SplitsQuotedTextsOptionsAndJsonToTheEndOfTheLine) {
  std::string error;
  auto line = QVShellLine::parse(
      R"(post  Mod "two words" name="Home \"Screen\"" fields={"a": "x y", "b": [1, 2]}  )", &error);
  ASSERT_TRUE(line) << error;
  EXPECT_EQ(line->command(), "post");
  ASSERT_EQ(line->positional().size(), 2u);
  EXPECT_EQ(line->positional()[0].value, "Mod");
  EXPECT_EQ(line->positional()[1].value, "two words");
  EXPECT_EQ(line->option("name"), R"(Home "Screen")");
  EXPECT_EQ(line->option("fields"), R"({"a": "x y", "b": [1, 2]})");
  EXPECT_FALSE(line->option("session"));

  auto json = QVShellLine::parse(R"(config set M Key {"k": "v w"})", &error);
  ASSERT_TRUE(json);
  ASSERT_EQ(json->positional().size(), 4u);
  EXPECT_EQ(json->restOfLine(2), R"(Key {"k": "v w"})");
  EXPECT_EQ(json->positional()[3].value, R"({"k": "v w"})");

  EXPECT_TRUE(QVShellLine::parse("   # a comment", &error)->empty());
  EXPECT_TRUE(QVShellLine::parse("", &error)->empty());
  EXPECT_FALSE(QVShellLine::parse(R"(echo "open)", &error));
  EXPECT_FALSE(error.empty());
}

struct ScriptRun {
  int status;
  std::string out;
  std::string err;
};

ScriptRun run(const std::string& script) {
  QVShell shell;
  std::istringstream in(script);
  std::ostringstream out, err;
  const int status = shell.runScript(in, out, err);
  return {status, out.str(), err.str()};
}

TEST(QVShellTest, EveryCommandPrintsOneLineAndFailuresGoToStandardError) {
  auto result =
      run("# comment\n"
          "\n"
          "echo \"hello  world\"\n"
          "nonsense 1 2\n"
          "post\n"
          "post M level=abc\n"
          "post M bogus=1\n"
          "disable-module Nobody\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "hello  world\ntrue\n");
  std::istringstream errors(result.err);
  std::string line;
  int count = 0;
  while (std::getline(errors, line)) {
    EXPECT_EQ(line.rfind("error: ", 0), 0u) << line;
    ++count;
  }
  EXPECT_EQ(count, 4);
}

TEST(QVShellTest, ScriptWithoutFailuresExitsZeroAndReachesTheLibrary) {
  auto result = run("session-id\nmodule Shelled /nowhere\nenable-module Unknown\n");
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, QVCore::sharedInstance()->currentSessionID() + "\nok\nfalse\n");
  EXPECT_NE(QVCore::sharedInstance()->lifecycleObjectForName("Shelled"), nullptr);
}

}  // namespace
}  // namespace qv::shell
