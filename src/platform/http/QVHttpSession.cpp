#include "qvcore/platform/QVHttpSession.h"

#include <utility>

#include "platform/host/QVReplaceableService.h"
#include "platform/http/QVCurlHttpSession.h"

namespace qv {

namespace {
using Shared = QVReplaceableService<QVHttpSession, QVCurlHttpSession>;
}  // namespace

QVHttpSession::~QVHttpSession() = default;

std::shared_ptr<QVHttpSession> QVHttpSession::shared() { return Shared::instance().get(); }

void QVHttpSession::setShared(std::shared_ptr<QVHttpSession> session) {
  Shared::instance().set(std::move(session));
}

}  // namespace qv
