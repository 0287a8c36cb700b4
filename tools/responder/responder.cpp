#include "responder/responder.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <system_error>

#include <fmt/format.h>

#include "env/packet_stamps.h"
#include "env/time_values.h"

namespace ipsla::responder {

namespace {

using Verdict = CheckedRequest::Verdict;

constexpr std::size_t kLargestDatagram = 65536;
// Datagrams taken from one socket before the others get their turn.
constexpr int kBurst = 256;
// A port of our choice is looked for among that many at the top of the range.
constexpr int kMostPortsTried = 256;
constexpr std::int64_t kNanosecondsPerMs = 1'000'000;

[[noreturn]] void Throw(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

Endpoint HostOrder(in_addr address, std::uint16_t port) {
  return {.address = ntohl(address.s_addr), .port = port};
}

std::uint16_t BoundPort(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    Throw(errno, "getsockname");
  return ntohs(address.sin_port);
}

SlaControlStatus FaultOf(int bind_error) {
  switch (bind_error) {
    case EADDRINUSE:
      return SlaControlStatus::kRequestedPortIsBusy;
    case EADDRNOTAVAIL:
      return SlaControlStatus::kUnsupportedAddress;
    default:
      return SlaControlStatus::kUnknownInternalError;
  }
}

}  // namespace

Responder::Responder(ResponderOptions options, Print print)
    : options_(std::move(options)),
      print_(std::move(print)),
      policy_(options_.policy),
      poll_(epoll_create1(EPOLL_CLOEXEC)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      sessions_(options_.max_sessions),
      buffer_(kLargestDatagram) {
  if (!poll_.IsOpen() || !wake_.IsOpen()) Throw(errno, "set up the event loop");
  const Endpoint local = HostOrder(options_.bind, options_.control_port);
  int error = 0;
  control_ = OpenUdpSocket(local, &error);
  if (!control_.IsOpen()) Throw(error, "listen on " + ToString(local));
  EnableArrivalAddress(control_.Get());
  control_port_ = BoundPort(control_.Get());
  Watch(control_.Get());
  Watch(wake_.Get());
}

void Responder::Run(const std::function<std::optional<AuthPolicy>()>& load) {
  print_("listening on " + ToString(HostOrder(options_.bind, control_port_)));
  for (bool stopped = false; !stopped;) {
    std::array<epoll_event, 64> events{};
    const int count =
        epoll_wait(poll_.Get(), events.data(), static_cast<int>(events.size()), TimeoutMs());
    for (int i = 0; i < count; ++i) {
      const int fd = events.at(static_cast<std::size_t>(i)).data.fd;
      if (fd == control_.Get()) {
        ReceiveRequests();
      } else if (fd == wake_.Get()) {
        std::uint64_t wishes = 0;
        if (read(fd, &wishes, sizeof wishes) != sizeof wishes) continue;
        stopped = stopped || wishes >= kStop;
        if (wishes % kStop != 0) {
          if (auto policy = load()) policy_ = *std::move(policy);
        }
      } else {
        ReceiveProbes(fd);
      }
    }
    for (const Session& session : sessions_.TakeEnded(SteadyNow().time_since_epoch().count()))
      Close(session, "ended");
  }
  for (const Session& session : sessions_.TakeAll()) Close(session, "stopped");
  print_(fmt::format("stopped, requests refused {}, requests ignored {}, stray probes {}",
                     refused_requests_, ignored_requests_, stray_probes_));
}

void Responder::Wake(std::uint64_t what) const {
  // Runs in signal handlers: nothing but the write. It can fail only when as many wishes are
  // pending already.
  [[maybe_unused]] const ssize_t written = write(wake_.Get(), &what, sizeof what);
}

void Responder::Watch(int fd) const {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  if (epoll_ctl(poll_.Get(), EPOLL_CTL_ADD, fd, &event) != 0) Throw(errno, "watch a socket");
}

int Responder::TimeoutMs() const {
  const std::optional<std::int64_t> end = sessions_.NextEnd();
  if (!end) return -1;
  const std::int64_t wait =
      (*end - SteadyNow().time_since_epoch().count() + kNanosecondsPerMs - 1) / kNanosecondsPerMs;
  return static_cast<int>(std::clamp<std::int64_t>(wait, 0, std::numeric_limits<int>::max()));
}

bool Responder::IsOurs(in_addr address) const {
  if (options_.bind.s_addr != INADDR_ANY) return address.s_addr == options_.bind.s_addr;
  return IsLocalAddress(address);
}

void Responder::ReceiveRequests() {
  for (int i = 0; i < kBurst; ++i) {
    const std::optional<ReceivedRequest> request = ReceiveRequest(control_.Get(), buffer_);
    if (!request) return;
    HandleRequest(*request);
  }
}

void Responder::HandleRequest(const ReceivedRequest& request) {
  CheckedRequest checked = CheckRequest(std::span(buffer_).first(request.bytes), policy_,
                                        [this](in_addr address) { return IsOurs(address); });
  if (checked.verdict == Verdict::kIgnored) {
    ++ignored_requests_;
    return;
  }
  std::optional<Session> replaced;
  if (checked.verdict == Verdict::kAccepted) replaced = OpenSession(request, &checked);
  if (checked.verdict == Verdict::kRefused) {
    ++refused_requests_;
    if (options_.verbose) {
      print_(fmt::format("refused {}: {}", ToString(FromSockaddr(request.source)),
                         DescribeFault(checked.answer)));
    }
  }
  if (!SendAnswer(control_.Get(), request, EncodeAnswer(checked, request.bytes)) &&
      options_.verbose) {
    print_("no answer could be sent to " + ToString(FromSockaddr(request.source)));
  }
  if (replaced) Close(*replaced, "replaced");
}

// Opens what an accepted request asks for and completes its answer, or makes it a refused one.
// Returns the session that the new one replaces, still to be closed.
std::optional<Session> Responder::OpenSession(const ReceivedRequest& request,
                                              CheckedRequest* checked) {
  ControlPhaseMessage& answer = checked->answer;
  SessionKey key = {
      .local = HostOrder(answer.measurement_responder_address, answer.measurement_responder_port),
      .peer = HostOrder(answer.measurement_sender_address, answer.measurement_sender_port)};
  SlaControlStatus fault = SlaControlStatus::kSuccessful;
  if (key.local.port == 0) key.local.port = ChoosePort(key, &fault);
  MeasurementSocket* socket =
      fault == SlaControlStatus::kSuccessful ? SocketFor(key, &fault) : nullptr;
  if (socket == nullptr) {
    RefuseMeasurement(fault, checked);
    return std::nullopt;
  }
  std::optional<Session> replaced;
  const auto type = static_cast<SlaTestType>(answer.operation_type);
  answer.session_id = sessions_.Open(key, type, answer.duration_ms,
                                     SteadyNow().time_since_epoch().count(), &replaced);
  answer.measurement_responder_port = key.local.port;
  ++socket->sessions;
  if (options_.verbose) {
    print_(fmt::format("session {} opened: {} from {} to {} for {} ms, asked for by {}",
                       answer.session_id, TestTypeToString(type), ToString(key.peer),
                       ToString(key.local), answer.duration_ms,
                       ToString(FromSockaddr(request.source))));
  }
  return replaced;
}

// A port for a session that leaves the choice to us: the one on which this peer has a session
// already (it has begun a new run), else one that is open, else the highest free one. 0 with the
// fault when there is none.
std::uint16_t Responder::ChoosePort(const SessionKey& key, SlaControlStatus* fault) {
  const std::uint32_t address = key.local.address;
  std::uint16_t open_port = 0;
  for (auto open = sockets_.lower_bound({.address = address}); open != sockets_.end(); ++open) {
    if (open->first.address != address) break;
    open_port = open->first.port;
    if (sessions_.Find({.local = open->first, .peer = key.peer}) != nullptr) return open_port;
  }
  if (open_port != 0) return open_port;
  const int lowest =
      std::max<int>(options_.lowest_port, options_.highest_port - kMostPortsTried + 1);
  for (int port = options_.highest_port; port >= lowest; --port) {
    const Endpoint local = {.address = address, .port = static_cast<std::uint16_t>(port)};
    int error = 0;
    if (OpenUdpSocket(local, &error).IsOpen()) return local.port;
    if (error != EADDRINUSE) {
      *fault = FaultOf(error);
      return 0;
    }
  }
  *fault = SlaControlStatus::kRequestedPortIsBusy;
  return 0;
}

// The socket for a new session, opened if need be. Null with the fault when there can be none.
Responder::MeasurementSocket* Responder::SocketFor(const SessionKey& key, SlaControlStatus* fault) {
  *fault = SlaControlStatus::kRequestedPortIsBusy;
  if (!sessions_.HasRoomFor(key)) return nullptr;
  if (const auto open = sockets_.find(key.local); open != sockets_.end()) return &open->second;
  if (key.local.port < options_.lowest_port || key.local.port > options_.highest_port)
    return nullptr;
  int error = 0;
  MeasurementSocket measurement = {.socket = OpenUdpSocket(key.local, &error)};
  if (!measurement.socket.IsOpen()) {
    *fault = FaultOf(error);
    return nullptr;
  }
  Watch(measurement.socket.Get());
  endpoints_[measurement.socket.Get()] = key.local;
  return &(sockets_[key.local] = std::move(measurement));
}

void Responder::ReceiveProbes(int fd) {
  const auto local = endpoints_.find(fd);
  if (local == endpoints_.end()) return;
  for (int i = 0; i < kBurst; ++i) {
    int error = 0;
    const std::optional<StampedDatagram> probe =
        ReceiveStamped(fd, buffer_.data(), buffer_.size(), &error);
    if (!probe) return;
    Session* session =
        sessions_.Find({.local = local->second, .peer = FromSockaddr(probe->source)});
    if (session == nullptr) {
      ++stray_probes_;
      continue;
    }
    const auto datagram = std::span(buffer_).first(probe->bytes);
    if (!AnswerProbe(session, probe->arrival, datagram)) continue;
    const auto* peer = reinterpret_cast<const sockaddr*>(&probe->source);
    const ssize_t sent =
        sendto(fd, datagram.data(), datagram.size(), MSG_DONTWAIT, peer, sizeof probe->source);
    ++(sent == static_cast<ssize_t>(datagram.size()) ? session->statistics.replies
                                                     : session->statistics.errors);
  }
}

// Reports a session that left the table and gives up its share of the socket.
void Responder::Close(const Session& session, const std::string& reason) {
  print_(StatisticsLine(session, reason));
  const auto socket = sockets_.find(session.key.local);
  if (socket == sockets_.end() || --socket->second.sessions > 0) return;
  endpoints_.erase(socket->second.socket.Get());
  sockets_.erase(socket);
}

}  // namespace ipsla::responder
