// Resident memory per queued message: 100,000 base messages, then 100,000
// ten-field messages, posted through the core into a module's queue. The
// growth of VmRSS over the count, less the size of the message object, is
// what the queue costs per message ("beyond the object"). Prints one JSON
// object for scripts/bench.sh.
#include <malloc.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "QVBenchCore.h"
#include "QVBenchMessage.h"

namespace qv::bench {
namespace {

constexpr uint64_t kCount = 100000;

long residentBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6)) * 1024;
  }
  return -1;
}

// Bytes per message that queuing kCount messages adds to the resident set.
double residentPerMessage(QVBenchCore& core, const std::string& module,
                          const std::function<std::shared_ptr<QVMessage>(uint64_t)>& make) {
  core.emptyQueue(module);
  ::malloc_trim(0);
  const long before = residentBytes();
  for (uint64_t i = 0; i < kCount; ++i) {
    if (!core.core()->postMessageForModuleNameWithSessionID(make(i), module, std::nullopt)) {
      std::fprintf(stderr, "a post was refused\n");
      return -1;
    }
  }
  const long after = residentBytes();
  core.emptyQueue(module);
  return static_cast<double>(after - before) / static_cast<double>(kCount);
}

int run() {
  QVBenchCore core;
  const std::string module = "MemoryBench";
  core.addModule(module, {{"PostMessageUrl", "http://127.0.0.1:9/unused"}});
  // The first post makes the queue and its session; they are not per message.
  core.core()->postMessageForModuleNameWithSessionID(std::make_shared<QVMessage>(), module,
                                                     std::nullopt);
  const double base =
      residentPerMessage(core, module, [](uint64_t) { return std::make_shared<QVMessage>(); });
  const double tenField = residentPerMessage(core, module, &QVBenchMessage::make);
  std::printf(
      "{\"messages\": %llu, \"base_resident_per_message\": %.1f, \"base_object_size\": %zu, "
      "\"base_beyond_object\": %.1f, \"ten_field_resident_per_message\": %.1f, "
      "\"ten_field_object_size\": %zu, \"ten_field_beyond_object\": %.1f}\n",
      static_cast<unsigned long long>(kCount), base, sizeof(QVMessage),
      base - static_cast<double>(sizeof(QVMessage)), tenField, sizeof(QVBenchMessage),
      tenField - static_cast<double>(sizeof(QVBenchMessage)));
  return base > 0 && tenField > 0 ? 0 : 1;
}

}  // namespace
}  // namespace qv::bench

int main() { return qv::bench::run(); }
