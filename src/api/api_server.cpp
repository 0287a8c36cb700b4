#include "api/api_server.h"

#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <exception>
#include <new>
#include <utility>
#include <vector>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cjson/cJSON.h>

#include "api/json_memory.h"
#include "api/request_bodies.h"
#include "api/statistics_json.h"
#include "env/process.h"
#include "env/time_values.h"
#include "log/log.h"

namespace ipsla {
namespace {

using boost::asio::ip::udp;

// Lets the requester keep up with the fragments of a long reply.
constexpr std::chrono::milliseconds kFragmentPause{10};

// What the kernel counts for what waits, in bytes: room for a burst of 1000 requests of full size
// (17 kB each), but for no more small ones (832 bytes each) than are taken in five seconds. The
// kernel doubles the figure that it is given.
constexpr int kApiReceiveBufferBytes = 9 * 1024 * 1024;

// A while in which some requests become due again.
constexpr std::chrono::milliseconds kRatePause{5};

// Requests that produce a JSON reply take 10 ms and more each, so the buffer can hold the work of
// minutes. What has waited longer than this behind more than a burst is not worth an answer: its
// client has given up, and the next one is waiting.
constexpr std::chrono::seconds kLongestWait{5};
constexpr std::size_t kBurst = 1000;

// Requests that are dropped for that at a time: they count as one that is taken.
constexpr int kDroppedAtOnce = 8;

void EnlargeReceiveBuffer(int fd) {
  const int bytes = kApiReceiveBufferBytes;
  // The first needs privilege, the second is cut to the system's limit; both are only an attempt.
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0) return;
  static_cast<void>(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes));
}

// Bytes that the kernel counts for what waits in the socket; 0 when it does not tell.
std::size_t WaitingBytes(int fd) {
  std::array<std::uint32_t, SK_MEMINFO_VARS> info{};
  socklen_t length = sizeof info;
  if (getsockopt(fd, SOL_SOCKET, SO_MEMINFO, info.data(), &length) != 0) return 0;
  return info[SK_MEMINFO_RMEM_ALLOC];
}

// At least what the kernel counts for one datagram of this size.
std::size_t ChargedBytes(std::size_t bytes) {
  return 1280 + 2 * bytes;
}

bool IsFromHere(const sockaddr_in& source) {
  return source.sin_addr.s_addr == htonl(INADDR_LOOPBACK) && source.sin_port == htons(kApiPort);
}

udp::endpoint EndpointOf(const sockaddr_in& source) {
  return {boost::asio::ip::address_v4(ntohl(source.sin_addr.s_addr)), ntohs(source.sin_port)};
}

bool IsReload(std::uint16_t command) {
  return command == static_cast<std::uint16_t>(ApiCommand::kParseTasksConfig) ||
         command == static_cast<std::uint16_t>(ApiCommand::kParseKeychainConfig);
}

const char* TextOrEmpty(const JsonText& text) {
  return text ? text.get() : "";
}

}  // namespace

struct ApiServer::Channel {
  explicit Channel(boost::asio::io_context& service) : socket(service), pause(service) {}

  udp::socket socket;
  boost::asio::steady_timer pause;  // while requests come too fast
  udp::endpoint requester;          // of the last request: where its reply goes
  std::array<std::uint8_t, kApiMaxDatagram> buffer{};
};

ApiServer::ApiServer(boost::asio::io_context& service, ApiSubjects subjects)
    : subjects_(std::move(subjects)), channel_(std::make_shared<Channel>(service)) {
  WatchJsonMemory();
}

void ApiServer::Open() {
  udp::socket& socket = channel_->socket;
  socket.open(udp::v4());
  EnlargeReceiveBuffer(socket.native_handle());
  // Not for this socket's sake: the kernel stamps packets at all only while some socket asks for
  // it, and takes a moment to begin. This one lives as long as the daemon and so keeps the stamping
  // on between the runs of the tests.
  EnableReceiveStamps(socket.native_handle());
  socket.bind(udp::endpoint(boost::asio::ip::address_v4::loopback(), kApiPort));
  Receive();
}

void ApiServer::Close() {
  channel_->pause.cancel();
  channel_->socket.close();
}

void ApiServer::Receive() {
  channel_->socket.async_wait(udp::socket::wait_read,
                              [this, channel = channel_](const boost::system::error_code& error) {
                                // Checked first: once the socket is closed, the server itself may
                                // be gone.
                                if (channel->socket.is_open()) ReceivePacket(error);
                              });
}

void ApiServer::ReceiveLater() {
  channel_->pause.expires_after(kRatePause);
  channel_->pause.async_wait([this, channel = channel_](const boost::system::error_code& error) {
    if (!error && channel->socket.is_open()) Receive();
  });
}

void ApiServer::ReceivePacket(const boost::system::error_code& error) {
  if (!error && !rate_.Pass(SteadyNow())) {
    ReceiveLater();
    return;
  }
  ReceiveOutcome outcome = error ? ClassifyReceive(error, 0) : TakeRequest();
  for (int more = 1; is_dropping_ && more < kDroppedAtOnce; ++more) outcome = TakeRequest();
  if (outcome != ReceiveOutcome::kEnd) Receive();
}

ReceiveOutcome ApiServer::TakeRequest() {
  int failure = 0;
  const auto request = ReceiveStamped(channel_->socket.native_handle(), channel_->buffer.data(),
                                      channel_->buffer.size(), &failure);
  const boost::system::error_code error(failure, boost::system::system_category());
  const ReceiveOutcome outcome = ClassifyReceive(error, request ? request->bytes : 0);
  if (outcome == ReceiveOutcome::kEnd) LOG_DEBUG(0, "Catch exception %s", error.message().c_str());
  if (outcome != ReceiveOutcome::kData) return outcome;
  if (IsFromHere(request->source) || IsLeftByFlood(*request)) return ReceiveOutcome::kAgain;
  channel_->requester = EndpointOf(request->source);
  const BelowPacing below;
  HandleRequest(std::span<const std::uint8_t>(channel_->buffer).first(request->bytes));
  return outcome;
}

bool ApiServer::IsLeftByFlood(const StampedDatagram& request) {
  const std::chrono::nanoseconds waited(ToNanoseconds(RealTimeNow()) -
                                        ToNanoseconds(request.arrival));
  const bool is_old = waited > kLongestWait;
  is_dropping_ = is_old && (is_dropping_ || WaitingBytes(channel_->socket.native_handle()) >
                                                kBurst * ChargedBytes(request.bytes));
  return is_dropping_;
}

void ApiServer::HandleRequest(std::span<const std::uint8_t> received) {
  const ApiHeader request = DecodeApiHeader(received);
  if (request.request_marker != kApiRequestMarker || request.result != kApiSuccess) {
    SendHeader(request, kApiFailure);
    return;
  }
  LOG_DEBUG(0, "Recive commad %s", ApiCommandName(request.command));
  if (IsReload(request.command)) {
    // What fails in it ends the daemon: half of the tests would be the old ones.
    const bool done = !Execute(request.command, {}).failed;
    SendHeader(request, done ? kApiSuccess : kApiFailure);
    return;
  }
  try {
    AnswerRequest(request, ApiPayloadText(received));
  } catch (const std::bad_alloc&) {
    LOG_DEBUG(0, "no memory for the request");
    SendHeader(request, kApiFailure);
  }
}

void ApiServer::AnswerRequest(const ApiHeader& request, std::string_view text) {
  const Answer answer = Execute(request.command, text);
  if (answer.failed) {
    SendHeader(request, kApiFailure);
  } else if (answer.document) {
    SendJson(request, answer.document.get());
  } else {
    SendHeader(request, kApiSuccess);
  }
}

ApiServer::Answer ApiServer::Execute(std::uint16_t command, std::string_view text) {
  switch (const auto known = static_cast<ApiCommand>(command)) {
    case ApiCommand::kGetTaskStatistics:
    case ApiCommand::kGetAllActiveTaskStatistics:
    case ApiCommand::kGetTaskStatus: {
      static_cast<void>(TakeJsonMemoryFailure());
      Answer answer = AnswerQuery(known, text);
      if (TakeJsonMemoryFailure()) throw std::bad_alloc();
      return answer;
    }
    case ApiCommand::kParseTasksConfig:
      return {.failed = !subjects_.reload_tasks(), .document = nullptr};
    case ApiCommand::kParseKeychainConfig:
      return {.failed = !subjects_.reload_keychain(), .document = nullptr};
  }
  return {};  // kept-behaviours.md#unknown-commands-succeed
}

ApiServer::Answer ApiServer::AnswerQuery(ApiCommand command, std::string_view text) {
  const JsonParse parse = ParseJson(text);
  if (!parse.document) {
    LOG_DEBUG(0, "JSON parse error at line: %s", parse.error_text.value_or("").c_str());
    return {.failed = true, .document = nullptr};
  }
  const cJSON* body = parse.document.get();
  LOG_DEBUG(0, "SenderAPI request JSON:\n%s", TextOrEmpty(JsonText(cJSON_Print(body))));
  switch (command) {
    case ApiCommand::kGetTaskStatistics:
      return ReportStatistics(ReadTasksToReport(body));
    case ApiCommand::kGetAllActiveTaskStatistics:
      return ReportStatistics(ReadGroupsToReport(body, subjects_.tasks));
    default:
      return ReportStatus(body);
  }
}

ApiServer::Answer ApiServer::ReportStatistics(const std::optional<StatisticsRequest>& request) {
  Answer answer;
  answer.failed = true;
  if (!request) return answer;
  answer.document.reset(cJSON_CreateObject());
  if (SerializeTasksMetrics(answer.document.get(), *request, subjects_.tasks,
                            subjects_.statistics) != 0) {
    LOG_DEBUG(0, "SerializeTasksMetrics() failed");
    return answer;
  }
  answer.failed = false;
  return answer;
}

ApiServer::Answer ApiServer::ReportStatus(const cJSON* body) const {
  const auto ids = ReadTasksToList(body);
  if (!ids) return {.failed = true, .document = nullptr};
  Answer answer;
  answer.document.reset(cJSON_CreateObject());
  cJSON* tasks = cJSON_AddArrayToObject(answer.document.get(), "tasks");
  for (const std::int32_t id : *ids) {
    const auto found = subjects_.tasks.find(id);
    if (found == subjects_.tasks.end()) continue;
    cJSON* status = cJSON_CreateObject();
    cJSON_AddNumberToObject(status, "sla-id", found->first);
    cJSON_AddBoolToObject(status, "status", found->second.schedule ? 1 : 0);
    cJSON_AddItemToArray(tasks, status);
  }
  return answer;
}

void ApiServer::SendJson(const ApiHeader& request, const cJSON* document) {
  LOG_DEBUG(0, "SenderAPI response JSON:\n%s", TextOrEmpty(JsonText(cJSON_Print(document))));
  const JsonText text(cJSON_PrintUnformatted(document));
  if (TakeJsonMemoryFailure()) throw std::bad_alloc();
  for (const ApiBytes& datagram : BuildJsonReply(request, TextOrEmpty(text))) {
    SleepUntil(SteadyNow() + kFragmentPause);
    boost::system::error_code error;
    channel_->socket.send_to(boost::asio::buffer(datagram), channel_->requester, 0, error);
    if (error) {
      LOG_DEBUG(0, "sendto() failed: %s", error.message().c_str());
      return;
    }
  }
}

void ApiServer::SendHeader(const ApiHeader& request, std::uint16_t result) {
  try {
    channel_->socket.send_to(boost::asio::buffer(BuildHeaderReply(request, result)),
                             channel_->requester);
  } catch (const std::exception& exception) {
    // A requester that cannot be answered (its source port is 0, for example, or no memory is left)
    // is no reason to stop measuring.
    LOG_DEBUG(0, "Catch exception %s", exception.what());
  }
}

}  // namespace ipsla
