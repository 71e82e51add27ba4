#include "qvcore/queue/QVDataCompression.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <atomic>
#include <random>

#include "queue/QVDataCompressionStream.h"
#include "support/QVGzip.h"

namespace qv {
namespace {

using Bytes = std::shared_ptr<const std::string>;

Bytes bytes(std::string text) { return std::make_shared<const std::string>(std::move(text)); }

// Stand-ins for the three pointers: they count, fail when told to, and
// otherwise hand on to zlib. The counts are atomic: a stream deflates on a
// thread of its own. (The stream's parameters are held by the integration
// tests, which compare the bytes sent with zlib's own gzip form.)
struct Calls {
  std::atomic<int> deflate = 0, end = 0;
  int initResult = Z_OK, deflateResult = Z_OK;
} calls;

class QVDataCompressionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    calls.deflate = calls.end = 0;
    calls.initResult = calls.deflateResult = Z_OK;
    QVDataCompression::deflateInitQVDCFunctor = [](z_stream_s* s, int level, int method, int bits,
                                                   int mem, int strategy, const char* version,
                                                   int size) {
      if (calls.initResult != Z_OK) return calls.initResult;
      return deflateInit2_(s, level, method, bits, mem, strategy, version, size);
    };
    QVDataCompression::deflateQVDCFunctor = [](z_stream_s* s, int flush) {
      ++calls.deflate;
      return calls.deflateResult != Z_OK ? calls.deflateResult : deflate(s, flush);
    };
    QVDataCompression::deflateEndQVDCFunctor = [](z_stream_s* s) {
      ++calls.end;
      return deflateEnd(s);
    };
  }
  void TearDown() override { QVDataCompression::load(); }
};

// A large payload needs more than one step of the output buffer; a tiny one
// comes out longer.
TEST_F(QVDataCompressionTest, OutputInflatesBackAndAFailureGivesTheInputBack) {
  std::string json = "[";
  for (unsigned i = 0; json.size() < 400 * 1024; ++i)
    json += R"({"screen":"Checkout","n":)" + std::to_string(i * 2654435761u % 99991) + "},";
  json.back() = ']';
  const Bytes output = QVDataCompression::compressData(bytes(json));
  EXPECT_GT(output->size(), 16384u);
  EXPECT_LT(output->size(), json.size());
  EXPECT_EQ(test::gunzip(*output), json);
  EXPECT_EQ(calls.end.load(), 0);  // a finished stream is ended by zlib directly

  const Bytes one = QVDataCompression::compressData(bytes("x"));
  EXPECT_TRUE(one->size() > 1 && test::gunzip(*one) == "x");
  EXPECT_EQ(QVDataCompression::compressData(nullptr), nullptr);
  const Bytes empty = bytes("");
  EXPECT_EQ(QVDataCompression::compressData(empty), empty);

  // A failure gives back the input itself, and ends a stream that was started.
  const Bytes input = bytes(json);
  calls.deflate = 0;
  calls.initResult = Z_VERSION_ERROR;
  EXPECT_EQ(QVDataCompression::compressData(input), input);
  EXPECT_EQ((std::vector{calls.deflate.load(), calls.end.load()}), (std::vector{0, 0}));
  calls.initResult = Z_OK;
  calls.deflateResult = Z_STREAM_ERROR;
  EXPECT_EQ(QVDataCompression::compressData(input), input);
  EXPECT_EQ((std::vector{calls.deflate.load(), calls.end.load()}), (std::vector{1, 1}));
}

// Text that is written in uneven steps, some of it random (deflate's
// hardest case, stored blocks), some of it repetitive.
std::string mixedText(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string text;
  while (text.size() < size) {
    if (random() % 3 == 0) {
      for (int i = 0; i < 3000; ++i) text += static_cast<char>(random());
    } else {
      text += R"({"offset":)" + std::to_string(random() % 1000) + R"(,"name":"screen/view"},)";
    }
  }
  text.resize(size);
  return text;
}

// Feeds text to the stream as a writer would, in steps of 1 to 9,000 bytes.
Bytes streamed(const std::string& text, unsigned seed) {
  std::mt19937 random(seed);
  QVDataCompressionStream stream;
  std::string out;
  while (out.size() < text.size()) {
    out.append(text, out.size(), 1 + random() % 9000);
    stream.grew(out);
  }
  return stream.finish(text);
}

// The body sent is the one compressData gives for the whole text, whatever
// the size (under one stretch, on a stretch's edge, many stretches), the
// content, or how the writer's steps fall; a writer that cuts back text
// already handed over gets the whole text compressed anew.
TEST_F(QVDataCompressionTest, CompressingWhileWritingGivesTheSameBytes) {
  constexpr std::size_t kChunk = QVDataCompressionStream::kChunk;
  unsigned seed = 1;
  for (const std::size_t size : {1ul, kChunk - 1, kChunk, kChunk + 1, 3 * kChunk + 17, 1200000ul}) {
    const std::string text = mixedText(size, ++seed);
    EXPECT_EQ(*streamed(text, ++seed), *QVDataCompression::compressData(bytes(text))) << size;
  }

  QVDataCompressionStream cutBack;
  std::string out = mixedText(2 * kChunk, 7);
  cutBack.grew(out);
  out.resize(100);
  cutBack.cut(100);
  out += mixedText(2 * kChunk, 8);
  cutBack.grew(out);
  EXPECT_EQ(*cutBack.finish(out), *QVDataCompression::compressData(bytes(out)));

  calls.end = 0;  // a cut ends the stream it restarts
  calls.deflateResult = Z_STREAM_ERROR;
  EXPECT_EQ(*streamed(out, 4), out) << "a failed stream gives the text back";
  EXPECT_EQ(calls.end.load(), 1) << "and is ended";
}

}  // namespace
}  // namespace qv
