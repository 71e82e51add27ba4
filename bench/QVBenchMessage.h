#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "qvcore/model/QVMessage.h"

namespace qv::bench {

// What an analytics module typically files per event: ten fields of mixed
// types after the base's offset. All scalars, so the same message can go out
// as JSON or as a query string.
class QVBenchMessage : public QVMessage {
 public:
  explicit QVBenchMessage(uint64_t sequence)
      : sequence_(sequence), timestamp_(1700000000000 + static_cast<int64_t>(sequence)) {
    setOffset(sequence);
    // A few pages and durations that differ, so that compression meets
    // text as varied as a session's.
    page_ = kPages[sequence % 7];
    duration_ = 0.125 * static_cast<double>(sequence % 97);
    scroll_ = static_cast<double>(sequence % 101) / 100.0;
    count_ = static_cast<int32_t>(sequence % 13);
  }

  static std::shared_ptr<QVMessage> make(uint64_t sequence) {
    return std::make_shared<QVBenchMessage>(sequence);
  }

  QVValue jsonDictionary() const override {
    QVValue dict = QVMessage::jsonDictionary();
    dict["ev"] = event_;
    dict["pg"] = page_;
    dict["ul"] = url_;
    dict["ti"] = title_;
    dict["ts"] = timestamp_;
    dict["sq"] = sequence_;
    dict["du"] = duration_;
    dict["sc"] = scroll_;
    dict["vi"] = visible_;
    dict["ct"] = count_;
    return dict;
  }

 private:
  std::string event_ = "screen_view";
  static constexpr const char* kPages[] = {"Home/Featured", "Search/Results",   "Product/Detail",
                                           "Cart",          "Checkout/Payment", "Account/Orders",
                                           "Help/Contact"};
  std::string page_;
  std::string url_ = "https://shop.example.test/home/featured?src=push&campaign=spring";
  std::string title_ = "Featured items \xE2\x80\x94 spring selection";
  uint64_t sequence_;
  int64_t timestamp_;
  double duration_;
  double scroll_;
  bool visible_ = true;
  int32_t count_;
};

}  // namespace qv::bench
