#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVByteStream.h"
#include "qvcore/platform/QVNetServiceBrowserDelegate.h"
#include "qvcore/platform/QVNetServiceDelegate.h"
#include "qvcore/platform/QVObject.h"
#include "qvcore/platform/QVStreamDelegate.h"

namespace qv {

class QVInputStream;
class QVNetService;
class QVNetServiceBrowser;
class QVOutputStream;

// Sends text to the developer log tool on the local network. The client
// browses DNS-SD for "_brevantlogservice._tcp." in "local.", takes the first
// instance found, resolves it and opens a TCP stream to it; each text posted
// is written to that stream as UTF-8, 7 seconds after it was posted, the
// first of a run preceded by a header line that names the application and
// the time. Nothing is queued or retried: text that finds no stream is
// dropped with a log line. Discovery, stream events and every write run on
// the main run loop.
class QV_EXPORT VintraZANLogClient : public QVObject,
                                     public QVNetServiceBrowserDelegate,
                                     public QVNetServiceDelegate,
                                     public QVStreamDelegate,
                                     public std::enable_shared_from_this<VintraZANLogClient> {
 public:
  // The process's client, made (and set searching) on first use from any
  // thread; it lives as long as the process.
  static std::shared_ptr<VintraZANLogClient> onlyVintraZANLogClient();

  // Posts text to the tool from any thread: 7 seconds from now, on the main
  // run loop, the header line (first post of the run only) and then text,
  // as given, without a newline added.
  static void postToZANVintraSDKTool(const std::string& text);

  // A client with no browser, service or streams; init() starts it.
  VintraZANLogClient();
  ~VintraZANLogClient() override;

  // Starts the search for the tool and answers the client.
  std::shared_ptr<VintraZANLogClient> init();
  // A new browser, with this client as its delegate, searching for the tool.
  void findVintraZANLogServer();
  // Hands a copy of text to the main run loop, which writes it to the tool's
  // stream, or logs "Stream has no space" and drops it when there is none.
  void post(const std::string& text);

  // The IPv4 address in bytes 4 to 7 of a socket address, dotted. Every
  // address is read as IPv4, so an IPv6 one gives its flow information;
  // only log lines use it. Bytes missing from a short buffer read as 0.
  std::string getStringFromAddressData(const std::vector<uint8_t>& addressData) const;

  std::string className() const override { return "VintraZANLogClient"; }

  void netServiceBrowserWillSearch(const Browser& browser) override;
  void netServiceBrowserDidStopSearch(const Browser& browser) override;
  void netServiceBrowserDidNotSearch(const Browser& browser, const std::string& error) override;
  void netServiceBrowserDidFindDomainMoreComing(const Browser& browser, const std::string& domain,
                                                bool moreComing) override;
  void netServiceBrowserDidFindServiceMoreComing(const Browser& browser, const Service& service,
                                                 bool moreComing) override;
  void netServiceBrowserDidRemoveDomainMoreComing(const Browser& browser, const std::string& domain,
                                                  bool moreComing) override;
  void netServiceBrowserDidRemoveServiceMoreComing(const Browser& browser, const Service& service,
                                                   bool moreComing) override;
  void netServiceDidResolveAddress(const std::shared_ptr<QVNetService>& sender) override;
  void netServiceDidNotResolve(const std::shared_ptr<QVNetService>& sender,
                               const std::string& error) override;
  void streamHandleEvent(const std::shared_ptr<QVByteStream>& stream,
                         QVByteStream::Event event) override;

  std::shared_ptr<QVNetServiceBrowser> theServiceBrowser() const;
  void setTheServiceBrowser(std::shared_ptr<QVNetServiceBrowser> browser);
  std::shared_ptr<QVNetService> theService() const;
  void setTheService(std::shared_ptr<QVNetService> service);
  std::shared_ptr<QVOutputStream> theOutStream() const;
  void setTheOutStream(std::shared_ptr<QVOutputStream> stream);
  std::shared_ptr<QVInputStream> theInStream() const;
  void setTheInStream(std::shared_ptr<QVInputStream> stream);
  // Read and cleared by posting threads without a lock of the caller's, so
  // two first posts at the same moment may both send a header.
  bool bFirstPost() const;
  void setBFirstPost(bool firstPost);

 private:
  struct Impl;

  void write(const std::string& text);
  void writePending(QVOutputStream& stream);

  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
