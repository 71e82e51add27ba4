#include "QVShellLine.h"

#include <cctype>

#include "platform/value/QVText.h"

namespace qv::shell {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string trimRight(std::string_view s) { return std::string(QVText::trimmedRight(s)); }

// Reads a quoted text starting at the opening quote; advances pos past the
// closing quote.
std::optional<std::string> readQuoted(const std::string& line, size_t& pos, std::string* error) {
  std::string out;
  for (++pos; pos < line.size(); ++pos) {
    const char c = line[pos];
    if (c == '"') {
      ++pos;
      return out;
    }
    if (c == '\\' && pos + 1 < line.size() && (line[pos + 1] == '"' || line[pos + 1] == '\\')) {
      out += line[++pos];
    } else {
      out += c;
    }
  }
  *error = "unterminated quoted text";
  return std::nullopt;
}

// Reads the value that starts at pos: quoted text, JSON to the end of the
// line, or a bare word.
std::optional<std::string> readValue(const std::string& line, size_t& pos, std::string* error) {
  if (pos < line.size() && line[pos] == '"') return readQuoted(line, pos, error);
  if (pos < line.size() && (line[pos] == '{' || line[pos] == '[')) {
    std::string json = trimRight(line.substr(pos));
    pos = line.size();
    return json;
  }
  const size_t start = pos;
  while (pos < line.size() && !isBlank(line[pos])) ++pos;
  return line.substr(start, pos - start);
}

// A bare word of the form key=... makes an option; the key is letters,
// digits and dashes.
size_t optionKeyLength(const std::string& line, size_t pos) {
  size_t end = pos;
  while (end < line.size() && (std::isalnum(static_cast<unsigned char>(line[end])) ||
                               line[end] == '-' || line[end] == '_')) {
    ++end;
  }
  return (end > pos && end < line.size() && line[end] == '=') ? end - pos : 0;
}

}  // namespace

std::optional<QVShellLine> QVShellLine::parse(const std::string& line, std::string* error) {
  QVShellLine parsed;
  parsed.text_ = line;
  size_t pos = 0;
  bool first = true;
  while (true) {
    while (pos < line.size() && isBlank(line[pos])) ++pos;
    if (pos >= line.size()) break;
    if (first && line[pos] == '#') break;
    QVShellArgument arg;
    arg.offset = pos;
    if (!first) {
      if (const size_t keyLength = optionKeyLength(line, pos)) {
        arg.key = line.substr(pos, keyLength);
        pos += keyLength + 1;
      }
    }
    auto value = readValue(line, pos, error);
    if (!value) return std::nullopt;
    arg.value = std::move(*value);
    if (first) {
      parsed.command_ = arg.value;
      first = false;
    } else if (arg.key.empty()) {
      parsed.positional_.push_back(std::move(arg));
    } else {
      parsed.options_.push_back(std::move(arg));
    }
  }
  return parsed;
}

std::string QVShellLine::restOfLine(size_t index) const {
  if (index >= positional_.size()) return {};
  return trimRight(text_.substr(positional_[index].offset));
}

std::optional<std::string> QVShellLine::option(const std::string& key) const {
  for (const auto& o : options_) {
    if (o.key == key) return o.value;
  }
  return std::nullopt;
}

}  // namespace qv::shell
