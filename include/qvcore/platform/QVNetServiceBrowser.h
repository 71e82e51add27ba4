#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "qvcore/QVExport.h"

namespace qv {

class QVNetServiceBrowserDelegate;

// Searches the network for service instances of one type. The delegate
// hears, as tasks on the browser's loop: that the search began (or could not
// begin), each instance found or gone, and that the search stopped. Used from
// the thread of that loop.
class QV_EXPORT QVNetServiceBrowser : public std::enable_shared_from_this<QVNetServiceBrowser> {
 public:
  virtual ~QVNetServiceBrowser();

  // Held weakly.
  void setDelegate(std::weak_ptr<QVNetServiceBrowserDelegate> delegate);
  std::shared_ptr<QVNetServiceBrowserDelegate> delegate() const;

  // type and domain as DNS-SD writes them, with or without the trailing dot
  // ("_http._tcp.", "local."). A new search replaces the one under way.
  virtual void searchForServicesOfTypeInDomain(const std::string& type,
                                               const std::string& domain) = 0;
  // Ends the search: the delegate hears netServiceBrowserDidStopSearch and
  // nothing more of it, not even of instances found just before.
  virtual void stop() = 0;

 private:
  mutable std::mutex mutex_;
  std::weak_ptr<QVNetServiceBrowserDelegate> delegate_;
};

}  // namespace qv
