#include "qvcore/platform/QVHttpSession.h"

#include <mutex>

#include "platform/QVCurlHttpSession.h"

namespace qv {

namespace {

// Never destroyed: a queue may still post while the process exits.
struct SharedSession {
  std::mutex mutex;
  std::shared_ptr<QVHttpSession> chosen;
  std::shared_ptr<QVHttpSession> curl;
};

SharedSession& sharedSession() {
  static auto* shared = new SharedSession;
  return *shared;
}

}  // namespace

QVHttpSession::~QVHttpSession() = default;

std::shared_ptr<QVHttpSession> QVHttpSession::shared() {
  SharedSession& shared = sharedSession();
  std::lock_guard lock(shared.mutex);
  if (shared.chosen) return shared.chosen;
  if (!shared.curl) shared.curl = std::make_shared<QVCurlHttpSession>();
  return shared.curl;
}

void QVHttpSession::setShared(std::shared_ptr<QVHttpSession> session) {
  SharedSession& shared = sharedSession();
  std::lock_guard lock(shared.mutex);
  shared.chosen = std::move(session);
}

}  // namespace qv
