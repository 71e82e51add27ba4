#include "QVShellBulkPost.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace qv::shell {

namespace {

constexpr int kBarWidth = 40;

void drawBar(std::ostream& out, uint64_t done, uint64_t count) {
  const int filled = count == 0 ? kBarWidth : static_cast<int>(done * kBarWidth / count);
  out << "\r[" << std::string(filled, '#') << std::string(kBarWidth - filled, '.') << "] " << done
      << "/" << count << std::flush;
}

}  // namespace

uint64_t QVShellBulkPost::run(uint64_t count, unsigned threads,
                              const std::function<bool(uint64_t)>& postOne,
                              std::ostream* progress) {
  std::atomic<uint64_t> next{0};
  std::atomic<uint64_t> done{0};
  std::atomic<uint64_t> accepted{0};
  // Each thread takes the next index, so every index is posted exactly once
  // whatever the thread count.
  auto worker = [&] {
    for (uint64_t i = next++; i < count; i = next++) {
      if (postOne(i)) ++accepted;
      ++done;
    }
  };
  std::vector<std::thread> workers;
  for (unsigned t = 0; t < std::max(1u, threads); ++t) workers.emplace_back(worker);
  while (progress && done.load() < count) {
    drawBar(*progress, done.load(), count);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  for (auto& thread : workers) thread.join();
  if (progress) {
    drawBar(*progress, done.load(), count);
    *progress << "\n";
  }
  return accepted.load();
}

}  // namespace qv::shell
