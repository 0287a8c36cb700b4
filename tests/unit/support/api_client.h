// A client of the Sender API for tests, with the service context that the server runs on: the
// calling thread runs it while it waits.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_API_CLIENT_H_
#define IPSLA_TESTS_UNIT_SUPPORT_API_CLIENT_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>

#include "env/descriptor.h"

namespace ipsla::test {

/// Port 10101 is free in the test program's own network namespace, so there is one server at a
/// time.
class ApiClient {
 public:
  ApiClient();
  virtual ~ApiClient() = default;
  ApiClient(const ApiClient&) = delete;
  ApiClient& operator=(const ApiClient&) = delete;

  /// Runs the service context until `condition` holds, at most 20 seconds. Tells whether it held.
  [[nodiscard]] bool RunUntil(const std::function<bool()>& condition);

  /// Sends one datagram from the client's socket.
  void Send(const std::vector<std::uint8_t>& datagram) const;

  /// Runs the service context until a datagram has reached the client; empty when none does.
  [[nodiscard]] std::vector<std::uint8_t> ReceiveReply();

  /// A datagram that is waiting for the client, if any; runs nothing.
  [[nodiscard]] std::optional<std::vector<std::uint8_t>> TakeReply() const;

  /// Send and ReceiveReply.
  [[nodiscard]] std::vector<std::uint8_t> Exchange(const std::vector<std::uint8_t>& datagram);

  boost::asio::io_context service;

 private:
  Descriptor client_;
};

/// A request with this command, text (NUL included) and distinct bytes in every field that is
/// echoed.
[[nodiscard]] std::vector<std::uint8_t> RequestBytes(std::uint16_t command,
                                                     const std::string& json);

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_API_CLIENT_H_
