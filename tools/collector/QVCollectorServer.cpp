#include "QVCollectorServer.h"

#include <array>
#include <chrono>
#include <ostream>
#include <string_view>

#include "QVCollectorDecoder.h"
#include "QVCollectorHttpServer.h"
#include "QVCollectorPrinter.h"

namespace qv::collector {

namespace {

constexpr const char* kHost = "127.0.0.1";

// cpp-httplib inflates a body whose Content-Encoding it knows (and refuses
// one it cannot inflate), and parses form bodies by their Content-Type,
// before any handler runs. The collector must keep bodies exactly as they
// came, so these two headers are renamed out of its sight; the headers that
// are stored come from the request's head as it was read.
constexpr std::array<const char*, 2> kHiddenHeaders = {"Content-Encoding", "Content-Type"};

void hideBodyHeaders(httplib::Request& request) {
  for (const char* name : kHiddenHeaders) {
    for (auto found = request.headers.find(name); found != request.headers.end();
         found = request.headers.find(name)) {
      // A colon ends every received name, so no received header has this one.
      request.headers.emplace(std::string("qv:") + found->first, found->second);
      request.headers.erase(found);
    }
  }
}

// Method and target from the request line of the head as read; cpp-httplib
// leaves them empty for a request it refuses before parsing that line.
void requestLineFrom(const std::string& head, QVCollectorRequest& out, std::string& target) {
  const std::string line = head.substr(0, head.find_first_of("\r\n"));
  const size_t first = line.find(' ');
  const size_t last = line.rfind(' ');
  if (first == std::string::npos) return;
  out.method = line.substr(0, first);
  target = last > first ? line.substr(first + 1, last - first - 1) : line.substr(first + 1);
}

QVCollectorRequest requestFrom(const httplib::Request& in) {
  QVCollectorRequest out;
  out.method = in.method;
  std::string target = in.target;
  if (const QVCollectorSocketStream* stream = QVCollectorHttpServer::currentStream()) {
    out.headers = stream->headers();
    if (out.method.empty()) requestLineFrom(stream->head(), out, target);
  }
  const size_t question = target.find('?');
  out.path = target.substr(0, question);
  if (question != std::string::npos) out.query = target.substr(question + 1);
  out.body = in.body;
  return out;
}

int64_t now() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string refusal(int status) {
  switch (status) {
    case 400:
      return "the request could not be read";
    case 413:
      return "the body is too large";
    case 414:
      return "the request line is longer than 8192 bytes";
    default:
      return "the HTTP layer answered " + std::to_string(status);
  }
}

}  // namespace

QVCollectorServer::QVCollectorServer(QVCollectorStore& store, QVCollectorReplyPolicy& policy,
                                     std::ostream& log)
    : store_(store),
      api_(store),
      policy_(policy),
      log_(log),
      http_(std::make_unique<QVCollectorHttpServer>()) {
  install();
}

QVCollectorServer::~QVCollectorServer() { stop(); }

void QVCollectorServer::install() {
  // Clients that keep a connection open hold up stop() this long at most.
  http_->set_keep_alive_timeout(2);
  // The head and the body of an answer go out in two writes; with Nagle on,
  // the second waits for the client's delayed ACK (~40 ms a request), which
  // throttles a module that sends one GET per message.
  http_->set_tcp_nodelay(true);
  http_->set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
    // The request is the server's own, not const; only the signature is.
    hideBodyHeaders(const_cast<httplib::Request&>(request));
    return httplib::Server::HandlerResponse::Unhandled;
  });
  const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
    handle(request, response);
  };
  http_->Get(".*", handler);  // HEAD too
  http_->Post(".*", handler);
  http_->Put(".*", handler);
  http_->Patch(".*", handler);
  http_->Delete(".*", handler);
  http_->Options(".*", handler);
  http_->set_logger([this](const httplib::Request& request, const httplib::Response& response) {
    noteRefused(request, response);
  });
}

int QVCollectorServer::bind(int port) {
  if (port == 0) return std::max(http_->bind_to_any_port(kHost), 0);
  return http_->bind_to_port(kHost, port) ? port : 0;
}

void QVCollectorServer::start() {
  thread_ = std::thread([this] { http_->listen_after_bind(); });
  // stop() only reaches a server that runs; this wait is short and bounded.
  for (int i = 0; i < 10000 && !http_->is_running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void QVCollectorServer::stop() {
  if (!thread_.joinable()) return;
  http_->stop();
  thread_.join();
}

void QVCollectorServer::handle(const httplib::Request& request, httplib::Response& response) {
  QVCollectorRequest received = requestFrom(request);
  if (!QVCollectorApi::owns(received.path)) return capture(std::move(received), response);
  if (received.method != "GET" && received.method != "HEAD") {
    response.status = 405;
    return;
  }
  QVCollectorApi::Reply reply = api_.get(received.path, received.query);
  response.status = reply.status;
  response.set_content(std::move(reply.body), reply.contentType.c_str());
  response.set_header("Cache-Control", "no-store");
}

void QVCollectorServer::capture(QVCollectorRequest request, httplib::Response& response) {
  QVCollectorRecord record;
  record.receivedAt = now();
  record.status = policy_.nextStatus();
  record.decoded = QVCollectorDecoder::decode(request);
  record.request = std::move(request);
  keep(record);
  std::this_thread::sleep_for(policy_.delay());
  response.status = record.status;
  // 204 and 304 carry no body by definition.
  if (record.status != 204 && record.status != 304) {
    response.set_content(record.status < 400 ? "ok\n" : "failed on purpose\n", "text/plain");
  }
}

void QVCollectorServer::noteRefused(const httplib::Request& request,
                                    const httplib::Response& response) {
  // A handler sets matches; without them cpp-httplib answered by itself.
  if (!request.matches.empty()) return;
  QVCollectorHttpServer::closeCurrentConnection();
  QVCollectorRecord record;
  record.receivedAt = now();
  record.status = response.status;
  record.request = requestFrom(request);
  record.decoded.kind = "refused";
  record.decoded.rawBytes = static_cast<int64_t>(record.request.body.size());
  record.decoded.problem = refusal(response.status);
  keep(record);
}

void QVCollectorServer::keep(QVCollectorRecord& record) {
  std::string line;
  try {
    record.id = store_.add(record);
    line = QVCollectorPrinter::line(record);
  } catch (const std::exception& error) {
    line = QVCollectorPrinter::line(record) + "  (not stored: " + error.what() + ")";
  }
  std::lock_guard lock(logMutex_);
  log_ << line << std::endl;
}

}  // namespace qv::collector
