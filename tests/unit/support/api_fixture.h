// The daemon's central object for tests: configuration files, a service context run by the calling
// thread, a client.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_API_FIXTURE_H_
#define IPSLA_TESTS_UNIT_SUPPORT_API_FIXTURE_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>

#include "api/api_sender.h"

namespace ipsla::test {

/// A task of the tasks file: icmp-echo on loopback, every 3600 seconds, unless a test says
/// otherwise.
struct TaskEntry {
  int id = 1;
  int interval = 20;
  std::string vrf{};  ///< empty: none
  std::string source = "127.0.0.1";
  std::string start = "now";

  [[nodiscard]] std::string Json() const;
};

/// Files, service context and (once Start() was called) the object itself. Port 10101 is free in
/// the test program's own network namespace, so there is one such object at a time.
class ApiFixture {
 public:
  ApiFixture();
  ~ApiFixture();
  ApiFixture(const ApiFixture&) = delete;
  ApiFixture& operator=(const ApiFixture&) = delete;

  void WriteTasks(const std::vector<TaskEntry>& tasks, const std::string& cpus = "[]") const;
  void WriteTasksText(const std::string& text) const;
  void WriteKeychain(const std::string& text) const;

  /// Creates the object on the current files; the result of ParseConfigsAndStart.
  [[nodiscard]] int Start();

  /// Destroys the object.
  void End() { sender.reset(); }

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
  std::optional<ApiSender> sender;
  std::string tasks_file;
  std::string keychain_file;

 private:
  std::string directory_;
  int client_ = -1;
};

/// A request with this command, text (NUL included) and distinct bytes in every field that is
/// echoed.
[[nodiscard]] std::vector<std::uint8_t> RequestBytes(std::uint16_t command,
                                                     const std::string& json);

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_API_FIXTURE_H_
