#include "qvcore/logrelay/VintraZANLogClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <exception>
#include <mutex>

#include "logrelay/QVLogRelayBuffer.h"
#include "qvcore/platform/QVBundle.h"
#include "qvcore/platform/QVInputStream.h"
#include "qvcore/platform/QVLog.h"
#include "qvcore/platform/QVNetService.h"
#include "qvcore/platform/QVNetServiceBrowser.h"
#include "qvcore/platform/QVOutputStream.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVServiceDiscovery.h"

namespace qv {

namespace {

constexpr const char* kServiceType = "_brevantlogservice._tcp.";
constexpr const char* kServiceDomain = "local.";
constexpr double kResolveTimeoutSeconds = 3.0;
// Gives discovery a head start after the first use; every text waits it.
constexpr std::chrono::nanoseconds kHeadStart{7'000'000'000};

// What a missing object prints as in a log line.
constexpr const char* kNothing = "(null)";

std::string describe(const std::shared_ptr<QVByteStream>& stream) {
  return stream ? stream->description() : kNothing;
}

// "HH:mm:ss.SSS zzz 'on' yyyy.MM.dd" in local time; zzz is the zone's
// abbreviation as the C library knows it ("CET", "UTC", or "+03" where the
// zone has none).
std::string formattedNow() {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const std::time_t seconds = system_clock::to_time_t(now);
  const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  ::localtime_r(&seconds, &local);
  char clock[16];
  char zone[64];
  char day[16];
  std::strftime(clock, sizeof clock, "%H:%M:%S", &local);
  std::strftime(zone, sizeof zone, "%Z", &local);
  std::strftime(day, sizeof day, "%Y.%m.%d", &local);
  char text[128];
  std::snprintf(text, sizeof text, "%s.%03d %s on %s", clock, static_cast<int>(millis), zone, day);
  return text;
}

std::string applicationName() {
  const QVValue info = QVBundle::mainBundle()->infoDictionary();
  const auto found = info.is_object() ? info.find("CFBundleName") : info.end();
  if (found == info.end()) return kNothing;
  return found->is_string() ? found->get<std::string>() : found->dump();
}

std::string runHeader() {
  return "ZAN_SDK_START_NEW_RUN_FOR_APP\t" + applicationName() + "\t" + formattedNow() + "\n";
}

bool canWriteNow(const QVOutputStream& stream) {
  // Opening, or open without room: the stream's next event brings the
  // writer back, so the main loop never waits on the tool. In any other
  // state the write is tried, so that the stream raises and says why.
  switch (stream.streamStatus()) {
    case QVByteStream::kStatusOpening:
      return false;
    case QVByteStream::kStatusOpen:
      return stream.hasSpaceAvailable();
    default:
      return true;
  }
}

}  // namespace

struct VintraZANLogClient::Impl {
  // The four connection objects are read and written under one lock.
  template <typename T>
  std::shared_ptr<T> read(const std::shared_ptr<T>& field) const {
    std::lock_guard lock(mutex_);
    return field;
  }
  template <typename T>
  void write(std::shared_ptr<T>& field, std::shared_ptr<T> value) {
    std::lock_guard lock(mutex_);
    field = std::move(value);
  }

  mutable std::mutex mutex_;
  std::shared_ptr<QVNetServiceBrowser> theServiceBrowser_;
  std::shared_ptr<QVNetService> theService_;
  std::shared_ptr<QVOutputStream> theOutStream_;
  std::shared_ptr<QVInputStream> theInStream_;
  std::atomic<bool> bFirstPost_{false};
  // Touched only on the main run loop.
  QVLogRelayBuffer pending_;
};

std::shared_ptr<VintraZANLogClient> VintraZANLogClient::onlyVintraZANLogClient() {
  // Made once and never destroyed: a module may still post while the
  // process exits.
  static auto* client = new std::shared_ptr<VintraZANLogClient>([] {
    auto made = std::make_shared<VintraZANLogClient>()->init();
    made->setBFirstPost(true);
    return made;
  }());
  return *client;
}

void VintraZANLogClient::postToZANVintraSDKTool(const std::string& text) {
  auto client = onlyVintraZANLogClient();
  if (!client) return;
  std::string header;
  const bool withHeader = client->bFirstPost();
  if (withHeader) {
    header = runHeader();
    client->setBFirstPost(false);
  }
  QVRunLoop::main().postAfter(kHeadStart, [client, withHeader, header, text] {
    if (withHeader) client->post(header);
    client->post(text);
  });
}

VintraZANLogClient::VintraZANLogClient() : impl_(std::make_unique<Impl>()) {}

VintraZANLogClient::~VintraZANLogClient() = default;

std::shared_ptr<VintraZANLogClient> VintraZANLogClient::init() {
  findVintraZANLogServer();
  return shared_from_this();
}

void VintraZANLogClient::findVintraZANLogServer() {
  auto browser = QVServiceDiscovery::shared()->makeServiceBrowser(QVRunLoop::main());
  setTheServiceBrowser(browser);
  browser->setDelegate(weak_from_this());
  browser->searchForServicesOfTypeInDomain(kServiceType, kServiceDomain);
}

void VintraZANLogClient::post(const std::string& text) {
  QVRunLoop::main().post([self = shared_from_this(), text] { self->write(text); });
}

void VintraZANLogClient::write(const std::string& text) {
  auto stream = theOutStream();
  if (!stream) {
    QVLog::log("Stream has no space");
    return;
  }
  if (text.empty()) return;
  impl_->pending_.add(text);
  writePending(*stream);
}

void VintraZANLogClient::writePending(QVOutputStream& stream) {
  try {
    QVLogRelayBuffer& pending = impl_->pending_;
    while (pending.size() > 0 && canWriteNow(stream)) {
      // A stream that takes nothing now tells when it has room; what it did
      // not take waits in the bounded buffer until then.
      const ptrdiff_t written = stream.write(pending.data(), pending.size());
      if (written <= 0) break;
      pending.consume(static_cast<size_t>(written));
    }
  } catch (const std::exception& caught) {
    impl_->pending_.clear();
    QVLog::log(std::string("Caught: ") + caught.what());
  }
}

std::string VintraZANLogClient::getStringFromAddressData(
    const std::vector<uint8_t>& addressData) const {
  // The sockaddr_in layout: 2 bytes of family, 2 of port, then the address.
  uint8_t bytes[4] = {};
  if (addressData.size() > 4) {
    std::copy_n(addressData.begin() + 4, std::min<size_t>(4, addressData.size() - 4), bytes);
  }
  // inet_ntop writes what inet_ntoa would, without its shared buffer.
  char text[INET_ADDRSTRLEN] = {};
  ::inet_ntop(AF_INET, bytes, text, sizeof text);
  return text;
}

void VintraZANLogClient::netServiceBrowserWillSearch(const Browser&) {
  QVLog::log("netServiceBrowserWillSearch");
}

void VintraZANLogClient::netServiceBrowserDidStopSearch(const Browser&) {
  QVLog::log("netServiceBrowserDidStopSearch");
}

void VintraZANLogClient::netServiceBrowserDidNotSearch(const Browser&, const std::string&) {
  QVLog::log("didNotSearch");
}

void VintraZANLogClient::netServiceBrowserDidFindDomainMoreComing(const Browser&,
                                                                  const std::string&, bool) {
  QVLog::log("didFindDomain");
}

void VintraZANLogClient::netServiceBrowserDidFindServiceMoreComing(const Browser& browser,
                                                                   const Service& service,
                                                                   bool moreComing) {
  QVLog::log("didFindService: " + service->description() +
             ", moreComing: " + std::to_string(moreComing ? 1 : 0));
  // The first instance wins: later ones are never heard of.
  browser->stop();
  setTheService(service);
  service->setDelegate(weak_from_this());
  service->resolveWithTimeout(kResolveTimeoutSeconds);
}

void VintraZANLogClient::netServiceBrowserDidRemoveDomainMoreComing(const Browser&,
                                                                    const std::string&, bool) {
  QVLog::log("didRemoveDomain");
}

void VintraZANLogClient::netServiceBrowserDidRemoveServiceMoreComing(const Browser&, const Service&,
                                                                     bool) {
  QVLog::log("didRemoveService");
}

void VintraZANLogClient::netServiceDidResolveAddress(const std::shared_ptr<QVNetService>& sender) {
  QVLog::log("netServiceDidResolveAddress");
  std::shared_ptr<QVInputStream> input;
  std::shared_ptr<QVOutputStream> output;
  const bool gotStreams = sender->getInputStreamOutputStream(input, output);
  setTheInStream(input);
  setTheOutStream(output);
  // Each stream is opened before it is scheduled; a stream keeps the events
  // that happen in between.
  for (const std::shared_ptr<QVByteStream>& stream :
       {std::static_pointer_cast<QVByteStream>(input),
        std::static_pointer_cast<QVByteStream>(output)}) {
    if (!stream) continue;
    stream->setDelegate(weak_from_this());
    stream->open();
    stream->scheduleInRunLoop(QVRunLoop::current());
  }
  const auto status = output ? output->streamStatus() : QVByteStream::kStatusNotOpen;
  QVLog::log("inputStream: " + describe(input) + ", outputStream: " + describe(output) +
             ", outstream status = " + std::to_string(status) +
             ", bGetInputStreamRetVal: " + std::to_string(gotStreams ? 1 : 0));
  for (const auto& address : sender->addresses()) {
    QVLog::log("connected to: " + getStringFromAddressData(address));
  }
}

void VintraZANLogClient::netServiceDidNotResolve(const std::shared_ptr<QVNetService>&,
                                                 const std::string&) {
  QVLog::log("didNotResolve");
}

void VintraZANLogClient::streamHandleEvent(const std::shared_ptr<QVByteStream>& stream,
                                           QVByteStream::Event event) {
  QVLog::log("handleEventCalled on : " + describe(stream) +
             " and event: " + std::to_string(static_cast<uint64_t>(event)));
  auto output = theOutStream();
  const bool room =
      event == QVByteStream::kEventOpenCompleted || event == QVByteStream::kEventHasSpaceAvailable;
  if (room && output && stream == output) writePending(*output);
}

std::shared_ptr<QVNetServiceBrowser> VintraZANLogClient::theServiceBrowser() const {
  return impl_->read(impl_->theServiceBrowser_);
}

void VintraZANLogClient::setTheServiceBrowser(std::shared_ptr<QVNetServiceBrowser> browser) {
  impl_->write(impl_->theServiceBrowser_, std::move(browser));
}

std::shared_ptr<QVNetService> VintraZANLogClient::theService() const {
  return impl_->read(impl_->theService_);
}

void VintraZANLogClient::setTheService(std::shared_ptr<QVNetService> service) {
  impl_->write(impl_->theService_, std::move(service));
}

std::shared_ptr<QVOutputStream> VintraZANLogClient::theOutStream() const {
  return impl_->read(impl_->theOutStream_);
}

void VintraZANLogClient::setTheOutStream(std::shared_ptr<QVOutputStream> stream) {
  impl_->write(impl_->theOutStream_, std::move(stream));
}

std::shared_ptr<QVInputStream> VintraZANLogClient::theInStream() const {
  return impl_->read(impl_->theInStream_);
}

void VintraZANLogClient::setTheInStream(std::shared_ptr<QVInputStream> stream) {
  impl_->write(impl_->theInStream_, std::move(stream));
}

bool VintraZANLogClient::bFirstPost() const {
  return impl_->bFirstPost_.load(std::memory_order_relaxed);
}

void VintraZANLogClient::setBFirstPost(bool firstPost) {
  impl_->bFirstPost_.store(firstPost, std::memory_order_relaxed);
}

}  // namespace qv
