#include "client/request_texts.h"

#include <string_view>

#include "api/sender_api_message.h"

namespace ipsla::client {
namespace {

/// What is left for the text beside the header and the NUL.
constexpr std::size_t kMaxText = kApiMaxSlice - 1;
constexpr std::string_view kOpen = R"({"tasks":[)";
constexpr std::string_view kClose = "]}";

/// Lists of elements, as few as can hold them all.
class TaskLists {
 public:
  void Add(const std::string& element) {
    if (texts_.empty() || texts_.back().size() + 1 + element.size() + kClose.size() > kMaxText) {
      Close();
      texts_.emplace_back(kOpen);
    } else {
      texts_.back() += ',';
    }
    texts_.back() += element;
  }

  std::vector<std::string> Take() {
    Close();
    return std::move(texts_);
  }

 private:
  void Close() {
    if (!texts_.empty()) {
      texts_.back() += kClose;
    }
  }

  std::vector<std::string> texts_;
};

std::string GroupArray(const std::set<std::string>& groups) {
  std::string text = "[";
  for (const std::string& group : groups) {
    text += (text.size() > 1 ? ",\"" : "\"") + group + '"';
  }
  return text + ']';
}

}  // namespace

std::vector<std::string> StatisticsRequests(const StatisticsRequest& request) {
  TaskLists lists;
  for (const auto& [id, groups] : request) {
    lists.Add(R"({"sla-id":)" + std::to_string(id) + R"(,"metrics":)" + GroupArray(groups) + '}');
  }
  return lists.Take();
}

std::vector<std::string> StatisticsRequests(const std::set<std::int32_t>& ids,
                                            const std::set<std::string>& groups) {
  StatisticsRequest request;
  for (const std::int32_t id : ids) {
    request.emplace_hint(request.end(), id, groups);
  }
  return StatisticsRequests(request);
}

std::string ActiveStatisticsRequest(const std::set<std::string>& groups) {
  return R"({"metrics":)" + GroupArray(groups) + '}';
}

std::vector<std::string> StatusRequests(const std::set<std::int32_t>& ids) {
  TaskLists lists;
  for (const std::int32_t id : ids) {
    lists.Add(std::to_string(id));
  }
  return lists.Take();
}

}  // namespace ipsla::client
