#pragma once

#include <charconv>
#include <optional>
#include <set>
#include <string>

#include "QVShellError.h"
#include "QVShellLine.h"
#include "qvcore/platform/QVValue.h"

// Reading a command's arguments. Every check throws QVShellError naming the
// command, so that a handler states what it needs and nothing else.
namespace qv::shell {

// Checks the number of positional arguments and that every option is allowed.
void expectArguments(const QVShellLine& line, size_t minCount, size_t maxCount,
                     const std::set<std::string>& allowed = {});

template <typename T>
T parseNumber(const std::string& text, const std::string& what) {
  T value{};
  const auto* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end) throw QVShellError(what + ": not a number: " + text);
  return value;
}

template <typename T>
std::optional<T> numberOption(const QVShellLine& line, const std::string& key) {
  auto text = line.option(key);
  if (!text) return std::nullopt;
  return parseNumber<T>(*text, key);
}

// A finite number, at least 0 and at most a billion: "run", "wait-flush".
double parseSeconds(const std::string& text, const std::string& what);
QVValue parseJson(const std::string& text, const std::string& what);
// Absent gives false; anything but "true" or "false" is an error.
bool boolOption(const QVShellLine& line, const std::string& key);
std::string requiredOption(const QVShellLine& line, const std::string& key);

// Positional arguments and options in the order written, options as
// key=value, joined by one blank: the text of "echo" and "log".
std::string wordsInOrder(const QVShellLine& line);

inline std::string boolText(bool b) { return b ? "true" : "false"; }

}  // namespace qv::shell
