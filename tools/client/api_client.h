// One request to the daemon and its reply, over UDP.

#ifndef IPSLA_TOOLS_CLIENT_API_CLIENT_H_
#define IPSLA_TOOLS_CLIENT_API_CLIENT_H_

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "api/sender_api_message.h"

namespace ipsla::client {

/// Why there is no (usable) reply; what() is a sentence for people.
class ClientError : public std::runtime_error {
 public:
  /// Why there is no usable answer.
  enum class Kind : std::uint8_t {
    kNoDaemon,     ///< nothing listens at the address
    kEnded,        ///< the daemon listened when the request was sent and does no more
    kTimeout,      ///< no reply in time, or not all of it
    kRefused,      ///< the daemon answered with a failure
    kMalformed,    ///< a reply that cannot be understood
    kInterrupted,  ///< the interrupt descriptor became readable
    kSystem,       ///< a system call failed here
  };
  /// `text` is for people.
  ClientError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
  [[nodiscard]] Kind GetKind() const { return kind_; }

 private:
  Kind kind_;
};

/// Where the daemon is asked, and how patiently.
struct ClientOptions {
  std::string address = "127.0.0.1";
  std::uint16_t port = kApiPort;
  std::chrono::milliseconds timeout{
      5000};              ///< longest silence: each part of a reply starts it again
  int interrupt_fd = -1;  ///< waiting ends when this becomes readable; -1: nothing interrupts
};

/// Asks and waits. Each call has a socket of its own, so that late replies to an earlier one cannot
/// reach it. Threads: one client per thread; a reply's text is parsed elsewhere. Every operation
/// throws ClientError.
class ApiClient {
 public:
  explicit ApiClient(ClientOptions options);

  /// A command that is answered with JSON: the text. Asks a second time when part of the reply was
  /// lost.
  [[nodiscard]] std::string Query(ApiCommand command, std::string_view json) const;

  /// A command that is answered with a result alone, which may take the daemon long: waits up to
  /// `timeout`, watching whether the daemon is still there.
  void Execute(ApiCommand command, std::chrono::milliseconds timeout) const;

  /// Whether something is bound to the daemon's port.
  [[nodiscard]] bool DaemonListens() const;

  [[nodiscard]] const ClientOptions& Options() const { return options_; }

 private:
  ClientOptions options_;
};

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_API_CLIENT_H_
