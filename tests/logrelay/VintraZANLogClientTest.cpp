#include "qvcore/logrelay/VintraZANLogClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <thread>

#include "logrelay/QVLogRelayBuffer.h"
#include "qvcore/logrelay/VintraExtensions.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVRunLoop.h"
#include "support/QVFakeServiceDiscovery.h"
#include "support/QVTempFolder.h"

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

namespace qv {
namespace {

using Fake = test::QVFakeServiceDiscovery;

class VintraZANLogClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVRunLoop::main().setClock(clock_);
    QVServiceDiscovery::setShared(discovery_);
    QVLog::setSink([this](const std::string& line) {
      std::lock_guard lock(mutex_);
      lines_.push_back(line);
    });
    bundle_.writePlist("Info.plist", {{"CFBundleName", "Demo App"}});
    QVBundle::setMainBundlePath(bundle_.path());
  }
  void TearDown() override {
    QVLog::setSink(nullptr);
    QVServiceDiscovery::setShared(nullptr);
  }

  void pump() { QVRunLoop::main().runUntilIdle(); }
  void pass(QVClock::Duration time) {
    clock_->advance(time);
    pump();
  }
  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  size_t count(const std::string& line) {
    auto all = lines();
    return static_cast<size_t>(std::count(all.begin(), all.end(), line));
  }

  // The client's browser, after the client started searching.
  Fake::Browser& browser() {
    client_ = VintraZANLogClient::onlyVintraZANLogClient();
    pump();
    return *discovery_->browsers.at(0);
  }
  // A tool found and resolved: the stream that the client writes to.
  std::shared_ptr<Fake::OutputStream> connectTool() {
    auto service = browser().find("tool");
    pump();
    service->answer({test::ipv4Address(192, 168, 1, 20)});
    pump();
    return service->output;
  }

  std::shared_ptr<QVFakeClock> clock_ = std::make_shared<QVFakeClock>();
  std::shared_ptr<Fake> discovery_ = std::make_shared<Fake>();
  std::shared_ptr<VintraZANLogClient> client_;
  test::QVTempFolder bundle_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

TEST_F(VintraZANLogClientTest, TheFirstToolFoundIsResolvedAndConnected) {
  Fake::Browser& search = browser();
  EXPECT_EQ(search.searched, "_brevantlogservice._tcp. local.");
  auto first = search.find("first");
  auto second = search.find("second");
  pump();
  EXPECT_EQ(search.searched, "") << "the browser stops at the first instance";
  EXPECT_EQ(client_->theService(), first);
  EXPECT_EQ(first->timeout, 3.0);
  EXPECT_EQ(second->timeout, std::nullopt) << "later instances are never considered";

  first->answer({test::ipv4Address(192, 168, 1, 20), test::ipv4Address(10, 0, 0, 7)});
  pump();
  ASSERT_NE(first->output, nullptr);
  EXPECT_EQ(client_->theOutStream(), first->output);
  EXPECT_EQ(client_->theInStream(), first->input);
  const std::string in = first->input->description();
  const std::string out = first->output->description();
  EXPECT_THAT(lines(), ElementsAre("netServiceBrowserWillSearch",
                                   "didFindService: " + first->description() + ", moreComing: 0",
                                   "netServiceBrowserDidStopSearch", "netServiceDidResolveAddress",
                                   "inputStream: " + in + ", outputStream: " + out +
                                       ", outstream status = 2, bGetInputStreamRetVal: 1",
                                   "connected to: 192.168.1.20", "connected to: 10.0.0.7",
                                   "handleEventCalled on : " + in + " and event: 1",
                                   "handleEventCalled on : " + out + " and event: 1",
                                   "handleEventCalled on : " + out + " and event: 4"));
}

// Texts from any thread wait seven seconds, then go out whole, as UTF-8, on
// the main thread; only the first brings the header.
TEST_F(VintraZANLogClientTest, TextsWaitSevenSecondsAndGoOutWholeAfterOneHeader) {
  auto stream = connectTool();
  stream->chunk = 3;
  const std::string text = "Grüße, 日本 ✓";
  VintraZANLogClient::postToZANVintraSDKTool("one\n");
  std::thread([&] { VintraZANLogClient::postToZANVintraSDKTool(text); }).join();
  pass(7s - 1ns);
  EXPECT_EQ(stream->written, "") << "nothing goes out before 7 seconds";
  pass(1ns);
  EXPECT_THAT(stream->written,
              MatchesRegex("ZAN_SDK_START_NEW_RUN_FOR_APP\tDemo App\t"
                           "[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3} [^ \t\n]+ on "
                           "[0-9]{4}\\.[01][0-9]\\.[0-3][0-9]\none\n" +
                           text));
  EXPECT_THAT(stream->writerThreads, ::testing::Each(std::this_thread::get_id()));

  stream->written.clear();
  const size_t calls = stream->writeCalls;
  VintraExtensions::postToZANVintraSDKTool("");
  pass(7s);
  EXPECT_EQ(stream->writeCalls, calls) << "empty text writes nothing";
  VintraExtensions::postToZANVintraSDKTool("via extension");
  pass(7s);
  EXPECT_EQ(stream->written, "via extension");
  // Past the relay's bound, a text that finds nothing waiting still goes out.
  stream->chunk = SIZE_MAX;
  const std::string big(QVLogRelayBuffer::kCapacity + 1, 'b');
  VintraExtensions::postToZANVintraSDKTool(big);
  pass(7s);
  EXPECT_EQ(stream->written, "via extension" + big);
}

// Without a stream (no tool yet, or one that did not resolve) text is
// dropped, not kept for a tool found later.
TEST_F(VintraZANLogClientTest, TextWithNoStreamIsDroppedNotKept) {
  auto service = browser().find("tool");
  pump();
  service->answer({});  // the resolve fails
  pump();
  EXPECT_EQ(count("didNotResolve"), 1u);
  EXPECT_EQ(client_->theOutStream(), nullptr);
  VintraZANLogClient::postToZANVintraSDKTool("lost");
  pass(7s - 1ns);
  EXPECT_EQ(count("Stream has no space"), 0u);
  pass(1ns);
  EXPECT_EQ(count("Stream has no space"), 2u) << "the header and the text";

  // The same tool resolves on a later try.
  service->resolveWithTimeout(3);
  service->answer({test::ipv4Address(192, 168, 1, 20)});
  pump();
  VintraZANLogClient::postToZANVintraSDKTool("kept");
  pass(7s);
  EXPECT_EQ(service->output->written, "kept") << "no header again, nothing queued";
}

TEST_F(VintraZANLogClientTest, AFailedWriteIsCaughtAndItsTextDropped) {
  auto stream = connectTool();
  stream->failure = "send: Connection reset by peer";
  VintraZANLogClient::postToZANVintraSDKTool("dropped");
  pass(7s);
  EXPECT_EQ(count("Caught: send: Connection reset by peer"), 2u);
  EXPECT_EQ(stream->writeCalls, 2u) << "one try for the header, one for the text";

  stream->failure.reset();
  VintraZANLogClient::postToZANVintraSDKTool("after");
  pass(7s);
  EXPECT_EQ(stream->written, "after") << "the main loop still writes";

  stream->endFromPeer();
  VintraZANLogClient::postToZANVintraSDKTool("gone");
  pass(7s);
  EXPECT_EQ(count("handleEventCalled on : " + stream->description() + " and event: 16"), 1u);
  EXPECT_EQ(count("Caught: send: Broken pipe"), 1u);
}

TEST_F(VintraZANLogClientTest, AddressesAreReadAsIPv4WhateverTheirFamily) {
  auto client = VintraZANLogClient::onlyVintraZANLogClient();
  EXPECT_EQ(client->getStringFromAddressData(test::ipv4Address(192, 168, 1, 20)), "192.168.1.20");

  sockaddr_in6 ipv6{};
  ipv6.sin6_family = AF_INET6;
  ipv6.sin6_flowinfo = htonl(0x0a000001);
  ipv6.sin6_addr.s6_addr[15] = 1;
  const auto* bytes = reinterpret_cast<const uint8_t*>(&ipv6);
  EXPECT_EQ(client->getStringFromAddressData({bytes, bytes + sizeof ipv6}), "10.0.0.1")
      << "an IPv6 address gives its flow information";
  EXPECT_EQ(client->getStringFromAddressData({2, 0, 0x11, 0x2b, 127, 0}), "127.0.0.0");
}

}  // namespace
}  // namespace qv
