// The Sender API of ApiSender: requests and their answers.

#include <cstdlib>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/system/system_error.hpp>
#include <cjson/cJSON.h>

#include "api/api_sender.h"
#include "api/receive_outcome.h"
#include "api/statistics_json.h"
#include "config/print_funcs.h"
#include "env/time_values.h"
#include "log/log.h"

namespace ipsla {
namespace {

// Lets the requester keep up with the fragments of a long reply.
constexpr std::int64_t kFragmentPauseNanoseconds = 10'000'000;

const char* TextOrEmpty(const JsonText& text) {
  return text ? text.get() : "";
}

std::optional<std::set<std::string>> RequestedGroups(const cJSON* object) {
  auto groups = ReadMetricGroups(cJSON_GetObjectItem(object, "metrics"));
  if (!groups) LOG_DEBUG(0, "cJSON_IsArray() failed: invalid requested metrics");
  return groups;
}

// {"tasks": [{"sla-id": number, "metrics": [...]}, ...]}. Deliberately lenient: whatever integer an
// "sla-id" holds is taken as it is, an element without one is skipped, and an id asked for twice
// keeps its first groups.
std::optional<StatisticsRequest> ReadTasksToReport(const cJSON* body) {
  const cJSON* tasks = cJSON_GetObjectItem(body, "tasks");
  if (cJSON_IsArray(tasks) == 0) {
    LOG_DEBUG(0, "cJSON_IsArray() failed: invalid sla task object");
    return std::nullopt;
  }
  StatisticsRequest request;
  for (const cJSON* element = tasks->child; element != nullptr; element = element->next) {
    const cJSON* id = cJSON_GetObjectItem(element, "sla-id");
    if (id == nullptr) continue;
    auto groups = RequestedGroups(element);
    if (!groups) return std::nullopt;
    request.emplace(id->valueint, std::move(*groups));
  }
  return request;
}

// {"metrics": [...]}, for every scheduled task.
std::optional<StatisticsRequest> ReadGroupsToReport(const cJSON* body, const SlaTaskMap& tasks) {
  const auto groups = RequestedGroups(body);
  if (!groups) return std::nullopt;
  StatisticsRequest request;
  for (const auto& [id, task] : tasks) {
    if (task.schedule) request.emplace(id, *groups);
  }
  return request;
}

}  // namespace

void ApiSender::ReceivePacket(const boost::system::error_code& error, std::size_t bytes) {
  switch (ClassifyReceive(error, bytes)) {
    case ReceiveOutcome::kEnd:
      if (error != boost::asio::error::operation_aborted) {
        LOG_DEBUG(0, "Catch exception %s", error.message().c_str());
      }
      return;
    case ReceiveOutcome::kData:
      HandleRequest(bytes);
      break;
    case ReceiveOutcome::kAgain:
    case ReceiveOutcome::kLost:
      break;
  }
  ArmReceive();
}

void ApiSender::HandleRequest(std::size_t bytes) {
  const auto received = std::span<const std::uint8_t>(channel_->buffer).first(bytes);
  const ApiHeader request = DecodeApiHeader(received);
  if (request.request_marker != kApiRequestMarker || request.result != kApiSuccess) {
    SendHeader(request, kApiFailure);
    return;
  }
  LOG_DEBUG(0, "Recive commad %s", ApiCommandName(request.command));
  const Answer answer = Execute(request.command, ApiPayloadText(received));
  if (answer.failed) {
    SendHeader(request, kApiFailure);
  } else if (answer.document) {
    SendJson(request, answer.document.get());
  } else {
    SendHeader(request, kApiSuccess);
  }
}

ApiSender::Answer ApiSender::Execute(std::uint16_t command, std::string_view text) {
  switch (const auto known = static_cast<ApiCommand>(command)) {
    case ApiCommand::kGetTaskStatistics:
    case ApiCommand::kGetAllActiveTaskStatistics:
    case ApiCommand::kGetTaskStatus:
      return AnswerQuery(known, text);
    case ApiCommand::kParseTasksConfig:
      return ReloadTasks();
    case ApiCommand::kParseKeychainConfig:
      return ReloadKeychain();
  }
  return {};  // an unknown command is answered as done, deliberately
}

ApiSender::Answer ApiSender::AnswerQuery(ApiCommand command, std::string_view text) {
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
      return ReportStatistics(ReadGroupsToReport(body, tasks_));
    default:
      return ReportStatus(body);
  }
}

ApiSender::Answer ApiSender::ReportStatistics(const std::optional<StatisticsRequest>& request) {
  Answer answer;
  answer.failed = true;
  if (!request) return answer;
  answer.document.reset(cJSON_CreateObject());
  if (SerializeTasksMetrics(answer.document.get(), *request, tasks_, *statistics_) != 0) {
    LOG_DEBUG(0, "SerializeTasksMetrics() failed");
    return answer;
  }
  answer.failed = false;
  return answer;
}

ApiSender::Answer ApiSender::ReportStatus(const cJSON* body) const {
  const cJSON* wanted = cJSON_GetObjectItem(body, "tasks");
  if (cJSON_IsArray(wanted) == 0) {
    LOG_DEBUG(0, "cJSON_IsArray() failed: invalid requested tasks");
    return {.failed = true, .document = nullptr};
  }
  Answer answer;
  answer.document.reset(cJSON_CreateObject());
  cJSON* tasks = cJSON_AddArrayToObject(answer.document.get(), "tasks");
  for (const cJSON* element = wanted->child; element != nullptr; element = element->next) {
    const auto found = tasks_.find(element->valueint);
    if (found == tasks_.end()) continue;
    cJSON* status = cJSON_CreateObject();
    cJSON_AddNumberToObject(status, "sla-id", found->first);
    cJSON_AddBoolToObject(status, "status", found->second.schedule ? 1 : 0);
    cJSON_AddItemToArray(tasks, status);
  }
  return answer;
}

ApiSender::Answer ApiSender::ReloadTasks() {
  SlaTaskMap new_tasks;
  if (ReadTasksFile(&new_tasks) != 0) return {.failed = true, .document = nullptr};
  StartMainLoop();
  if (UpdateTaskConfigs(new_tasks) != 0) {
    LOG_DEBUG(0, "UpdateTaskConfigs() failen");
    return {.failed = true, .document = nullptr};
  }
  PrintTaskConfigs(tasks_, *keys_->Snapshot());
  return {};
}

ApiSender::Answer ApiSender::ReloadKeychain() {
  KeychainStorage keys;
  if (ParseKeychainConfig(keychain_file_, &keys) != 0) {
    LOG_DEBUG(0, "ParseKeychainConfigs() failed");
    ExitDaemon(EXIT_FAILURE);
  }
  keys_->Replace(std::move(keys));
  PrintKeychain(*keys_->Snapshot());
  return {};
}

void ApiSender::SendJson(const ApiHeader& request, const cJSON* document) {
  LOG_DEBUG(0, "SenderAPI response JSON:\n%s", TextOrEmpty(JsonText(cJSON_Print(document))));
  const JsonText text(cJSON_PrintUnformatted(document));
  for (const ApiBytes& datagram : BuildJsonReply(request, TextOrEmpty(text))) {
    SleepUntil(SteadyNanoseconds() + kFragmentPauseNanoseconds);
    boost::system::error_code error;
    channel_->socket.send_to(boost::asio::buffer(datagram), channel_->requester, 0, error);
    if (error) {
      LOG_DEBUG(0, "sendto() failed: %s", error.message().c_str());
      return;
    }
  }
}

void ApiSender::SendHeader(const ApiHeader& request, std::uint16_t result) {
  try {
    channel_->socket.send_to(boost::asio::buffer(BuildHeaderReply(request, result)),
                             channel_->requester);
  } catch (const boost::system::system_error& exception) {
    // A requester that cannot be answered (its source port is 0, for example) is no reason to stop
    // measuring.
    LOG_DEBUG(0, "Catch exception %s", exception.what());
  }
}

}  // namespace ipsla
