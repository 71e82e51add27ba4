// The log relay: the client against fake DNS-SD and streams for what only a
// test can cause; its socket streams against a real TCP peer on the loopback
// address; and end to end, qvcore-logtool announcing itself through a real
// Avahi daemon while applications find it, connect and post, all inside a
// network namespace of the test's own.
#include "qvcore/logrelay/VintraZANLogClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <regex>
#include <thread>

#include "logrelay/QVLogRelayBuffer.h"
#include "platform/net/QVSocketConnection.h"
#include "platform/net/QVSocketInputStream.h"
#include "platform/net/QVSocketOutputStream.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVFakeClock.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVPropertyList.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVStreamDelegate.h"
#include "qvcore/platform/QVStreamException.h"
#include "support/QVFakeServiceDiscovery.h"
#include "support/QVLoopback.h"
#include "support/QVNetworkNamespace.h"
#include "support/QVTempFolder.h"

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using Event = qv::QVByteStream::Event;

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

  // Every address is read as IPv4: an IPv6 one gives its flow information,
  // a short one what it holds.
  sockaddr_in6 ipv6{};
  ipv6.sin6_family = AF_INET6;
  ipv6.sin6_flowinfo = htonl(0x0a000007);
  ipv6.sin6_addr.s6_addr[15] = 1;
  const auto* bytes = reinterpret_cast<const uint8_t*>(&ipv6);
  first->answer(
      {test::ipv4Address(192, 168, 1, 20), {bytes, bytes + sizeof ipv6}, {2, 0, 1, 2, 127}});
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
                                   "connected to: 127.0.0.0",
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
              ::testing::MatchesRegex("ZAN_SDK_START_NEW_RUN_FOR_APP\tDemo App\t"
                                      "[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3} [^ \t\n]+ on "
                                      "[0-9]{4}\\.[01][0-9]\\.[0-3][0-9]\none\n" +
                                      text));
  EXPECT_THAT(stream->writerThreads, ::testing::Each(std::this_thread::get_id()));

  stream->written.clear();
  const size_t calls = stream->writeCalls;
  VintraZANLogClient::postToZANVintraSDKTool("");
  pass(7s);
  EXPECT_EQ(stream->writeCalls, calls) << "empty text writes nothing";
  // Past the relay's bound, a text that finds nothing waiting still goes out.
  stream->chunk = SIZE_MAX;
  const std::string big(QVLogRelayBuffer::kCapacity + 1, 'b');
  VintraZANLogClient::postToZANVintraSDKTool(big);
  pass(7s);
  EXPECT_EQ(stream->written, big);
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
  pass(7s);
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

// In a network of its own with no Avahi daemon: the real search fails, and
// text is dropped.
TEST_F(VintraZANLogClientTest, WithoutAnAvahiDaemonTheSearchFailsAndTextIsDropped) {
  QVServiceDiscovery::setShared(nullptr);
  test::QVNetworkNamespace::run(test::QVNetworkNamespace::Kind::kMdnsWithoutDaemons, [&](auto&) {
    VintraZANLogClient::postToZANVintraSDKTool("lost");
    EXPECT_TRUE(QVRunLoop::main().runUntil([&] { return count("didNotSearch") == 1; }, 10s));
    pass(7s);
    EXPECT_EQ(count("Stream has no space"), 2u) << "the header and the text";
  });
}

class EventLog : public QVStreamDelegate {
 public:
  void streamHandleEvent(const std::shared_ptr<QVByteStream>& stream, Event event) override {
    events.emplace_back(stream.get(), event);
  }
  bool saw(const std::shared_ptr<QVByteStream>& stream, Event event) const {
    return std::count(events.begin(), events.end(), std::make_pair(stream.get(), event)) > 0;
  }
  std::vector<std::pair<QVByteStream*, Event>> events;
};

// A listener on 127.0.0.1; a small receive window, when given, makes a peer
// that stops reading fill the connection soon.
struct Peer {
  explicit Peer(int window = 0) : listener(test::bindLoopback(port, true, window)) {}
  ~Peer() {
    ::close(fd);
    ::close(listener);
  }
  bool accept() {
    pollfd entry{listener, POLLIN, 0};
    return ::poll(&entry, 1, 5000) == 1 && (fd = ::accept(listener, nullptr, nullptr)) >= 0;
  }
  // True once the other side has ended the connection.
  bool seesEnd() {
    pollfd entry{fd, POLLIN, 0};
    char byte;
    return ::poll(&entry, 1, 10000) == 1 && ::recv(fd, &byte, 1, 0) == 0;
  }
  int port = 0;
  int listener;
  int fd = -1;
};

ptrdiff_t write(QVOutputStream& stream, const std::string& text) {
  return stream.write(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

class QVLogRelaySocketStreamTest : public ::testing::Test {
 protected:
  void open(const Peer& peer) {
    std::tie(input_, output_) =
        QVSocketConnection::makeStreams(test::ipv4Address(127, 0, 0, 1, peer.port));
    for (std::shared_ptr<QVByteStream> stream :
         {std::shared_ptr<QVByteStream>(input_), std::shared_ptr<QVByteStream>(output_)}) {
      stream->setDelegate(log_);
      stream->open();
      stream->scheduleInRunLoop(loop_);
    }
  }
  bool await(const std::shared_ptr<QVByteStream>& stream, Event event) {
    return loop_.runUntil([&] { return log_->saw(stream, event); }, 5s);
  }

  QVRunLoop loop_;
  std::shared_ptr<EventLog> log_ = std::make_shared<EventLog>();
  std::shared_ptr<QVSocketInputStream> input_;
  std::shared_ptr<QVSocketOutputStream> output_;
};

TEST_F(QVLogRelaySocketStreamTest, WritesReachThePeerAndItsCloseIsHeard) {
  Peer peer;
  open(peer);
  // Written before the connect is known to be done: the write waits for it.
  EXPECT_EQ(write(*output_, "hello, "), 7);
  ASSERT_TRUE(peer.accept());
  EXPECT_TRUE(await(output_, QVByteStream::kEventOpenCompleted));
  EXPECT_TRUE(await(output_, QVByteStream::kEventHasSpaceAvailable));
  EXPECT_TRUE(await(input_, QVByteStream::kEventOpenCompleted));
  EXPECT_EQ(output_->streamStatus(), QVByteStream::kStatusOpen);
  EXPECT_EQ(write(*output_, "tool"), 4);
  EXPECT_EQ(test::receiveUntil(peer.fd, "hello, tool"), "hello, tool");

  ::close(std::exchange(peer.fd, -1));
  ASSERT_TRUE(await(input_, QVByteStream::kEventEndEncountered));
  EXPECT_EQ(input_->streamStatus(), QVByteStream::kStatusAtEnd);
  // The peer's reset comes back after the first write into the closed
  // connection; from then on writes raise instead of looping.
  const auto raises = [&] {
    try {
      write(*output_, "more");
    } catch (const QVStreamException&) {
      return true;
    }
    return false;
  };
  EXPECT_TRUE(loop_.runUntil(raises, 5s));
  EXPECT_EQ(output_->streamStatus(), QVByteStream::kStatusError);
}

TEST_F(QVLogRelaySocketStreamTest, ARefusedConnectionIsAnErrorAndWritesRaise) {
  Peer peer;
  ::close(std::exchange(peer.listener, -1));
  open(peer);
  EXPECT_TRUE(await(output_, QVByteStream::kEventErrorOccurred));
  EXPECT_TRUE(await(input_, QVByteStream::kEventErrorOccurred));
  EXPECT_EQ(output_->streamStatus(), QVByteStream::kStatusError);
  EXPECT_THAT(output_->streamError(), HasSubstr("refused"));
  EXPECT_THROW(write(*output_, "lost"), QVStreamException);
  EXPECT_FALSE(log_->saw(output_, QVByteStream::kEventOpenCompleted));
}

TEST_F(QVLogRelaySocketStreamTest, AClosedStreamSaysNothingMoreAndTakesNothing) {
  Peer peer;
  open(peer);
  ASSERT_TRUE(peer.accept());
  output_->close();
  input_->close();
  test::sendAll(peer.fd, "unheard");
  EXPECT_TRUE(peer.seesEnd()) << "closing both streams ends the connection";
  // The bytes and the end are there to be seen by any watch still open.
  loop_.runUntilIdle();
  EXPECT_TRUE(log_->events.empty()) << "events of closed streams are dropped";
  EXPECT_THROW(write(*output_, "x"), QVStreamException);
}

// The relay itself in front of a tool that stops reading: its writes never
// hold up the main loop; texts that find the buffer full are dropped, and the
// next text that gets through says how many.
TEST_F(VintraZANLogClientTest, ARelayWhoseToolStopsReadingDropsAndCountsInsteadOfWaiting) {
  client_ = VintraZANLogClient::onlyVintraZANLogClient();
  Peer peer(4096);
  const auto [input, output] =
      QVSocketConnection::makeStreams(test::ipv4Address(127, 0, 0, 1, peer.port));
  output->setDelegate(client_);
  output->open();
  output->scheduleInRunLoop(QVRunLoop::main());
  client_->setTheOutStream(output);
  ASSERT_TRUE(peer.accept());

  constexpr int kTexts = 120;
  const std::string filler(64 * 1024, '.');
  for (int n = 0; n < kTexts; ++n) {
    client_->post("text " + std::to_string(n) + filler + "\n");
    QVRunLoop::main().runUntilIdle();
  }
  auto reading =
      std::async(std::launch::async, [&] { return test::receiveUntil(peer.fd, "last\n"); });
  // The peer reads again: what waited goes out, then one more text, which
  // brings the count (it fits beside what waits: texts are taken whole).
  client_->post("last\n");
  EXPECT_TRUE(QVRunLoop::main().runUntil(
      [&] { return reading.wait_for(0s) == std::future_status::ready; }, 30s));
  const std::string received = reading.get();
  EXPECT_THAT(lines(), Not(Contains(HasSubstr("Caught")))) << "no write waited and gave up";
  int arrived = 0, dropped = 0;
  static const std::regex note(R"(\((\d+) log lines dropped\)\n)");
  for (std::sregex_iterator it(received.begin(), received.end(), note), end; it != end; ++it) {
    dropped += std::stoi((*it)[1]);
  }
  for (size_t at = 0; (at = received.find(filler + "\n", at)) != std::string::npos; ++at) ++arrived;
  EXPECT_GT(dropped, 0);
  EXPECT_EQ(arrived + dropped, kTexts) << "every text either arrived whole or was counted";
  EXPECT_THAT(received, ::testing::EndsWith("last\n"));
}

using Namespace = test::QVNetworkNamespace;

struct App {
  std::string name;
  std::vector<std::string> texts;
};

// An application process: its bundle names it, it posts its texts and runs
// its main loop until they have been written, then exits, closing its
// stream. Its log lines go to standard error, into a file beside its bundle.
int runApp(const Namespace& network, const App& app) {
  const std::string bundle = network.folder() + "/" + app.name;
  std::filesystem::create_directories(bundle);
  QVPropertyList::writeDictionaryToFile({{"CFBundleName", app.name}}, bundle + "/Info.plist",
                                        QVPropertyList::Format::kXML);
  QVBundle::setMainBundlePath(bundle);
  std::freopen((bundle + ".log").c_str(), "w", stderr);
  QVLog::setSink([](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); });
  for (const auto& text : app.texts) VintraZANLogClient::postToZANVintraSDKTool(text);
  // Due after the texts' own 7-second tasks, and queued behind the writes
  // that those hand on.
  std::atomic<bool> written{false};
  QVRunLoop& loop = QVRunLoop::main();
  loop.postAfter(7s, [&] { loop.post([&] { loop.post([&] { written = true; }); }); });
  return loop.runUntil([&] { return written.load(); }, 30s) ? 0 : 3;
}

size_t occurrences(const std::string& text, const std::string& part) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}

// Runs inside the namespaces, in a child process; its failures are printed
// there and its exit status carries them out.
void toolPrintsWhatAppsPost(Namespace& network, const std::string& tool) {
  const std::string out = network.folder() + "/tool.out";
  const std::string err = network.folder() + "/tool.err";
  // Under ThreadSanitizer: libdbus takes two of its own locks in one order
  // when the tool's Avahi client connects and in the other when it closes.
  const std::string suppressions = network.folder() + "/tsan.supp";
  std::ofstream(suppressions) << "deadlock:libdbus-1.so\n";
  const char* options = std::getenv("TSAN_OPTIONS");
  ::setenv("TSAN_OPTIONS",
           ((options ? std::string(options) + ":" : "") + "suppressions=" + suppressions).c_str(),
           1);
  const pid_t toolProcess = network.spawn({tool, "--name", "QVCore log test"}, out, err);
  ASSERT_TRUE(Namespace::waitFor(
      [&] { return Namespace::readFile(err).find("announced") != std::string::npos; }, 20s))
      << Namespace::readFile(err);

  const std::vector<App> apps = {
      {"App One", {"first from one\n", "second from one, grüß dich\n", "third from one"}},
      {"App Two", {"only from two\n"}}};
  std::vector<pid_t> processes;
  for (const auto& app : apps) {
    processes.push_back(network.fork([&] { return runApp(network, app); }));
  }
  for (size_t i = 0; i < apps.size(); ++i) {
    const int status = network.stop(processes[i], 0, 40s);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << apps[i].name << " ended with " << status;
    const std::string log = Namespace::readFile(network.folder() + "/" + apps[i].name + ".log");
    EXPECT_THAT(
        log, ::testing::AllOf(HasSubstr("didFindService: "), HasSubstr("connected to: 10.231.0."),
                              Not(HasSubstr("Stream has no space")), Not(HasSubstr("Caught:")),
                              Not(HasSubstr("connected to: 0.0.0.0"))));
  }
  // The tool has printed everything once it has seen both peers close.
  EXPECT_TRUE(Namespace::waitFor(
      [&] { return occurrences(Namespace::readFile(err), " closed") == apps.size(); }, 10s))
      << Namespace::readFile(err);
  const int toolStatus = network.stop(toolProcess, SIGTERM, 5s);
  EXPECT_TRUE(WIFEXITED(toolStatus) && WEXITSTATUS(toolStatus) == 0)
      << "the tool survives closing peers and ends cleanly on SIGTERM: " << toolStatus << "\n"
      << Namespace::readFile(err);

  const std::string printed = Namespace::readFile(out);
  for (const auto& app : apps) {
    // Each text after its app's header and after the text before it.
    std::string inOrder = "ZAN_SDK_START_NEW_RUN_FOR_APP\t" + app.name + "\t";
    for (const auto& text : app.texts) inOrder += ".*" + text;
    EXPECT_THAT(printed, ::testing::ContainsRegex(inOrder));
  }
  EXPECT_EQ(occurrences(printed, "ZAN_SDK_START_NEW_RUN_FOR_APP"), apps.size()) << printed;
}

TEST(QVLogRelayNamespaceTest, TheToolPrintsWhatApplicationsOnItsNetworkPost) {
  // Beside this test's executable in the build tree.
  const std::string tool =
      std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() /
      "tools/logtool/qvcore-logtool";
  ASSERT_EQ(::access(tool.c_str(), X_OK), 0) << "build qvcore-logtool first: " << tool;
  Namespace::run(Namespace::Kind::kMdns,
                 [&](Namespace& network) { toolPrintsWhatAppsPost(network, tool); });
}

}  // namespace
}  // namespace qv
