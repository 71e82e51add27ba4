#include "platform/archive/QVPlistShape.h"

#include <plist/plist.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/value/QVText.h"

namespace qv {

namespace {

// ---- XML ------------------------------------------------------------------

bool isNameChar(char c) {
  const auto u = static_cast<unsigned char>(c);
  return std::isalnum(u) || c == '_' || c == '-' || c == ':' || c == '.';
}

bool isContainerName(std::string_view name) {
  return QVText::equalsIgnoringCase(name, "array") || QVText::equalsIgnoringCase(name, "dict");
}

std::string_view nameAt(std::string_view s, std::size_t pos) {
  std::size_t end = pos;
  while (end < s.size() && isNameChar(s[end])) ++end;
  return s.substr(pos, end - pos);
}

// Position just past the '>' that ends the tag starting at pos, honouring
// quoted attribute values as libplist does; npos when the tag never ends.
std::size_t tagEnd(std::string_view s, std::size_t pos) {
  char quote = 0;
  for (std::size_t i = pos; i < s.size(); ++i) {
    const char c = s[i];
    if (quote) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      return i + 1;
    }
  }
  return std::string_view::npos;
}

// Position past the end of a comment, CDATA section, processing instruction
// or declaration starting at pos; npos when unterminated; pos itself when
// none starts there.
std::size_t skippedRegionEnd(std::string_view s, std::size_t pos) {
  struct Region {
    std::string_view open, close;
  };
  static constexpr Region kRegions[] = {
      {"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}, {"<!", ">"}};
  for (const Region& r : kRegions) {
    if (s.compare(pos, r.open.size(), r.open) != 0) continue;
    const std::size_t close = s.find(r.close, pos + r.open.size());
    return close == std::string_view::npos ? close : close + r.close.size();
  }
  return pos;
}

// ---- binary ---------------------------------------------------------------

uint64_t readBigEndian(const unsigned char* p, std::size_t n) {
  uint64_t v = 0;
  for (std::size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

// The object graph of a binary property list, read with every offset and
// count checked against the buffer.
class BinaryGraph {
 public:
  explicit BinaryGraph(std::string_view bytes)
      : data_(reinterpret_cast<const unsigned char*>(bytes.data())), size_(bytes.size()) {}

  bool readTrailer();
  uint64_t objectCount() const { return objectCount_; }
  uint64_t rootObject() const { return rootObject_; }
  // Reads the references of object index into refs; isContainer tells
  // whether the object is an array, set or dictionary.
  bool references(uint64_t index, bool* isContainer, std::vector<uint64_t>* refs) const;

 private:
  bool objectOffset(uint64_t index, uint64_t* offset) const;
  bool count(uint64_t* pos, unsigned char marker, uint64_t* n) const;
  bool textHasNoNul(uint64_t pos, unsigned char marker, unsigned width) const;

  const unsigned char* data_;
  uint64_t size_;
  unsigned offsetSize_ = 0, refSize_ = 0;
  uint64_t objectCount_ = 0, rootObject_ = 0, tableOffset_ = 0;
};

bool BinaryGraph::readTrailer() {
  constexpr uint64_t kHeader = 8, kTrailer = 32;
  if (size_ < kHeader + kTrailer + 2) return false;
  const unsigned char* t = data_ + size_ - kTrailer;
  offsetSize_ = t[6];
  refSize_ = t[7];
  objectCount_ = readBigEndian(t + 8, 8);
  rootObject_ = readBigEndian(t + 16, 8);
  tableOffset_ = readBigEndian(t + 24, 8);
  const uint64_t end = size_ - kTrailer;
  if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return false;
  if (tableOffset_ < kHeader + 1 || tableOffset_ >= end) return false;
  if (objectCount_ == 0 || rootObject_ >= objectCount_) return false;
  return objectCount_ <= (end - tableOffset_) / offsetSize_;
}

bool BinaryGraph::objectOffset(uint64_t index, uint64_t* offset) const {
  *offset = readBigEndian(data_ + tableOffset_ + index * offsetSize_, offsetSize_);
  return *offset >= 8 && *offset < tableOffset_;
}

bool BinaryGraph::count(uint64_t* pos, unsigned char marker, uint64_t* n) const {
  *n = marker & 0x0F;
  if (*n != 0x0F) return true;
  if (*pos >= tableOffset_) return false;
  const unsigned char intMarker = data_[*pos];
  if ((intMarker >> 4) != 0x1 || (intMarker & 0x0F) > 3) return false;
  const uint64_t width = uint64_t{1} << (intMarker & 0x0F);
  if (tableOffset_ - *pos - 1 < width) return false;
  *n = readBigEndian(data_ + *pos + 1, width);
  *pos += 1 + width;
  return true;
}

// libplist asserts when it hands out a dictionary key that holds a NUL, so
// text objects (ASCII, or UTF-16 with width 2) must not hold one.
bool BinaryGraph::textHasNoNul(uint64_t pos, unsigned char marker, unsigned width) const {
  uint64_t n = 0;
  if (!count(&pos, marker, &n)) return false;
  if (n > (tableOffset_ - pos) / width) return false;
  for (uint64_t i = 0; i < n; ++i) {
    if (readBigEndian(data_ + pos + i * width, width) == 0) return false;
  }
  return true;
}

bool BinaryGraph::references(uint64_t index, bool* isContainer, std::vector<uint64_t>* refs) const {
  refs->clear();
  uint64_t pos = 0;
  if (!objectOffset(index, &pos)) return false;
  const unsigned char marker = data_[pos++];
  const unsigned type = marker >> 4;
  *isContainer = type == 0xA || type == 0xB || type == 0xC || type == 0xD;
  if (type == 0x5 || type == 0x6) return textHasNoNul(pos, marker, type == 0x6 ? 2 : 1);
  if (!*isContainer) return true;
  uint64_t n = 0;
  if (!count(&pos, marker, &n)) return false;
  const uint64_t available = (tableOffset_ - pos) / refSize_;
  if (n > available || (type == 0xD && n > available / 2)) return false;
  if (type == 0xD) n *= 2;
  refs->reserve(static_cast<std::size_t>(n));
  for (uint64_t i = 0; i < n; ++i) {
    const uint64_t ref = readBigEndian(data_ + pos + i * refSize_, refSize_);
    if (ref >= objectCount_) return false;
    refs->push_back(ref);
  }
  return true;
}

// Depth-first walk over the object graph that computes, for every object
// once, its container depth and the number of nodes it expands to.
class BinaryWalk {
 public:
  BinaryWalk(const BinaryGraph& graph, int maxDepth, std::size_t maxNodes)
      : graph_(graph),
        maxDepth_(maxDepth),
        maxNodes_(maxNodes),
        state_(graph.objectCount(), kUnvisited),
        depth_(graph.objectCount(), 0),
        nodes_(graph.objectCount(), 0) {}

  bool run();

 private:
  enum : uint8_t { kUnvisited, kActive, kDone };
  struct Frame {
    uint64_t index;
    std::vector<uint64_t> refs;
    std::size_t next = 0;
    int deepestChild = 0;
    uint64_t nodes = 1;
  };

  bool enter(uint64_t index);
  void leave();
  void addChild(Frame& frame, uint64_t child);

  const BinaryGraph& graph_;
  const int maxDepth_;
  const std::size_t maxNodes_;
  std::vector<uint8_t> state_;
  std::vector<uint16_t> depth_;
  std::vector<uint32_t> nodes_;
  std::vector<Frame> stack_;
};

void BinaryWalk::addChild(Frame& frame, uint64_t child) {
  frame.deepestChild = std::max<int>(frame.deepestChild, depth_[child]);
  frame.nodes += nodes_[child];
}

bool BinaryWalk::enter(uint64_t index) {
  Frame frame{index, {}};
  bool isContainer = false;
  if (!graph_.references(index, &isContainer, &frame.refs)) return false;
  if (!isContainer) {
    state_[index] = kDone;
    nodes_[index] = 1;
    return true;
  }
  if (static_cast<int>(stack_.size()) >= maxDepth_) return false;
  state_[index] = kActive;
  stack_.push_back(std::move(frame));
  return true;
}

void BinaryWalk::leave() {
  Frame& frame = stack_.back();
  state_[frame.index] = kDone;
  depth_[frame.index] = static_cast<uint16_t>(frame.deepestChild + 1);
  nodes_[frame.index] = static_cast<uint32_t>(frame.nodes);
  const uint64_t index = frame.index;
  stack_.pop_back();
  if (!stack_.empty()) addChild(stack_.back(), index);
}

bool BinaryWalk::run() {
  if (!enter(graph_.rootObject())) return false;
  while (!stack_.empty()) {
    Frame& frame = stack_.back();
    if (frame.nodes > maxNodes_) return false;
    if (frame.next == frame.refs.size()) {
      leave();
      continue;
    }
    const uint64_t child = frame.refs[frame.next++];
    if (state_[child] == kActive) return false;  // A cycle.
    if (state_[child] == kDone) {
      addChild(frame, child);
      continue;
    }
    // enter() may grow the stack, so frame is not used past this point.
    if (!enter(child)) return false;
    if (state_[child] == kDone) addChild(stack_.back(), child);
  }
  return nodes_[graph_.rootObject()] <= maxNodes_;
}

}  // namespace

bool QVPlistShape::isWithinLimits(std::string_view bytes, int maxDepth, std::size_t maxNodes) {
  if (bytes.size() > UINT32_MAX) return false;
  if (plist_is_binary(bytes.data(), static_cast<uint32_t>(bytes.size()))) {
    return binaryWithinLimits(bytes, maxDepth, maxNodes);
  }
  return xmlWithinLimits(bytes, maxDepth);
}

bool QVPlistShape::xmlWithinLimits(std::string_view s, int maxDepth) {
  // No XML document holds a NUL, and libplist asserts on a key that does.
  if (s.find('\0') != std::string_view::npos) return false;
  int depth = 0;
  // Inside an element other than a container, closing tags of containers
  // are text to libplist's eyes, so they do not lower the depth.
  std::string textElement;
  std::size_t i = 0;
  while ((i = s.find('<', i)) != std::string_view::npos) {
    const std::size_t regionEnd = skippedRegionEnd(s, i);
    if (regionEnd == std::string_view::npos) return false;
    if (regionEnd != i) {
      i = regionEnd;
      continue;
    }
    const bool closing = s.compare(i, 2, "</") == 0;
    const std::string_view name = nameAt(s, i + (closing ? 2 : 1));
    const std::size_t end = tagEnd(s, i + 1);
    if (end == std::string_view::npos) return false;
    if (closing) {
      if (!textElement.empty() && name == textElement) textElement.clear();
      if (textElement.empty() && (name == "array" || name == "dict") && depth > 0) --depth;
    } else if (s[end - 2] != '/') {
      if (isContainerName(name) && ++depth > maxDepth) return false;
      if (!isContainerName(name) && name != "plist" && textElement.empty()) {
        textElement = std::string(name);
      }
    }
    i = end;
  }
  return true;
}

bool QVPlistShape::binaryWithinLimits(std::string_view bytes, int maxDepth, std::size_t maxNodes) {
  BinaryGraph graph(bytes);
  if (!graph.readTrailer()) return false;
  return BinaryWalk(graph, maxDepth, maxNodes).run();
}

}  // namespace qv
