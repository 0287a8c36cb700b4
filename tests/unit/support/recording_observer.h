// What the interface watcher tells, written down.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_RECORDING_OBSERVER_H_
#define IPSLA_TESTS_UNIT_SUPPORT_RECORDING_OBSERVER_H_

#include <arpa/inet.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "api/vrf_interfaces.h"

namespace ipsla::test {

/// Writes down what it is told, as text.
class RecordingObserver : public InterfaceObserver {
 public:
  void UpdateLocalAddress(const std::string& vrf_key, std::uint32_t if_index,
                          std::uint32_t new_address, std::uint32_t old_address) override {
    vrf_keys.insert(vrf_key);
    calls.push_back("address " + std::to_string(if_index) + " " + Text(new_address) + " " +
                    Text(old_address));
  }
  void SetInterfaceIndex(const std::string& vrf_key, std::uint32_t if_index,
                         const std::optional<std::string>& if_name) override {
    vrf_keys.insert(vrf_key);
    calls.push_back("link " + std::to_string(if_index) + " " + if_name.value_or("gone"));
  }

  std::vector<std::string> calls;
  std::set<std::string> vrf_keys;  ///< of all calls

 private:
  static std::string Text(std::uint32_t address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
  }
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_RECORDING_OBSERVER_H_
