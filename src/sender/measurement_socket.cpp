#include "sender/measurement_socket.h"

#include <sys/socket.h>

#include <cerrno>

#include <boost/system/error_code.hpp>
#include <boost/system/system_error.hpp>

#include "env/socket_options.h"

namespace ipsla {
namespace {

[[noreturn]] void Throw(int error, const char* operation) {
  throw boost::system::system_error(error, boost::system::system_category(), operation);
}

const sockaddr* Generic(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);  // NOLINT: the socket API's own cast
}

}  // namespace

void MeasurementSocket::Open(int type, int protocol) {
  unwatched_.Reset(socket(AF_INET, type | SOCK_CLOEXEC, protocol));
  if (!unwatched_) Throw(errno, "open");
}

void MeasurementSocket::Watch() {
  if (watched_.is_open()) return;
  watched_.assign(unwatched_.Get());
  static_cast<void>(unwatched_.Release());
}

void MeasurementSocket::SetSendOptions(int ttl, int type_of_service) {
  const int mtu_discovery = IP_PMTUDISC_DONT;
  SetSockOpt(Fd(), IPPROTO_IP, IP_TTL, &ttl, sizeof ttl, "IP_TTL");
  SetSockOpt(Fd(), IPPROTO_IP, IP_TOS, &type_of_service, sizeof type_of_service, "IP_TOS");
  SetSockOpt(Fd(), IPPROTO_IP, IP_MTU_DISCOVER, &mtu_discovery, sizeof mtu_discovery,
             "IP_MTU_DISCOVER");
}

void MeasurementSocket::BindToDevice(const std::string& name) {
  if (name.empty()) return;
  SetSockOpt(Fd(), SOL_SOCKET, SO_BINDTODEVICE, name.c_str(),
             static_cast<socklen_t>(name.size() + 1), "SO_BINDTODEVICE");
}

void MeasurementSocket::PrepareForReplies(std::size_t probes, std::size_t bytes) {
  EnableProbeStamps(Fd());
  ReserveReceiveBuffer(Fd(), probes, bytes);
}

void MeasurementSocket::Bind(const sockaddr_in& address) {
  if (bind(Fd(), Generic(address), sizeof address) != 0) Throw(errno, "bind");
}

void MeasurementSocket::Connect(const sockaddr_in& address) {
  if (connect(Fd(), Generic(address), sizeof address) != 0) Throw(errno, "connect");
}

std::uint16_t MeasurementSocket::LocalPort() {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  // NOLINTNEXTLINE: the socket API's own cast
  if (getsockname(Fd(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    Throw(errno, "local_endpoint");
  }
  return ntohs(address.sin_port);
}

void MeasurementSocket::Close() {
  unwatched_.Reset();
  if (watched_.is_open()) watched_.close();
}

int MeasurementSocket::Fd() {
  return watched_.is_open() ? watched_.native_handle() : unwatched_.Get();
}

int MeasurementSocket::Send(std::span<const std::uint8_t> bytes, const sockaddr_in* to) {
  const socklen_t length = to == nullptr ? 0 : sizeof *to;
  const int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
  while (sendto(Fd(), bytes.data(), bytes.size(), flags, to == nullptr ? nullptr : Generic(*to),
                length) < 0) {
    if (errno != EINTR) return errno == EWOULDBLOCK ? EAGAIN : errno;
  }
  return 0;
}

}  // namespace ipsla
