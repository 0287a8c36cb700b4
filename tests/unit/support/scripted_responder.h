// A responder in the test's own thread.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_SCRIPTED_RESPONDER_H_
#define IPSLA_TESTS_UNIT_SUPPORT_SCRIPTED_RESPONDER_H_

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>

#include "env/time_values.h"
#include "udp/control_phase_message.h"
#include "udp/probe_message.h"

namespace ipsla::test {

/// Answers on the test's own event loop: what `control` and `probe` return is sent back.
class ScriptedResponder {
 public:
  using Bytes = std::vector<std::uint8_t>;

  explicit ScriptedResponder(boost::asio::io_context& loop)
      : control_(loop, boost::asio::ip::udp::endpoint(boost::asio::ip::address_v4::loopback(), 0)),
        measurement_(loop,
                     boost::asio::ip::udp::endpoint(boost::asio::ip::address_v4::loopback(), 0)) {
    Receive(control_, [this](const Bytes& request) { return control(request); });
    Receive(measurement_, [this](const Bytes& request) { return probe(request); });
  }

  [[nodiscard]] std::uint16_t ControlPort() { return control_.local_endpoint().port(); }
  [[nodiscard]] std::uint16_t MeasurementPort() { return measurement_.local_endpoint().port(); }

  std::vector<Bytes> requests;
  std::uint32_t counter = 0;

  std::function<std::vector<Bytes>(const Bytes&)> control = [this](const Bytes& request) {
    requests.push_back(request);
    return std::vector<Bytes>{Accept()};
  };
  std::function<std::vector<Bytes>(const Bytes&)> probe = [this](const Bytes& request) {
    return std::vector<Bytes>{Reply(request)};
  };

  /// The response that lets the probes come.
  [[nodiscard]] Bytes Accept() {
    ControlPhaseMessage message;
    message.measurement_responder_port = MeasurementPort();
    return Encoded(message);
  }

  static Bytes Encoded(const ControlPhaseMessage& message) {
    const ControlMessageBytes bytes = EncodeControlMessage(message);
    return {bytes.begin(), bytes.end()};
  }

  /// The reply to a probe.
  Bytes Reply(const Bytes& request) {
    Bytes reply = request;
    const auto type = static_cast<SlaTestType>(request[1]);
    const ReplyFields fields{.sequence = ProbeSequence(type, request),
                             .counter = ++counter,
                             .receive_stamp = TenNanosecondsOfDay(RealTimeNow()),
                             .ntp_receive = NtpFromTime(RealTimeNow())};
    EncodeReply(type, fields, reply);
    return reply;
  }

 private:
  void Receive(boost::asio::ip::udp::socket& socket,
               std::function<std::vector<Bytes>(const Bytes&)> answer) {
    auto buffer = std::make_shared<std::array<std::uint8_t, 2048>>();
    auto from = std::make_shared<boost::asio::ip::udp::endpoint>();
    socket.async_receive_from(
        boost::asio::buffer(*buffer), *from,
        [this, &socket, answer, buffer, from](const auto& error, std::size_t bytes) {
          if (error) return;
          for (const Bytes& reply : answer(Bytes(buffer->begin(), buffer->begin() + bytes))) {
            socket.send_to(boost::asio::buffer(reply), *from);
          }
          Receive(socket, answer);
        });
  }

  boost::asio::ip::udp::socket control_;
  boost::asio::ip::udp::socket measurement_;
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_SCRIPTED_RESPONDER_H_
