#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <string_view>

namespace qv {

// Writes what the connections send to one output as it arrives, flushed
// after each chunk, and sets each run of an application off with a
// separator line before its header ("ZAN_SDK_START_NEW_RUN_FOR_APP..." at
// the start of a line). Texts carry no newline of their own, so nothing
// waits for one; only a chunk that ends in what may be the start of a
// header at the start of a line keeps that piece until the next chunk, as
// does one that ends inside a UTF-8 character.
//
// Anyone on the network may connect, so what peers send is printed with its
// control characters escaped (it could otherwise drive the terminal), and
// each separator names the peer whose header it stands for. A peer's line
// that looks like a separator is marked with that peer's address, so a
// forged one stands out.
class QVLogToolPrinter {
 public:
  static constexpr std::string_view kRunHeader = "ZAN_SDK_START_NEW_RUN_FOR_APP";
  static constexpr std::string_view kSeparator = "====================";

  explicit QVLogToolPrinter(std::FILE* out) : out_(out) {}

  void opened(int connection, std::string peer);
  void received(int connection, std::string_view bytes);
  void closed(int connection);

 private:
  struct Connection {
    std::string peer;
    std::string held;
    bool atLineStart = true;
  };

  // Prints the peer's text escaped.
  void print(std::string_view text);
  void printOwn(std::string_view text);
  void separate(const Connection& connection);
  // Prints data, marking its lines that begin with the separator.
  void printMarked(const Connection& connection, std::string_view data, bool atLineStart);

  std::FILE* out_;
  std::map<int, Connection> connections_;
  bool outputAtLineStart_ = true;
};

}  // namespace qv
