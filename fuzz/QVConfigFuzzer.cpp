// Feeds arbitrary bytes to the readers of settings-bundle files: the
// property-list reader (XML and binary) and the JSON reader. Besides not
// crashing, hanging or leaking, a dictionary that was read must survive
// being written as a binary property list and read again, and JSON must be
// read whole or not at all.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "config/QVConfigJSONReader.h"
#include "qvcore/platform/QVPropertyList.h"

namespace {

void checkRoundTrip(const qv::QVValue& dict) {
  using qv::QVPropertyList;
  const auto bytes = QVPropertyList::dataWithDictionary(dict, QVPropertyList::Format::kBinary);
  if (!bytes) __builtin_trap();
  const auto again = QVPropertyList::dictionaryWithData(*bytes);
  if (!again || again->dump() != dict.dump()) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (auto dict = qv::QVPropertyList::dictionaryWithData(bytes)) checkRoundTrip(*dict);
  if (auto json = qv::QVConfigJSONReader::jsonWithData(bytes)) {
    if (!json->is_object() && !json->is_array()) __builtin_trap();
    // JSON text never holds a NUL: a file that does was read only in part.
    if (bytes.find('\0') != std::string_view::npos) __builtin_trap();
  }
  return 0;
}
