// The control phase of a UDP test: one request, one response, no resend within a run.

// The kernel's header needs timespec before it.
// clang-format off
#include <ctime>
#include <linux/errqueue.h>
// clang-format on
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>

#include "env/process.h"
#include "log/log.h"
#include "udp/auth_funcs.h"
#include "udp/print_funcs.h"
#include "udp/udp_sender.h"
#include "udp/wiped.h"

namespace ipsla {
namespace {

constexpr const char* kInternalError = "control phase failed: internal error";

// True when the message of an error queue tells of an ICMP error.
bool CameByIcmp(msghdr* message) {
  for (cmsghdr* item = CMSG_FIRSTHDR(message); item != nullptr; item = CMSG_NXTHDR(message, item)) {
    if (item->cmsg_level != SOL_IP || item->cmsg_type != IP_RECVERR) continue;
    sock_extended_err error{};
    std::memcpy(&error, CMSG_DATA(item), sizeof error);
    if (error.ee_origin == SO_EE_ORIGIN_ICMP) return true;
  }
  return false;
}

// With IP_RECVERR each ICMP error also stands in the error queue, which keeps the socket readable
// until it is read. Tells whether there was one.
bool DrainErrorQueue(int fd) {
  alignas(cmsghdr) std::array<char, 512> control{};
  bool by_icmp = false;
  for (;;) {
    msghdr message{};
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    if (recvmsg(fd, &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) return by_icmp;
    by_icmp = CameByIcmp(&message) || by_icmp;
  }
}

}  // namespace

const Sender::TimerHandler UdpSender::kControlPhaseTimer{"ControlPhaseTimer", [](Sender& test) {
                                                           auto& self =
                                                               static_cast<UdpSender&>(test);
                                                           self.mutex_.AssertHeld();
                                                           self.AbortControlPhase();
                                                         }};

std::string UdpSender::CurrentKey() const {
  if (config_.auth.mode == SlaAuthMode::kNone) return {};
  std::string key;
  if (GetTaskKey(&key, config_.auth, *context_.keys->Snapshot()) != 1) {
    throw std::runtime_error("Get auth key failed for test " + std::to_string(id_));
  }
  return key;
}

void UdpSender::ControlPhase() {
  // kept-behaviours.md#the-dump-of-a-request-shows-the-digest-before
  PrintCtlPhPkt(id_, EncodeControlMessage(request_).data(), kControlMessageSize, false,
                config_.auth, *context_.keys->Snapshot());
  if (config_.auth.mode != SlaAuthMode::kNone) {
    std::string key;
    const WipedAtEnd wiped(key);
    try {
      key = CurrentKey();
    } catch (const std::exception& error) {
      FailStart(error.what());
      return;
    }
    if (!SignControlRequest(id_, config_.auth.algorithm, key, &request_)) {
      FailRun(kInternalError);
      return;
    }
  }
  try {
    ArmControlReceive();
    control_socket_.send_to(boost::asio::buffer(EncodeControlMessage(request_)),
                            control_destination_);
    StartFuncTimeout(kControlPhaseTimer, static_cast<std::uint32_t>(config_.control_timeout));
  } catch (const std::exception& error) {
    FailControlPhase(ErrorKind::kControlRequest, error.what());
  }
}

void UdpSender::FailControlPhase(ErrorKind kind, const std::string& reason) {
  if (IsErrorLogAllowed(id_, kind)) {
    LOG_ERROR(id_, "(test %d) Control phase failed: %s", id_, reason.c_str());
  }
  FailRun(kInternalError);
}

void UdpSender::ArmControlReceive() {
  control_socket_.async_wait(Socket::wait_read, [self = SharedFrom(this), run = run_.load()](
                                                    const boost::system::error_code& error) {
    self->ControlResponse(error, run);
  });
}

void UdpSender::ControlResponse(const boost::system::error_code& error, RunNumber run) {
  const BelowPacing priority(context_.pacer->IsOnDutyHere());
  const Lock lock(*this);
  if (run != run_) return;
  if (error) {
    ControlReceiveFailed(error);
  } else if (!TakeControlResponse()) {
    ArmControlReceive();
  }
}

bool UdpSender::TakeControlResponse() {
  const int fd = control_socket_.native_handle();
  int error = 0;
  const auto datagram = ReceiveStamped(fd, response_.data(), response_.size(), &error);
  const bool by_icmp = DrainErrorQueue(fd);
  if (!datagram && (error == EAGAIN || error == EWOULDBLOCK)) return false;
  // A router's word that host or network cannot be reached, or that it is prohibited, may be of a
  // moment, and anybody may say it: only a closed port ends the wait before its time.
  if (!datagram && by_icmp && error != ECONNREFUSED) return false;
  if (datagram && datagram->bytes > 0) {
    HandleResponse();
  } else {
    ControlReceiveFailed(boost::system::error_code(error, boost::system::system_category()));
  }
  return true;
}

void UdpSender::HandleResponse() {
  CancelTimer();
  PrintCtlPhPkt(id_, response_.data(), kControlMessageSize, true, config_.auth,
                *context_.keys->Snapshot());
  const ControlPhaseMessage response = DecodeControlMessage(response_);
  if (response.version != kControlProtocolVersion) {
    if (IsErrorLogAllowed(id_, ErrorKind::kControlResponse)) {
      LOG_ERROR(id_,
                "(test %d) Control phase failed: invalid response control phase protocol version",
                id_);
    }
    FailRun("control phase failed: invalid response control phase protocol version");
  } else if (response.status == SlaControlStatus::kSuccessful) {
    StartMeasurement(response);
  } else {
    RejectResponse(response);
  }
}

void UdpSender::StartMeasurement(const ControlPhaseMessage& response) {
  try {
    measurement_destination_ = {.sin_family = AF_INET,
                                .sin_port = htons(response.measurement_responder_port),
                                .sin_addr = config_.measurement.dst.sin_addr,
                                .sin_zero = {}};
    StartProbing(duration_ms_);
  } catch (const std::exception& error) {
    FailControlPhase(ErrorKind::kControlResponse, error.what());
  }
}

void UdpSender::RejectResponse(const ControlPhaseMessage& response) {
  // Header status "fail" alone has nothing to log: it must not use up the line of what has.
  const bool has_line = response.status != SlaControlStatus::kFail ||
                        response.auth_status != SlaControlStatus::kSuccessful ||
                        response.measurement_status != SlaControlStatus::kSuccessful;
  const bool log = has_line && IsErrorLogAllowed(id_, ErrorKind::kControlResponse);
  std::string description = metrics_.error_description;
  // Each later finding overwrites the text of an earlier one; header status "fail" only points to
  // the other two.
  if (response.status != SlaControlStatus::kFail) {
    const std::string name = ControlStatusToString(response.status);
    if (log) {
      LOG_ERROR(id_, "(test %d) Control phase failed: command header status: %s", id_,
                name.c_str());
    }
    description = "control phase failed: command header status: " + name;
  }
  if (response.auth_status != SlaControlStatus::kSuccessful) {
    const std::string name = ControlStatusToString(response.auth_status);
    if (log) {
      LOG_ERROR(id_, "(test %d) Control phase authentication failed: %s", id_, name.c_str());
    }
    description = "control phase authentication failed: " + name;
  }
  if (response.measurement_status != SlaControlStatus::kSuccessful) {
    const std::string name = ControlStatusToString(response.measurement_status);
    if (log) {
      LOG_ERROR(id_, "(test %d) Control phase measurement failed: %s", id_, name.c_str());
    }
    description = "control phase measurement failed: " + name;
  }
  FailRun(description);
}

void UdpSender::ControlReceiveFailed(const boost::system::error_code& error) {
  if (metrics_.status == RunResult::kFail) return;
  std::string description = metrics_.error_description;
  if (error == boost::asio::error::operation_aborted) {
    if (IsErrorLogAllowed(id_, ErrorKind::kControlResponse)) {
      LOG_ERROR(id_, "(test %d) Control phase failed: destination host is not responding", id_);
    }
    description = "control phase failed: destination host is not responding";
  } else if (error == boost::asio::error::connection_refused) {
    if (IsErrorLogAllowed(id_, ErrorKind::kControlResponse)) {
      LOG_ERROR(id_,
                "(test %d) Control phase failed: connection refused. The responder may not be "
                "running or is using a "
                "different port",
                id_);
    }
    // kept-behaviours.md#a-refused-connection-has-two-texts
    description = "control phase failed: connection refused";
  }
  FailRun(description);
}

void UdpSender::AbortControlPhase() {
  if (IsStoppedLocked()) return;
  // A response that has arrived in time counts even if no thread was free to take it.
  if (TakeControlResponse()) return;
  try {
    control_socket_.cancel();
  } catch (const std::exception& error) {
    FailControlPhase(ErrorKind::kControlTimeOut, error.what());
    return;
  }
  // Reported here and not from the cancelled wait, which may just have completed otherwise and
  // stand in the queue.
  ControlReceiveFailed(boost::asio::error::operation_aborted);
}

}  // namespace ipsla
