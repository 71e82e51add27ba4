#include "qvcore/platform/QVMutableURLRequest.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <string_view>

#include "platform/value/QVText.h"

namespace qv {

namespace {

bool isHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

// Unreserved, reserved ("gen-delims" and "sub-delims") and the percent sign
// of an escape: everything else has to be escaped before it is a URL.
bool hasOnlyURLCharacters(std::string_view url) {
  static constexpr std::string_view kPunctuation = "-._~:/?#[]@!$&'()*+,;=";
  for (size_t i = 0; i < url.size(); ++i) {
    const char c = url[i];
    if (std::isalnum(static_cast<unsigned char>(c))) continue;
    if (c == '%') {
      if (i + 2 >= url.size() || !isHexDigit(url[i + 1]) || !isHexDigit(url[i + 2])) return false;
      i += 2;
      continue;
    }
    if (kPunctuation.find(c) == std::string_view::npos) return false;
  }
  return true;
}

struct CurlUrlDeleter {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

bool hasPart(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  const bool found = curl_url_get(url, part, &text, 0) == CURLUE_OK && text && *text;
  curl_free(text);
  return found;
}

}  // namespace

QVMutableURLRequest::QVMutableURLRequest(std::string url) : url_(std::move(url)) {}

std::shared_ptr<QVMutableURLRequest> QVMutableURLRequest::requestWithURL(const std::string& url) {
  if (!isValidURL(url)) return nullptr;
  return std::make_shared<QVMutableURLRequest>(url);
}

bool QVMutableURLRequest::isValidURL(const std::string& url) {
  if (url.empty() || !hasOnlyURLCharacters(url)) return false;
  std::unique_ptr<CURLU, CurlUrlDeleter> parsed(curl_url());
  if (!parsed) return false;
  // Schemes libcurl cannot fetch are still URLs; the session refuses them.
  if (curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
      CURLUE_OK) {
    return false;
  }
  return hasPart(parsed.get(), CURLUPART_SCHEME) && hasPart(parsed.get(), CURLUPART_HOST);
}

std::optional<std::string> QVMutableURLRequest::valueForHTTPHeaderField(
    const std::string& field) const {
  for (const Header& header : headers_) {
    if (QVText::equalsIgnoringCase(header.first, field)) return header.second;
  }
  return std::nullopt;
}

void QVMutableURLRequest::setValueForHTTPHeaderField(const std::string& value,
                                                     const std::string& field) {
  auto it = findHeader(field);
  if (it == headers_.end()) {
    headers_.emplace_back(field, value);
  } else {
    *it = Header(field, value);
  }
}

void QVMutableURLRequest::setHTTPBody(std::string body) {
  body_ = std::make_shared<const std::string>(std::move(body));
}

std::vector<QVMutableURLRequest::Header>::iterator QVMutableURLRequest::findHeader(
    const std::string& field) {
  return std::find_if(headers_.begin(), headers_.end(), [&](const Header& header) {
    return QVText::equalsIgnoringCase(header.first, field);
  });
}

}  // namespace qv
