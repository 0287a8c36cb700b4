// The control phase of a UDP test: one request, one response, no resend within a run.

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <exception>
#include <stdexcept>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>

#include "log/log.h"
#include "udp/auth_funcs.h"
#include "udp/print_funcs.h"
#include "udp/udp_sender.h"

namespace ipsla {
namespace {

constexpr const char* kInternalError = "control phase failed: internal error";

// With IP_RECVERR each ICMP error also stands in the error queue, which keeps the socket readable
// until it is read.
void DrainErrorQueue(int fd) {
  std::array<char, 512> control{};
  msghdr message{};
  do {
    message = msghdr{};
    message.msg_control = control.data();
    message.msg_controllen = control.size();
  } while (recvmsg(fd, &message, MSG_ERRQUEUE | MSG_DONTWAIT) >= 0);
}

}  // namespace

const Sender::TimerHandler UdpSender::kControlPhaseTimer{
    "ControlPhaseTimer", [](Sender& test) { static_cast<UdpSender&>(test).AbortControlPhase(); }};

std::string UdpSender::CurrentKey() const {
  if (config_.auth.mode == SlaAuthMode::kNone) return {};
  std::string key;
  if (GetTaskKey(&key, config_.auth, *context_.keys->Snapshot()) != 1) {
    throw std::runtime_error("Get auth key failed for test " + std::to_string(config_.sla_id));
  }
  return key;
}

void UdpSender::ControlPhase() {
  // Dumped before this phase's nonce and digest are written: it shows those of the previous one,
  // deliberately.
  PrintCtlPhPkt(config_.sla_id, EncodeControlMessage(request_).data(), kControlMessageSize, false,
                config_.auth, *context_.keys->Snapshot());
  if (config_.auth.mode != SlaAuthMode::kNone) {
    std::string key;
    try {
      key = CurrentKey();
    } catch (const std::exception& error) {
      FailStart(error.what());
      return;
    }
    if (!SignControlRequest(config_.sla_id, config_.auth.algorithm, key, &request_)) {
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
  if (IsErrorLogAllowed(config_.sla_id, kind)) {
    LOG_ERROR(config_.sla_id, "(test %d) Control phase failed: %s", config_.sla_id, reason.c_str());
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
  const std::lock_guard lock(mutex_);
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
  DrainErrorQueue(fd);
  if (!datagram && (error == EAGAIN || error == EWOULDBLOCK)) return false;
  if (datagram && datagram->bytes > 0) {
    HandleResponse();
  } else {
    ControlReceiveFailed(boost::system::error_code(error, boost::system::system_category()));
  }
  return true;
}

void UdpSender::HandleResponse() {
  CancelTimer();
  PrintCtlPhPkt(config_.sla_id, response_.data(), kControlMessageSize, true, config_.auth,
                *context_.keys->Snapshot());
  const ControlPhaseMessage response = DecodeControlMessage(response_);
  if (response.version != kControlProtocolVersion) {
    if (IsErrorLogAllowed(config_.sla_id, ErrorKind::kControlResponse)) {
      LOG_ERROR(config_.sla_id,
                "(test %d) Control phase failed: invalid response control phase protocol version",
                config_.sla_id);
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
    measurement_destination_ =
        Endpoint(boost::asio::ip::address_v4(ntohl(config_.measurement.dst.sin_addr.s_addr)),
                 response.measurement_responder_port);
    ArmReceive();
    ArmSend();
    StartFuncTimeout(kTestStop, SessionDuration(config_));
  } catch (const std::exception& error) {
    FailControlPhase(ErrorKind::kControlResponse, error.what());
  }
}

void UdpSender::RejectResponse(const ControlPhaseMessage& response) {
  const bool log = IsErrorLogAllowed(config_.sla_id, ErrorKind::kControlResponse);
  std::string description = metrics_.error_description;
  // Each later finding overwrites the text of an earlier one; header status "fail" only points to
  // the other two.
  if (response.status != SlaControlStatus::kFail) {
    const std::string name = ControlStatusToString(response.status);
    if (log) {
      LOG_ERROR(config_.sla_id, "(test %d) Control phase failed: command header status: %s",
                config_.sla_id, name.c_str());
    }
    description = "control phase failed: command header status: " + name;
  }
  if (response.auth_status != SlaControlStatus::kSuccessful) {
    const std::string name = ControlStatusToString(response.auth_status);
    if (log) {
      LOG_ERROR(config_.sla_id, "(test %d) Control phase authentication failed: %s", config_.sla_id,
                name.c_str());
    }
    description = "control phase authentication failed: " + name;
  }
  if (response.measurement_status != SlaControlStatus::kSuccessful) {
    const std::string name = ControlStatusToString(response.measurement_status);
    if (log) {
      LOG_ERROR(config_.sla_id, "(test %d) Control phase measurement failed: %s", config_.sla_id,
                name.c_str());
    }
    description = "control phase measurement failed: " + name;
  }
  FailRun(description);
}

void UdpSender::ControlReceiveFailed(const boost::system::error_code& error) {
  if (metrics_.status == RunResult::kFail) return;
  std::string description = metrics_.error_description;
  if (error == boost::asio::error::operation_aborted) {
    if (IsErrorLogAllowed(config_.sla_id, ErrorKind::kControlResponse)) {
      LOG_ERROR(config_.sla_id,
                "(test %d) Control phase failed: destination host is not responding",
                config_.sla_id);
    }
    description = "control phase failed: destination host is not responding";
  } else if (error == boost::asio::error::connection_refused) {
    if (IsErrorLogAllowed(config_.sla_id, ErrorKind::kControlResponse)) {
      LOG_ERROR(config_.sla_id,
                "(test %d) Control phase failed: connection refused. The responder may not be "
                "running or is using a "
                "different port",
                config_.sla_id);
    }
    description =
        "control phase failed: connection refused";  // deliberately shorter than the log line
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
