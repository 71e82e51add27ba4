// The collector's decoding: bodies inflated as their Content-Encoding says,
// queries read back into dictionaries, payloads held against the format.
#include <gtest/gtest.h>
#include <zlib.h>

#include "QVCollectorDecoder.h"
#include "QVCollectorQuery.h"
#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/model/QVQueue.h"
#include "support/QVFieldsMessage.h"
#include "support/QVGzip.h"

namespace qv::collector {
namespace {

using FieldsMessage = test::QVFieldsMessage;

// What the library posts for a queue of three messages in two sessions.
std::string libraryPayload() {
  auto queue = std::make_shared<QVQueue>();
  queue->postMessageToSessionID(std::make_shared<FieldsMessage>(QVValue{{"screen", "Home"}}), "S1");
  queue->postMessageToSessionID(std::make_shared<FieldsMessage>(QVValue{{"screen", "a b&c/d"}}),
                                "S1");
  queue->postMessageToSessionID(std::make_shared<QVMessage>(), "S2");
  return queue->toJson();
}

// The zlib stream of in (RFC 1950), or without its two-byte head and
// four-byte check the raw deflate stream (RFC 1951).
std::string zlibStream(const std::string& in, bool raw = false) {
  std::string out(compressBound(in.size()), '\0');
  uLongf size = out.size();
  compress(reinterpret_cast<Bytef*>(out.data()), &size, reinterpret_cast<const Bytef*>(in.data()),
           in.size());
  return raw ? out.substr(2, size - 6) : out.substr(0, size);
}

QVCollectorDecoded post(std::string body, const std::string& encoding = "") {
  QVCollectorRequest request{"POST", "/collect", "", {}, std::move(body)};
  if (!encoding.empty()) request.headers.emplace_back("content-encoding", encoding);
  return QVCollectorDecoder::decode(request);
}

// Kind, problem, messages and whether the inflated body was kept.
std::string show(const QVCollectorDecoded& d) {
  return d.kind + " [" + d.problem + "] " + std::to_string(d.messages) +
         (d.inflated ? " inflated" : "");
}

QVCollectorDecoded get(const std::string& query) {
  return QVCollectorDecoder::decode({"GET", "/collect", query, {}, ""});
}

// Rows of bodies and their Content-Encoding: what each decodes to (kind,
// problem, messages) and whether the decoder kept what it inflated.
TEST(QVCollectorDecoderTest, BodiesDecodeAsTheirEncodingSaysOrAreKeptWithTheReason) {
  const std::string json = libraryPayload();
  const std::string gzip = test::gzip(json);
  std::string damaged = gzip;
  for (size_t i = 12; i < 40; ++i) damaged[i] = static_cast<char>(~damaged[i]);
  const std::string good = "json [] 3 inflated";
  const struct {
    std::string encoding, body, decoded;
  } rows[] = {
      {"", json, "json [] 3"},
      {"", "", "empty [request has neither a body nor a query] 0"},
      {"gzip", gzip, good},
      {" GZip ", gzip, good},
      {"x-gzip", gzip, good},
      {"deflate", zlibStream(json), good},
      {"deflate", zlibStream(json, true), good},
      // Concatenated members are one body.
      {"gzip", test::gzip(json.substr(0, 10)) + test::gzip(json.substr(10)), good},
      {"gzip", damaged, "bytes [gzip stream is damaged] 0"},
      {"gzip", gzip.substr(0, gzip.size() / 2), "bytes [gzip stream is truncated] 0"},
      {"gzip", json, "bytes [gzip stream is damaged] 0"},
      {"deflate", "\x01\x02\x03", "bytes [deflate stream is damaged] 0"},
      {"br", json, "bytes [content encoding \"br\" is not supported] 0"},
      {"", "{\"messageVersion\": ", "bytes [body is not JSON (at byte 20)] 0"},
      {"", std::string(600, '[') + std::string(600, ']'),
       "bytes [body nests deeper than 512 levels] 0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.encoding + " " + row.decoded);
    const QVCollectorDecoded d = post(row.body, row.encoding);
    EXPECT_EQ(show(d), row.decoded);
    EXPECT_EQ(std::to_string(d.rawBytes) + ">" + std::to_string(d.decodedBytes),
              std::to_string(row.body.size()) + ">" +
                  std::to_string(d.kind == "json" ? json.size() : row.body.size()));
    EXPECT_EQ(d.inflated.value_or(json), json);
  }
}

TEST(QVCollectorDecoderTest, UrlEncodedQueryReadsBackIntoTheDictionaryItWasMadeFrom) {
  // The library's own encoder: strings, nested containers and null escaped,
  // numbers not.
  const QVValue payload = QVValue::parse(libraryPayload());
  const QVCollectorDecoded whole = get(QVCoreExtensions::urlEncodedString(payload));
  EXPECT_EQ(show(whole), "urlencoded [] 3");
  EXPECT_EQ(QVValue::parse(*whole.queryFields), payload);

  const QVValue message = {{"offset", 7},      {"name", "Home Page & more"},
                           {"ul", "a/b?c"},    {"plus", "1+1=2"},
                           {"accent", "é"},    {"zero", "007"},
                           {"list", {1, "x"}}, {"obj", {{"k", "v&w/x=y"}}},
                           {"none", nullptr}};
  const QVCollectorDecoded one = get(QVCoreExtensions::urlEncodedString(message));
  EXPECT_EQ(show(one), "urlencoded [] 1");
  EXPECT_EQ(QVValue::parse(*one.queryFields), message);

  EXPECT_EQ(QVValue::parse(*get("k=1&&k=%zz&k&=v&%4").queryFields),
            (QVValue{{"k", {1, "%zz", ""}}, {"", "v"}, {"%4", ""}}));
  EXPECT_EQ(QVCollectorQuery::percentDecode("%41%2f%2F%e2%82%AC+%"), "A//€+%");
  EXPECT_EQ(get("screen=Home").problem,
            "query holds neither a payload (sessions) nor a message (offset)");
}

// Rows of one change each to the library's payload: a value set at a JSON
// pointer, or the key there removed (a null value).
TEST(QVCollectorDecoderTest, PayloadCheckNamesEachWayAPayloadStraysFromTheFormat) {
  const QVValue good = QVValue::parse(libraryPayload());
  const std::string env = "/sessions/0/clientEnvironment";
  const struct {
    std::string pointer;
    QVValue value;
    std::string problem;
  } rows[] = {
      {"/messageVersion", nullptr, "missing key messageVersion"},
      {"/messageVersion", "5.0", "messageVersion is \"5.0\", not \"6.0.0.0\""},
      {"/serialNumber", "1", "serialNumber is not an integer"},
      {"/sessions", QVValue::object(), "sessions is not an array"},
      {"/extra", 1, "unexpected key \"extra\""},
      {"/sessions/1", 5, "sessions[1]: is not an object"},
      {"/sessions/0/startTime", nullptr, "sessions[0]: missing key startTime"},
      {"/sessions/0/id", 3, "sessions[0]: id is not a string"},
      {env + "/width", "750", "sessions[0].clientEnvironment: width is not a number"},
      {env + "/mobileEnvironment/appName", 1,
       "sessions[0].clientEnvironment.mobileEnvironment: appName is not a string"},
      {"/sessions/0/messages/1/offset", nullptr, "sessions[0].messages[1]: missing key offset"},
      {"/sessions/0/messages/0/offset", -1,
       "sessions[0].messages[0]: offset is not an unsigned integer"},
  };
  for (const auto& row : rows) {
    QVValue payload = good;
    const QVValue::json_pointer at(row.pointer);
    if (row.value.is_null()) {
      payload[at.parent_pointer()].erase(at.back());
    } else {
      payload[at] = row.value;
    }
    const QVCollectorDecoded decoded = post(payload.dump());
    EXPECT_EQ(decoded.kind + ": " + decoded.problem, "json: " + row.problem);
  }
  // Many problems: the first five, then a count.
  QVValue many = good;
  for (auto& session : many["sessions"]) session["messages"] = {1, 2, 3, 4, 5, 6, 7};
  const std::string problem = post(many.dump()).problem;
  EXPECT_EQ(problem.substr(problem.rfind(';')), "; and 9 more");
}

}  // namespace
}  // namespace qv::collector
