#include "queue/QVDataCompressionStream.h"

#include <zlib.h>

#include <cstring>
#include <exception>
#include <limits>
#include <utility>

#include "platform/host/QVSwallowed.h"
#include "qvcore/queue/QVDataCompression.h"

namespace qv {

namespace {

// As compressData: zlib's default level, gzip framing over a 32 KiB window,
// memory level 8, the default strategy, the output grown 16 KiB at a time.
constexpr std::size_t kGrowth = 16384;
constexpr const char* kZlibVersion = "1.2.11";
constexpr int kDefaultLevel = -1;
constexpr int kDeflateMethod = 8;
constexpr int kGzipWindowBits = 15 + 16;
constexpr int kMemoryLevel = 8;
constexpr int kDefaultStrategy = 0;

}  // namespace

// One deflate stream, fed stretch by stretch on the compressing thread.
struct QVDataCompressionStream::Deflater {
  z_stream stream;
  std::string output;
  bool started = false;
  bool failed = false;
  bool done = false;

  Deflater() { std::memset(&stream, 0, sizeof stream); }
  ~Deflater() {
    if (started && !done) QVDataCompression::deflateEndQVDCFunctor(&stream);
  }

  bool start() {
    started = QVDataCompression::deflateInitQVDCFunctor(
                  &stream, kDefaultLevel, kDeflateMethod, kGzipWindowBits, kMemoryLevel,
                  kDefaultStrategy, kZlibVersion, static_cast<int>(sizeof(z_stream))) == Z_OK;
    failed = !started;
    return started;
  }

  // Deflates the stretch; with last, ends the stream. false once it failed.
  bool feed(const std::string& stretch, bool last) {
    if (failed || done || stretch.size() > std::numeric_limits<uInt>::max()) return fail();
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stretch.data()));
    stream.avail_in = static_cast<uInt>(stretch.size());
    for (;;) {
      if (stream.total_out >= output.size()) output.resize(output.size() + kGrowth);
      stream.next_out = reinterpret_cast<Bytef*>(output.data()) + stream.total_out;
      stream.avail_out = static_cast<uInt>(output.size() - stream.total_out);
      const int status =
          QVDataCompression::deflateQVDCFunctor(&stream, last ? Z_FINISH : Z_NO_FLUSH);
      if (last && status == Z_STREAM_END) return end();
      if (status != Z_OK) return fail();
      // Output still held by zlib comes out at the next call.
      if (!last && stream.avail_in == 0) return true;
    }
  }

  bool end() {
    // As compressData: the finished stream goes to zlib directly.
    deflateEnd(&stream);
    done = true;
    output.resize(stream.total_out);
    return true;
  }

  bool fail() {
    if (started && !done) QVDataCompression::deflateEndQVDCFunctor(&stream);
    done = true;
    failed = true;
    return false;
  }
};

QVDataCompressionStream::QVDataCompressionStream() = default;

QVDataCompressionStream::~QVDataCompressionStream() { abandon(); }

void QVDataCompressionStream::grew(const std::string& out) {
  if (broken_ || out.size() < handed_ + kChunk) return;
  try {
    hand(out.substr(handed_), false);
    handed_ = out.size();
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // Out of memory or no thread: the whole text is compressed at the end.
    broken_ = true;
  }
}

void QVDataCompressionStream::cut(std::size_t size) {
  if (size < handed_) broken_ = true;
}

void QVDataCompressionStream::hand(std::string stretch, bool last) {
  if (!deflater_) {
    deflater_ = std::make_unique<Deflater>();
    if (!deflater_->start()) throw std::runtime_error("deflateInit failed");
    thread_ = std::thread([this] { run(); });
  }
  std::lock_guard lock(mutex_);
  stretches_.push_back(std::move(stretch));
  last_ = last;
  changed_.notify_all();
}

void QVDataCompressionStream::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [&] { return stopping_ || !stretches_.empty(); });
    if (stopping_) return;
    std::string stretch = std::move(stretches_.front());
    stretches_.pop_front();
    const bool last = last_ && stretches_.empty();
    lock.unlock();
    const bool fed = deflater_->feed(stretch, last);
    lock.lock();
    if (!fed || last) return;
  }
}

void QVDataCompressionStream::abandon() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
  deflater_.reset();
}

std::shared_ptr<const std::string> QVDataCompressionStream::finish(const std::string& text) {
  if (!broken_ && deflater_ && text.size() >= handed_) {
    try {
      hand(text.substr(handed_), true);
      thread_.join();
      if (!deflater_->failed)
        return std::make_shared<const std::string>(std::move(deflater_->output));
      // A stream that failed gives the text back, as compressData does.
      return std::make_shared<const std::string>(text);
    } catch (const std::exception& e) {
      noteSwallowed(__func__, e);
    }
  }
  abandon();
  return QVDataCompression::compressData(std::make_shared<const std::string>(text));
}

}  // namespace qv
