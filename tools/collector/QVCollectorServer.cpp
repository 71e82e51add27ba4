#include "QVCollectorServer.h"

#include <array>
#include <chrono>
#include <ostream>
#include <string_view>

#include "QVCollectorDecoder.h"
#include "QVCollectorHttpServer.h"
#include "QVCollectorPrinter.h"
#include "QVTerminalText.h"

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
      return "the body is larger than the collector takes";
    case 414:
      return "the request line is longer than 8192 bytes";
    default:
      return "the HTTP layer answered " + std::to_string(status);
  }
}

}  // namespace

QVCollectorServer::QVCollectorServer(QVCollectorStore& store, QVCollectorReplyPolicy& policy,
                                     std::ostream& log, QVCollectorLimits limits)
    : store_(store),
      api_(store),
      policy_(policy),
      limits_(std::move(limits)),
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
  // cpp-httplib checks a Content-Length against this before reading, but
  // reads a chunked body whole; the stream cuts that off, with room for the
  // chunks' own framing.
  const auto maxBody = static_cast<size_t>(limits_.maxBodyBytes);
  http_->set_payload_max_length(maxBody);
  http_->setBodyLimit(maxBody + maxBody / 64 + 4096);
  http_->set_error_handler(httplib::Server::HandlerWithResponse(
      [](const httplib::Request&, httplib::Response& response) {
        const QVCollectorSocketStream* stream = QVCollectorHttpServer::currentStream();
        if (stream && stream->overLimit()) response.status = 413;
        return httplib::Server::HandlerResponse::Unhandled;
      }));
  http_->setRequestTimeout(std::chrono::seconds(limits_.requestTimeoutSeconds));
  // Bodies are served as their bytes; a browser must not guess them HTML.
  http_->set_default_headers({{"X-Content-Type-Options", "nosniff"}});
  // Runs after the head is read and before the body is.
  http_->set_pre_routing_handler(
      [this](const httplib::Request& request, httplib::Response& response) {
        // The request is the server's own, not const; only the signature is.
        hideBodyHeaders(const_cast<httplib::Request&>(request));
        return admit(request, response) ? httplib::Server::HandlerResponse::Unhandled
                                        : httplib::Server::HandlerResponse::Handled;
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
  if (port == 0) {
    port = std::max(http_->bind_to_any_port(kHost), 0);
  } else if (!http_->bind_to_port(kHost, port)) {
    port = 0;
  }
  gate_ = std::make_unique<QVCollectorGate>(port, limits_.hostNames, limits_.maxBodyBytes);
  return port;
}

bool QVCollectorServer::admit(const httplib::Request& request, httplib::Response& response) const {
  const QVCollectorSocketStream* stream = QVCollectorHttpServer::currentStream();
  if (!stream || !gate_) return true;
  const QVCollectorGate::Verdict verdict = gate_->check(request.method, stream->headers());
  if (verdict.status == 0) return true;
  response.status = verdict.status;
  response.set_content(verdict.why + "\n", "text/plain");
  return false;
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
  try {
    serve(request, response);
  } catch (const std::exception& error) {
    // Out of memory, say: answered as not stored, so the client tries again.
    response.status = 503;
    response.set_content("not stored\n", "text/plain");
    std::lock_guard lock(logMutex_);
    log_ << QVTerminalText::escaped(request.method + " " + request.path)
         << "  -> 503  (not stored: " << error.what() << ")" << std::endl;
  }
}

void QVCollectorServer::serve(const httplib::Request& request, httplib::Response& response) {
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
  if (request.body.size() > static_cast<size_t>(limits_.maxBodyBytes)) {
    // A chunked body just past the limit, within the room left for framing.
    request.body.clear();
    response.status = 413;
    return refuse(std::move(request), 413, refusal(413));
  }
  record.decoded =
      QVCollectorDecoder::decode(request, static_cast<size_t>(limits_.maxInflatedBytes));
  record.status = record.decoded.tooLarge ? 413 : policy_.nextStatus();
  record.request = std::move(request);
  const bool stored = keep(record);
  std::this_thread::sleep_for(policy_.delay());
  response.status = record.status;
  // 204 and 304 carry no body by definition.
  if (record.status != 204 && record.status != 304) {
    response.set_content(!stored                   ? "not stored\n"
                         : record.decoded.tooLarge ? record.decoded.problem + "\n"
                         : record.status < 400     ? "ok\n"
                                                   : "failed on purpose\n",
                         "text/plain");
  }
}

void QVCollectorServer::noteRefused(const httplib::Request& request,
                                    const httplib::Response& response) {
  // A handler sets matches; without them cpp-httplib answered by itself.
  if (!request.matches.empty()) return;
  QVCollectorRequest received = requestFrom(request);
  // Whatever part of a body too large was read is not worth keeping.
  if (response.status == 413) received.body.clear();
  // The gate explains its refusals in the answer's text.
  refuse(std::move(received), response.status,
         response.body.empty() ? refusal(response.status)
                               : response.body.substr(0, response.body.find('\n')));
}

void QVCollectorServer::refuse(QVCollectorRequest request, int status, std::string problem) {
  QVCollectorHttpServer::closeCurrentConnection();
  QVCollectorRecord record;
  record.receivedAt = now();
  record.status = status;
  record.request = std::move(request);
  record.decoded.kind = "refused";
  record.decoded.rawBytes = static_cast<int64_t>(record.request.body.size());
  record.decoded.problem = std::move(problem);
  keep(record);
}

bool QVCollectorServer::keep(QVCollectorRecord& record) {
  std::string line;
  bool stored = true;
  try {
    record.id = store_.add(record);
    line = QVCollectorPrinter::line(record);
  } catch (const std::exception& error) {
    // A refusal keeps its status: it was never going to be taken.
    if (record.decoded.kind != "refused") record.status = 503;
    line = QVCollectorPrinter::line(record) +
           "  (not stored: " + QVTerminalText::escaped(error.what()) + ")";
    stored = false;
  }
  std::lock_guard lock(logMutex_);
  log_ << line << std::endl;
  return stored;
}

}  // namespace qv::collector
