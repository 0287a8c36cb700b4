#include "support/api_client.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "api/sender_api_message.h"

namespace ipsla::test {

ApiClient::ApiClient() : client_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(kApiPort);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(client_.Get(), reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
    throw std::runtime_error("connect failed");
  }
  const int room = 32 * 1024 * 1024;
  setsockopt(client_.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
}

bool ApiClient::RunUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    service.restart();
    service.run_one_for(std::chrono::milliseconds(5));
  }
  return true;
}

void ApiClient::Send(const std::vector<std::uint8_t>& datagram) const {
  if (send(client_.Get(), datagram.data(), datagram.size(), 0) !=
      static_cast<ssize_t>(datagram.size())) {
    throw std::runtime_error(std::string("send failed: ") + std::strerror(errno));
  }
}

std::optional<std::vector<std::uint8_t>> ApiClient::TakeReply() const {
  std::vector<std::uint8_t> reply(65536);
  const ssize_t size = recv(client_.Get(), reply.data(), reply.size(), 0);
  if (size < 0) return std::nullopt;
  reply.resize(static_cast<std::size_t>(size));
  return reply;
}

std::vector<std::uint8_t> ApiClient::ReceiveReply() {
  std::optional<std::vector<std::uint8_t>> reply;
  static_cast<void>(RunUntil([&] { return (reply = TakeReply()).has_value(); }));
  return reply.value_or(std::vector<std::uint8_t>());
}

std::vector<std::uint8_t> ApiClient::Exchange(const std::vector<std::uint8_t>& datagram) {
  Send(datagram);
  return ReceiveReply();
}

std::vector<std::uint8_t> RequestBytes(std::uint16_t command, const std::string& json) {
  std::vector<std::uint8_t> bytes = {'p', 'r',  'e',  'f',  'i', 'x', '-', '8',  // prefix
                                     1,   0xFE, 0xAB, 0xCD,  // marker, flags, reserved
                                     1,   2,    3,    4,     // fragment number
                                     9,   9,    9,    9,     // datagram length: anything goes
                                     0,   0,    0,    0,     // command, result
                                     7,   7,    7,    7};    // block length: likewise
  std::memcpy(&bytes[20], &command, sizeof command);
  if (json.empty()) return bytes;
  bytes.insert(bytes.end(), json.begin(), json.end());
  bytes.push_back(0);
  return bytes;
}

}  // namespace ipsla::test
