#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "qvcore/platform/QVInterfaceAddressSource.h"

namespace qv::test {

// Interface addresses that a test chooses. Install it with
// QVInterfaceAddressSource::setShared, and set it back to null afterwards.
class QVFakeInterfaceAddressSource : public QVInterfaceAddressSource {
 public:
  // The entries, or none while fails is set.
  std::optional<std::vector<QVInterfaceAddress>> interfaceAddresses() override;

  void setEntries(std::vector<QVInterfaceAddress> entries);
  void setFails(bool fails);

  // Entries laid out as the system lays them out, the address given as text
  // (inet_pton); the test fails on text that is not an address.
  static QVInterfaceAddress ipv4(const std::string& name, const std::string& text, uint32_t flags);
  static QVInterfaceAddress ipv6(const std::string& name, const std::string& text, uint32_t flags,
                                 uint32_t flowInfo = 0);
  // An entry of another family (AF_PACKET, or AF_UNSPEC for none): no bytes.
  static QVInterfaceAddress withoutAddress(const std::string& name, uint32_t flags,
                                           int family = AF_UNSPEC);

 private:
  mutable std::mutex mutex_;
  std::vector<QVInterfaceAddress> entries_;
  bool fails_ = false;
};

}  // namespace qv::test
