#include "responder/measurement_ports.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>

namespace ipsla::responder {

namespace {

using Status = SlaControlStatus;

// A port of our choice is looked for among that many at the top of the range.
constexpr int kMostPortsTried = 256;

Status StatusOf(int error) {
  switch (error) {
    case 0:
      return Status::kSuccessful;
    case EADDRINUSE:
      return Status::kRequestedPortIsBusy;
    case EADDRNOTAVAIL:
      return Status::kUnsupportedAddress;
    default:
      return Status::kUnknownInternalError;
  }
}

}  // namespace

Status MeasurementPorts::Hold(const Endpoint& local) {
  if (const auto open = sockets_.find(local); open != sockets_.end()) {
    ++open->second.sessions;
    return Status::kSuccessful;
  }
  if (local.port < lowest_ || local.port > highest_) return Status::kRequestedPortIsBusy;
  return StatusOf(Open(local));
}

Status MeasurementPorts::HoldAny(Endpoint* local) {
  const int lowest = std::max<int>(lowest_, highest_ - kMostPortsTried + 1);
  for (int port = highest_; port >= lowest; --port) {
    local->port = static_cast<std::uint16_t>(port);
    const int error = Open(*local);
    if (error != EADDRINUSE) return StatusOf(error);
  }
  return Status::kRequestedPortIsBusy;
}

void MeasurementPorts::Release(const Endpoint& local) {
  const auto open = sockets_.find(local);
  // Closing the descriptor takes it out of the epoll instance.
  if (open != sockets_.end() && --open->second.sessions == 0) sockets_.erase(open);
}

// Opens a socket with one holder. 0, or the errno value.
int MeasurementPorts::Open(const Endpoint& local) {
  int error = 0;
  Sockets opened;
  MeasurementSocket& measurement = opened[local];
  measurement = {.socket = OpenUdpSocket(local, &error), .local = local, .sessions = 1};
  if (!measurement.socket) return error;
  const int fd = measurement.socket.Get();
  EnableProbeDetails(fd);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = &measurement;
  if (epoll_ctl(poll_, EPOLL_CTL_ADD, fd, &event) != 0) return errno;
  sockets_.merge(opened);  // keeps the address of what it takes
  return 0;
}

}  // namespace ipsla::responder
