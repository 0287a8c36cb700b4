#include "responder/responder.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <new>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "env/time_values.h"

namespace ipsla::responder {

namespace {

constexpr std::size_t kLargestDatagram = 65536;
// Probes taken from one socket before the others get their turn.
constexpr int kBurst = 32;
constexpr std::int64_t kNanosecondsPerMs = 1'000'000;
constexpr std::uint8_t kDscpBits = 0xfc;

std::int64_t SteadyCount() {
  return SteadyNow().time_since_epoch().count();
}

[[noreturn]] void Throw(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

std::uint16_t BoundPort(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    Throw(errno, "getsockname");
  }
  return ntohs(address.sin_port);
}

}  // namespace

Responder::Responder(ResponderOptions options, Print print)
    : options_(std::move(options)),
      report_(std::move(print), options_.verbose),
      poll_(epoll_create1(EPOLL_CLOEXEC)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      ports_(options_.lowest_port, options_.highest_port, poll_.Get()),
      desk_(
          std::exchange(options_.policy, {}), [this](in_addr address) { return IsOurs(address); },
          options_.limits, &ports_, &report_),
      buffer_(kLargestDatagram) {
  if (!poll_ || !wake_) Throw(errno, "set up the event loop");
  const Endpoint local = {.address = ntohl(options_.bind.s_addr), .port = options_.control_port};
  int error = 0;
  control_ = OpenUdpSocket(local, &error);
  if (!control_) Throw(error, "listen on " + ToString(local));
  EnableArrivalAddress(control_.Get());
  control_port_ = BoundPort(control_.Get());
  Watch(control_.Get(), &control_);
  Watch(wake_.Get(), &wake_);
  if (addresses_.Fd() >= 0) Watch(addresses_.Fd(), &addresses_);
}

void Responder::Run(const std::function<std::optional<AuthPolicy>()>& load) {
  report_.Line("listening on " +
               ToString({.address = ntohl(options_.bind.s_addr), .port = control_port_}));
  for (bool stopped = false; !stopped;) {
    std::array<epoll_event, 64> events{};
    const int count =
        epoll_wait(poll_.Get(), events.data(), static_cast<int>(events.size()), TimeoutMs());
    // A probe waits for no more than one request, one session's end and what an operator wants.
    if (HandleEvents(std::span(events).first(static_cast<std::size_t>(std::max(count, 0))))) {
      AnswerRequest();
    }
    desk_.EndOne(SteadyCount());
    const unsigned wishes = wishes_.exchange(0);
    if ((wishes & kReload) != 0) {
      if (auto policy = load()) desk_.SetPolicy(*std::move(policy));
    }
    if ((wishes & kStatistics) != 0) TellTotals();
    stopped = (wishes & kStop) != 0;
  }
  desk_.EndAll(SteadyCount());
  const Totals& totals = desk_.Counts();
  report_.Line(fmt::format("stopped, requests refused {}, requests ignored {}, stray probes {}",
                           totals.refusals.Total(), totals.ignored, totals.stray));
  TellTotals();
}

void Responder::Wish(unsigned what) {
  // Runs in signal handlers: nothing but lock-free memory and the write, which can fail only when
  // the loop is to wake up anyway.
  static_assert(std::atomic<unsigned>::is_always_lock_free);
  wishes_.fetch_or(what);
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_.Get(), &one, sizeof one);
}

void Responder::Watch(int fd, void* data) const {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = data;
  if (epoll_ctl(poll_.Get(), EPOLL_CTL_ADD, fd, &event) != 0) Throw(errno, "watch a socket");
}

int Responder::TimeoutMs() {
  const std::optional<std::int64_t> check = desk_.Sessions().NextCheck();
  if (!check) return -1;
  const std::int64_t wait = (*check - SteadyCount() + kNanosecondsPerMs - 1) / kNanosecondsPerMs;
  return static_cast<int>(std::clamp<std::int64_t>(wait, 0, std::numeric_limits<int>::max()));
}

bool Responder::IsOurs(in_addr address) {
  if (options_.bind.s_addr != INADDR_ANY) return address.s_addr == options_.bind.s_addr;
  return addresses_.Contains(address, SteadyCount());
}

// Answers the probes that are there. True when there is a request too.
bool Responder::HandleEvents(std::span<const epoll_event> events) {
  bool has_request = false;
  for (const epoll_event& event : events) {
    if (event.data.ptr == &control_) {
      has_request = true;
    } else if (event.data.ptr == &wake_) {
      std::uint64_t count = 0;
      [[maybe_unused]] const ssize_t got = read(wake_.Get(), &count, sizeof count);
    } else if (event.data.ptr == &addresses_) {
      addresses_.NoteChanges();
    } else {
      // Nothing is closed before the last event of a turn is dealt with.
      ReceiveProbes(static_cast<MeasurementSocket*>(event.data.ptr));
    }
  }
  return has_request;
}

void Responder::AnswerRequest() {
  const std::optional<ReceivedRequest> request = ReceiveRequest(control_.Get(), buffer_);
  if (!request) return;
  const Endpoint source = FromSockaddr(request->source);
  const std::int64_t now = SteadyCount();
  try {
    const EncodedAnswer answer =
        desk_.Handle(std::span(buffer_).first(request->bytes), source, now);
    if (answer.size == 0 || SendAnswer(control_.Get(), *request, answer.Bytes())) return;
    ++desk_.Counts().answers_unsent;
    report_.Detail(now, [&source] { return "no answer could be sent to " + ToString(source); });
  } catch (const std::bad_alloc&) {
    ++desk_.Counts().out_of_memory;
  }
}

void Responder::ReceiveProbes(MeasurementSocket* measurement) {
  const int fd = measurement->socket.Get();
  const std::int64_t now = SteadyCount();
  Totals& totals = desk_.Counts();
  for (int i = 0; i < kBurst; ++i) {
    const std::optional<ReceivedProbe> probe = ReceiveProbe(fd, buffer_);
    if (!probe) return;
    totals.dropped_by_kernel +=
        probe->dropped - std::exchange(measurement->dropped, probe->dropped);
    Session* session =
        desk_.Sessions().Find({.local = measurement->local, .peer = FromSockaddr(probe->source)});
    if (session == nullptr) {
      ++totals.stray;
      continue;
    }
    const auto datagram = std::span(buffer_).first(probe->bytes);
    if (AnswerProbe(session, probe->arrival, datagram)) {
      const int dscp = options_.dscp_reflect ? probe->type_of_service & kDscpBits : 0;
      CountReply(session, SendReply(fd, probe->source, datagram, static_cast<std::uint8_t>(dscp)));
      totals.reply_times.Note(ToNanoseconds(RealTimeNow()) - ToNanoseconds(probe->arrival));
    }
    desk_.NoteProbe(session, now);
  }
}

void Responder::TellTotals() {
  try {
    for (const std::string& line : DescribeTotals(desk_.Counts(), desk_.Sessions())) {
      report_.Line(line);
    }
    report_.Line(fmt::format("statistics: lines: left out {}", report_.LeftOut()));
  } catch (const std::bad_alloc&) {
    ++desk_.Counts().out_of_memory;
  }
}

}  // namespace ipsla::responder
