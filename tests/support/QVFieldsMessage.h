#pragma once

#include <memory>
#include <stdexcept>
#include <utility>

#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVValue.h"

namespace qv::test {

inline std::shared_ptr<QVMessage> messageWithOffset(uint64_t offset) {
  auto message = std::make_shared<QVMessage>();
  message->setOffset(offset);
  return message;
}

// A module's message: the base message's JSON plus fields of the test's own.
class QVFieldsMessage : public QVMessage {
 public:
  explicit QVFieldsMessage(QVValue fields) : fields_(std::move(fields)) {}
  QVValue jsonDictionary() const override {
    QVValue dict = QVMessage::jsonDictionary();
    QVValues::addEntriesFromDictionary(dict, fields_);
    return dict;
  }

 private:
  QVValue fields_;
};

// A message its module cannot describe.
class QVFailingMessage : public QVMessage {
 public:
  QVValue jsonDictionary() const override { throw std::runtime_error("no description"); }
};

}  // namespace qv::test
