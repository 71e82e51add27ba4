#include "QVLogToolPrinter.h"

#include <utility>

#include "QVTerminalText.h"

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
  std::string data = std::exchange(from.held, {}) + std::string(bytes);
  // A character cut in two would print as two escaped halves.
  const size_t tail = QVTerminalText::incompleteTail(data);
  const std::string heldTail = data.substr(data.size() - tail);
  data.resize(data.size() - tail);
  const std::string_view view = data;
  size_t printed = 0;
  const bool wasAtLineStart = from.atLineStart;
  size_t start = wasAtLineStart ? 0 : nextLineStart(view, 0);
  while (start != std::string_view::npos && start < view.size()) {
    const std::string_view rest = view.substr(start);
    if (rest.size() < kRunHeader.size() && kRunHeader.substr(0, rest.size()) == rest) {
      // Perhaps a header cut in two: wait for the rest before printing it.
      printMarked(from, view.substr(printed, start - printed), printed > 0 || wasAtLineStart);
      from.held = std::string(rest) + heldTail;
      from.atLineStart = true;
      std::fflush(out_);
      return;
    }
    if (rest.substr(0, kRunHeader.size()) == kRunHeader) {
      printMarked(from, view.substr(printed, start - printed), printed > 0 || wasAtLineStart);
      printed = start;
      separate(from);
    }
    start = nextLineStart(view, start);
  }
  printMarked(from, view.substr(printed), printed > 0 || wasAtLineStart);
  if (!view.empty()) from.atLineStart = view.back() == '\n';
  from.held = heldTail;
  std::fflush(out_);
}

void QVLogToolPrinter::printMarked(const Connection& connection, std::string_view data,
                                   bool atLineStart) {
  size_t printed = 0;
  for (size_t start = atLineStart ? 0 : nextLineStart(data, 0);
       start != std::string_view::npos && start < data.size(); start = nextLineStart(data, start)) {
    if (data.substr(start, kSeparator.size()) != kSeparator) continue;
    print(data.substr(printed, start - printed));
    printed = start;
    printOwn("[from " + connection.peer + "] ");
  }
  print(data.substr(printed));
}

void QVLogToolPrinter::closed(int connection) {
  auto found = connections_.find(connection);
  if (found == connections_.end()) return;
  print(found->second.held);
  std::fflush(out_);
  connections_.erase(found);
}

void QVLogToolPrinter::print(std::string_view text) {
  printOwn(QVTerminalText::escaped(text, true));
}

void QVLogToolPrinter::printOwn(std::string_view text) {
  if (text.empty()) return;
  std::fwrite(text.data(), 1, text.size(), out_);
  outputAtLineStart_ = text.back() == '\n';
}

void QVLogToolPrinter::separate(const Connection& connection) {
  if (!outputAtLineStart_) printOwn("\n");
  printOwn(std::string(kSeparator) + " new run, from " + connection.peer + " " +
           std::string(kSeparator) + "\n");
}

}  // namespace qv
