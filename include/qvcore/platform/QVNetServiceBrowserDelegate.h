#pragma once

#include <memory>
#include <string>

#include "qvcore/QVExport.h"

namespace qv {

class QVNetService;
class QVNetServiceBrowser;

// Hears what a service browser finds. Every call defaults to doing nothing.
// moreComing tells that more news is already known and follows at once.
class QV_EXPORT QVNetServiceBrowserDelegate {
 public:
  using Browser = std::shared_ptr<QVNetServiceBrowser>;
  using Service = std::shared_ptr<QVNetService>;

  virtual ~QVNetServiceBrowserDelegate() = default;
  virtual void netServiceBrowserWillSearch(const Browser& browser) { (void)browser; }
  virtual void netServiceBrowserDidStopSearch(const Browser& browser) { (void)browser; }
  virtual void netServiceBrowserDidNotSearch(const Browser& browser, const std::string& error) {
    (void)browser;
    (void)error;
  }
  virtual void netServiceBrowserDidFindDomainMoreComing(const Browser& browser,
                                                        const std::string& domain,
                                                        bool moreComing) {
    (void)browser;
    (void)domain;
    (void)moreComing;
  }
  virtual void netServiceBrowserDidFindServiceMoreComing(const Browser& browser,
                                                         const Service& service, bool moreComing) {
    (void)browser;
    (void)service;
    (void)moreComing;
  }
  virtual void netServiceBrowserDidRemoveDomainMoreComing(const Browser& browser,
                                                          const std::string& domain,
                                                          bool moreComing) {
    (void)browser;
    (void)domain;
    (void)moreComing;
  }
  virtual void netServiceBrowserDidRemoveServiceMoreComing(const Browser& browser,
                                                           const Service& service,
                                                           bool moreComing) {
    (void)browser;
    (void)service;
    (void)moreComing;
  }
};

}  // namespace qv
