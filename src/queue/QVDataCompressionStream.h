#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "qvcore/model/QVSession.h"

namespace qv {

// Compresses a payload while it is being written: the writer shows it its
// text as it grows (QVSession::TextWatcher), each finished stretch of
// kChunk bytes or more is handed to a thread of its own that feeds it to
// deflate, and finish() adds the rest and ends the stream. The bytes are
// those of QVDataCompression::compressData on the whole text: the same
// parameters through the same replaceable zlib pointers, and deflate's
// output does not depend on how its input is split. A payload shorter than
// one stretch, or one whose writer cut back text already handed over, is
// compressed whole at the end instead.
class QVDataCompressionStream : public QVSession::TextWatcher {
 public:
  static constexpr std::size_t kChunk = 64 * 1024;

  QVDataCompressionStream();
  ~QVDataCompressionStream() override;
  QVDataCompressionStream(const QVDataCompressionStream&) = delete;
  QVDataCompressionStream& operator=(const QVDataCompressionStream&) = delete;

  void grew(const std::string& out) override;
  void cut(std::size_t size) override;

  // The gzip form of text, which must be the whole text written; as
  // compressData, the text itself (a copy) when it cannot be compressed.
  std::shared_ptr<const std::string> finish(const std::string& text);

 private:
  struct Deflater;
  void hand(std::string stretch, bool last);
  void run();
  // Stops the thread, if any, and forgets what it compressed.
  void abandon();

  std::size_t handed_ = 0;  // bytes of the text handed over so far
  bool broken_ = false;     // text already handed over was cut back
  std::unique_ptr<Deflater> deflater_;
  std::thread thread_;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> stretches_;
  bool last_ = false;      // the final stretch is queued
  bool stopping_ = false;  // abandon(): drop the rest
};

}  // namespace qv
