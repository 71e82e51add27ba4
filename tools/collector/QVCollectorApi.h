#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "QVCollectorStore.h"

namespace qv::collector {

// What the collector serves under /_qv/ about itself: the web page, the
// stored requests as JSON and their bodies. Free of the HTTP server, which
// only hands it paths and sends back its replies.
class QVCollectorApi {
 public:
  struct Reply {
    int status = 200;
    std::string contentType;
    std::string body;
  };

  static constexpr int64_t kDefaultListLength = 1000;

  explicit QVCollectorApi(const QVCollectorStore& store) : store_(store) {}

  // Whether a request to this path is the collector's own, never stored.
  static bool owns(std::string_view path);
  // The reply to a GET of that path (with its query).
  Reply get(std::string_view path, std::string_view query) const;

 private:
  Reply list(std::string_view query) const;
  Reply request(std::string_view rest) const;
  Reply summary() const;
  static Reply json(int status, std::string body);
  static Reply notFound(const std::string& what);
  static std::optional<int64_t> number(std::string_view text);

  const QVCollectorStore& store_;
};

}  // namespace qv::collector
