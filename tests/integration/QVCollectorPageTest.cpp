// The collector's web page as a browser renders it: headless Chromium loads
// /_qv/ with a request named in the address, runs the page's script, and the
// DOM it dumps must show that request's sessions and messages.
#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "QVCollectorServer.h"
#include "qvcore/platform/QVFileSystem.h"
#include "support/QVCapability.h"
#include "support/QVTempFolder.h"

namespace qv::collector {
namespace {

constexpr const char* kChromium = "/usr/bin/chromium";

size_t count(const std::string& text, const std::string& part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
  return found;
}

TEST(QVCollectorPageTest, ShowsTheMessagesOfTheRequestNamedInTheAddress) {
  QV_REQUIRE_CAPABILITY(::access(kChromium, X_OK) == 0, kChromium);
  test::QVTempFolder folder;
  QVCollectorStore store{folder.at("collector.sqlite")};
  QVCollectorReplyPolicy policy;
  std::ostringstream log;
  QVCollectorServer server{store, policy, log};
  const int port = server.bind(0);
  server.start();
  // The DOM after the page's scripts ran, as Chromium prints it. Virtual
  // time lets the page's requests finish without a wall-clock wait.
  const auto renderedDom = [&](const std::string& address) {
    const std::string command =
        "timeout 120 " + std::string(kChromium) +
        " --headless=new --no-sandbox --disable-gpu --user-data-dir=" + folder.at("profile") +
        " --virtual-time-budget=5000 --dump-dom 'http://127.0.0.1:" + std::to_string(port) +
        address + "' 2>/dev/null >" + folder.at("dom.html");
    std::system(command.c_str());
    return QVFileSystem::contentsAtPath(folder.at("dom.html"), 1 << 24).value_or("");
  };
  httplib::Client client("127.0.0.1", port);
  const std::string payload =
      R"({"messageVersion":"6.0.0.0","serialNumber":3,"sessions":[{"id":"page-session",)"
      R"("startTime":1700000000000,"clientEnvironment":{"osType":"Linux"},"QVCoreSessionID":"core-1",)"
      R"("messages":[{"offset":11,"screen":"marker-<b>one</b>"},{"offset":12,"screen":"marker-two"},)"
      R"({"offset":13,"referrer":"marker-three"}]}]})";
  ASSERT_TRUE(client.Post("/page", payload, "text/json"));
  ASSERT_TRUE(client.Get("/page?offset=21&screen=query%20marker"));

  const std::string first = renderedDom("/_qv/#1");
  ASSERT_NE(first.find("id=\"request-1\""), std::string::npos) << first;
  EXPECT_NE(first.find("<h3>Session 0: page-session</h3>"), std::string::npos);
  EXPECT_EQ(count(first, "<tr class=\"message\">"), 3u);
  // Text from a request stays text: the markup in it is escaped.
  for (const char* cell : {"marker-&lt;b&gt;one&lt;/b&gt;", "marker-two", "marker-three", "13"}) {
    EXPECT_NE(first.find(std::string("<td class=\"value\">") + cell + "</td>"), std::string::npos)
        << cell;
  }
  // The list holds both requests, and nothing the browser asked for itself.
  EXPECT_EQ(count(first, "<tr data-id="), 2u);
  // What the module posting to /page sent: 3 messages in the body, 1 in the query.
  EXPECT_NE(first.find("<tr class=\"module\"><td class=\"mono\">/page</td><td class=\"num\">"
                       "2 requests</td><td class=\"num\">4 messages</td><td class=\"num\">"
                       "4 answered 2xx</td></tr>"),
            std::string::npos)
      << first;

  const std::string second = renderedDom("/_qv/?id=2");
  ASSERT_NE(second.find("id=\"request-2\""), std::string::npos) << second;
  EXPECT_NE(second.find("\"query marker\""), std::string::npos);
  EXPECT_EQ(second.find("marker-two"), std::string::npos);
}

}  // namespace
}  // namespace qv::collector
