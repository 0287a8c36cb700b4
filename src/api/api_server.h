// The Sender API's socket: takes requests, executes them, answers them.

#ifndef IPSLA_API_API_SERVER_H_
#define IPSLA_API_API_SERVER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include <boost/asio/io_context.hpp>
#include <boost/system/error_code.hpp>

#include "api/receive_outcome.h"
#include "api/request_rate.h"
#include "api/sender_api_message.h"
#include "config/json_text.h"
#include "config/task_config.h"
#include "env/packet_stamps.h"
#include "sender/task_metrics.h"

namespace ipsla {

/// What requests are about; the references must outlive the server.
struct ApiSubjects {
  const SlaTaskMap& tasks;
  StatisticsStore& statistics;
  std::function<bool()> reload_tasks;     ///< false, after logging why, when nothing was reloaded
  std::function<bool()> reload_keychain;  ///< likewise
};

/// One request is executed at a time; the others wait in the socket. They are taken no faster than
/// RequestRate lets them, whatever a local user sends; the socket has room for a burst of a
/// thousand, and what exceeds it is dropped. A datagram that claims to come from the socket itself
/// is ignored: its answer would be the next request. A query for which there is no memory fails.
///
/// Threads: the one that runs the service context, or any one while none does. Lifetime: a handler
/// still queued after Close() does nothing, also when the server is gone.
class ApiServer {
 public:
  /// Opens nothing yet. `service` must outlive the server.
  ApiServer(boost::asio::io_context& service, ApiSubjects subjects);
  ~ApiServer() = default;
  ApiServer(const ApiServer&) = delete;
  ApiServer& operator=(const ApiServer&) = delete;

  /// Opens the socket on 127.0.0.1 port 10101 and begins to take requests. Throws
  /// boost::system::system_error naming "open" or "bind"; nothing is then taken.
  void Open();

  /// Closes the socket, if it is open. Throws boost::system::system_error naming "close".
  void Close();

 private:
  struct Channel;  // the socket with what its pending receive writes to

  // A command's answer: failed, or a document to send, or (neither) the bare header.
  struct Answer {
    bool failed = false;
    JsonDocument document;
  };

  // A request's way: received, read, executed, answered; then the next one is waited for.
  void Receive();
  void ReceiveLater();
  void ReceivePacket(const boost::system::error_code& error);
  [[nodiscard]] ReceiveOutcome TakeRequest();
  [[nodiscard]] bool IsLeftByFlood(const StampedDatagram& request);
  void HandleRequest(std::span<const std::uint8_t> received);
  void AnswerRequest(const ApiHeader& request, std::string_view text);
  [[nodiscard]] Answer Execute(std::uint16_t command, std::string_view text);
  [[nodiscard]] Answer AnswerQuery(ApiCommand command, std::string_view text);
  [[nodiscard]] Answer ReportStatistics(const std::optional<StatisticsRequest>& request);
  [[nodiscard]] Answer ReportStatus(const cJSON* body) const;
  void SendJson(const ApiHeader& request, const cJSON* document);
  void SendHeader(const ApiHeader& request, std::uint16_t result);

  // Constant; the channel outlives the server while a receive is pending.
  const ApiSubjects subjects_;
  const std::shared_ptr<Channel> channel_;
  RequestRate rate_;
  bool is_dropping_ = false;  // the requests that are too old, until a younger one is met
};

}  // namespace ipsla

#endif  // IPSLA_API_API_SERVER_H_
