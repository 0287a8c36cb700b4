// Measurement ports that are only counted.

#ifndef IPSLA_TESTS_UNIT_TOOLS_RESPONDER_FAKE_PORTS_H_
#define IPSLA_TESTS_UNIT_TOOLS_RESPONDER_FAKE_PORTS_H_

#include <map>
#include <new>

#include "responder/control_desk.h"

namespace ipsla::test {

class FakePorts : public responder::Ports {
 public:
  SlaControlStatus Hold(const responder::Endpoint& local) override {
    if (out_of_memory) throw std::bad_alloc();
    if (fault != SlaControlStatus::kSuccessful) return fault;
    ++holds_[local];
    last_ = local;
    return fault;
  }
  SlaControlStatus HoldAny(responder::Endpoint* local) override {
    local->port = 50100;
    return Hold(*local);
  }
  void Release(const responder::Endpoint& local) override { --holds_.at(local); }

  /// How many holds there are, over all ports.
  [[nodiscard]] int Holds() const {
    int sum = 0;
    for (const auto& [local, holds] : holds_) sum += holds;
    return sum;
  }
  /// The port that was held last.
  [[nodiscard]] responder::Endpoint Last() const { return last_; }

  // What holding a port comes to.
  SlaControlStatus fault = SlaControlStatus::kSuccessful;
  bool out_of_memory = false;

 private:
  std::map<responder::Endpoint, int> holds_;
  responder::Endpoint last_;
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_TOOLS_RESPONDER_FAKE_PORTS_H_
