#include "QVCollectorPayloadCheck.h"

#include <algorithm>
#include <cstring>

namespace qv::collector {

namespace {

constexpr const char* kMessageVersion = "6.0.0.0";
constexpr size_t kProblemsShown = 5;

bool hasType(const nlohmann::json& value, const char* type) {
  if (std::strcmp(type, "a string") == 0) return value.is_string();
  if (std::strcmp(type, "an integer") == 0) return value.is_number_integer();
  if (std::strcmp(type, "an unsigned integer") == 0) return value.is_number_unsigned();
  if (std::strcmp(type, "a number") == 0) return value.is_number();
  if (std::strcmp(type, "an array") == 0) return value.is_array();
  return value.is_object();
}

// JSON text of a value that may hold text that is not UTF-8 (from a query).
std::string quoted(const nlohmann::json& value) {
  return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string at(const std::string& where, const char* key) {
  return where.empty() ? key : where + "." + key;
}

}  // namespace

std::string QVCollectorPayloadCheck::Result::summary() const {
  std::string text;
  const size_t shown = std::min(problems.size(), kProblemsShown);
  for (size_t i = 0; i < shown; ++i) text += (i ? "; " : "") + problems[i];
  if (problems.size() > shown) {
    text += "; and " + std::to_string(problems.size() - shown) + " more";
  }
  return text;
}

QVCollectorPayloadCheck::Result QVCollectorPayloadCheck::payload(const json& value) {
  QVCollectorPayloadCheck check;
  check.checkPayload(value);
  return check.result_;
}

QVCollectorPayloadCheck::Result QVCollectorPayloadCheck::message(const json& value) {
  QVCollectorPayloadCheck check;
  check.checkMessage(value, "message");
  check.result_.messages = 1;
  return check.result_;
}

void QVCollectorPayloadCheck::checkPayload(const json& value) {
  if (!value.is_object()) return problem("", "payload is not a JSON object");
  if (expect(value, "messageVersion", "a string", "", true) &&
      value.at("messageVersion") != kMessageVersion) {
    problem("", "messageVersion is " + quoted(value.at("messageVersion")) + ", not \"" +
                    kMessageVersion + "\"");
  }
  expect(value, "serialNumber", "an integer", "", true);
  rejectUnknownKeys(value, {"messageVersion", "serialNumber", "sessions"}, "");
  if (!expect(value, "sessions", "an array", "", true)) return;
  const json& sessions = value.at("sessions");
  for (size_t i = 0; i < sessions.size(); ++i) {
    checkSession(sessions[i], "sessions[" + std::to_string(i) + "]");
  }
}

void QVCollectorPayloadCheck::checkSession(const json& session, const std::string& where) {
  if (!session.is_object()) return problem(where, "is not an object");
  expect(session, "id", "a string", where, false);
  expect(session, "startTime", "an integer", where, true);
  expect(session, "QVCoreSessionID", "a string", where, false);
  rejectUnknownKeys(session,
                    {"id", "startTime", "clientEnvironment", "messages", "QVCoreSessionID"}, where);
  if (expect(session, "clientEnvironment", "an object", where, true)) {
    checkEnvironment(session.at("clientEnvironment"), at(where, "clientEnvironment"));
  }
  if (!expect(session, "messages", "an array", where, true)) return;
  const json& messages = session.at("messages");
  result_.messages += static_cast<int64_t>(messages.size());
  for (size_t i = 0; i < messages.size(); ++i) {
    checkMessage(messages[i], where + ".messages[" + std::to_string(i) + "]");
  }
}

void QVCollectorPayloadCheck::checkEnvironment(const json& environment, const std::string& where) {
  // Keys whose source yields nothing are left out, so only types are held.
  for (const char* key : {"osType", "osVersion"})
    expect(environment, key, "a string", where, false);
  for (const char* key :
       {"width", "deviceWidth", "height", "deviceHeight", "orientation", "pixelDensity"}) {
    expect(environment, key, "a number", where, false);
  }
  if (!expect(environment, "mobileEnvironment", "an object", where, false)) return;
  const json& mobile = environment.at("mobileEnvironment");
  const std::string inner = at(where, "mobileEnvironment");
  for (const char* key : {"locale", "language", "deviceId", "advertisingId", "manufacturer",
                          "appVersion", "appName", "deviceModel", "orientationType"}) {
    expect(mobile, key, "a string", inner, false);
  }
  for (const char* key : {"totalMemory", "totalStorage", "freeStorage"}) {
    expect(mobile, key, "a number", inner, false);
  }
}

void QVCollectorPayloadCheck::checkMessage(const json& message, const std::string& where) {
  if (!message.is_object()) return problem(where, "is not an object");
  expect(message, "offset", "an unsigned integer", where, true);
}

bool QVCollectorPayloadCheck::expect(const json& object, const char* key, const char* type,
                                     const std::string& where, bool required) {
  const auto found = object.find(key);
  if (found == object.end()) {
    if (required) problem(where, std::string("missing key ") + key);
    return false;
  }
  if (hasType(*found, type)) return true;
  problem(where, std::string(key) + " is not " + type);
  return false;
}

void QVCollectorPayloadCheck::rejectUnknownKeys(const json& object,
                                                const std::vector<std::string>& known,
                                                const std::string& where) {
  for (const auto& [key, value] : object.items()) {
    if (std::find(known.begin(), known.end(), key) == known.end()) {
      problem(where, "unexpected key " + quoted(json(key)));
    }
  }
}

void QVCollectorPayloadCheck::problem(const std::string& where, const std::string& what) {
  result_.problems.push_back(where.empty() ? what : where + ": " + what);
}

}  // namespace qv::collector
