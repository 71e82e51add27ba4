#pragma once

#include <utility>

#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVValue.h"

namespace qv::test {

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

}  // namespace qv::test
