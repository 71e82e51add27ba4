#include "QVLogToolPrinter.h"

#include <utility>

namespace qv {

namespace {

size_t nextLineStart(std::string_view data, size_t from) {
  const size_t newline = data.find('\n', from);
  return newline == std::string_view::npos ? newline : newline + 1;
}

}  // namespace

void QVLogToolPrinter::opened(int connection, std::string peer) {
  connections_[connection] = Connection{std::move(peer), {}, true};
}

void QVLogToolPrinter::received(int connection, std::string_view bytes) {
  Connection& from = connections_[connection];
  const std::string data = std::exchange(from.held, {}) + std::string(bytes);
  const std::string_view view = data;
  size_t printed = 0;
  size_t start = from.atLineStart ? 0 : nextLineStart(view, 0);
  while (start != std::string_view::npos && start < view.size()) {
    const std::string_view rest = view.substr(start);
    if (rest.size() < kRunHeader.size() && kRunHeader.substr(0, rest.size()) == rest) {
      // Perhaps a header cut in two: wait for the rest before printing it.
      print(view.substr(printed, start - printed));
      from.held = std::string(rest);
      from.atLineStart = true;
      std::fflush(out_);
      return;
    }
    if (rest.substr(0, kRunHeader.size()) == kRunHeader) {
      print(view.substr(printed, start - printed));
      printed = start;
      separate(from);
    }
    start = nextLineStart(view, start);
  }
  print(view.substr(printed));
  if (!view.empty()) from.atLineStart = view.back() == '\n';
  std::fflush(out_);
}

void QVLogToolPrinter::closed(int connection) {
  auto found = connections_.find(connection);
  if (found == connections_.end()) return;
  print(found->second.held);
  std::fflush(out_);
  connections_.erase(found);
}

void QVLogToolPrinter::print(std::string_view text) {
  if (text.empty()) return;
  std::fwrite(text.data(), 1, text.size(), out_);
  outputAtLineStart_ = text.back() == '\n';
}

void QVLogToolPrinter::separate(const Connection& connection) {
  if (!outputAtLineStart_) print("\n");
  print("==================== new run, from " + connection.peer + " ====================\n");
}

}  // namespace qv
