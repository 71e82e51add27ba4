#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qv::collector {

// Holds a decoded payload against the format that queues post: the top-level
// keys, the session objects and their types, the environment records'
// types, and message objects that carry an unsigned "offset".
class QVCollectorPayloadCheck {
 public:
  struct Result {
    int64_t messages = 0;
    std::vector<std::string> problems;
    // The problems in one line: the first few, then how many more there are.
    std::string summary() const;
  };

  // A whole queue: {"messageVersion", "serialNumber", "sessions"}.
  static Result payload(const nlohmann::json& value);
  // One message on its own, as a URL-encoded request may carry it.
  static Result message(const nlohmann::json& value);

 private:
  using json = nlohmann::json;

  void checkPayload(const json& value);
  void checkSession(const json& session, const std::string& where);
  void checkEnvironment(const json& environment, const std::string& where);
  void checkMessage(const json& message, const std::string& where);
  // Whether the key is there with the right type; records a problem if not.
  bool expect(const json& object, const char* key, const char* type, const std::string& where,
              bool required);
  void rejectUnknownKeys(const json& object, const std::vector<std::string>& known,
                         const std::string& where);
  void problem(const std::string& where, const std::string& what);

  Result result_;
};

}  // namespace qv::collector
