// Requests to the exporter as far as they matter: target, Accept and If-None-Match, a line each.

#include <string>

#include "exporter/routes.h"
#include "fuzz_target.h"

namespace {

std::string TakeLine(std::string* text) {
  const std::size_t end = text->find('\n');
  std::string line = text->substr(0, end);
  text->erase(0, end == std::string::npos ? end : end + 1);
  return line;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla::exporter;
  using ipsla::fuzz::Require;
  std::string text(data, data + size);
  WebRequest request;
  request.target = "/" + TakeLine(&text);
  request.accept = TakeLine(&text);
  request.if_none_match = TakeLine(&text);
  static_cast<void>(FormatFor(request.accept));
  const auto number = QueryNumber(request.target, "task");
  Require(!number || (*number >= 0 && *number <= std::int64_t{1} << 53),
          "a number is in its range");
  // What asks the daemon is left out: there is none here.
  if (!request.target.starts_with("/api/history") &&
      (request.target.starts_with("/metrics") || request.target.starts_with("/api/"))) {
    return 0;
  }
  static Collector& collector = *new Collector({.api_port = 1, .tasks_file = ""});
  int answers = 0;
  Routes(&collector).Answer(request, [&answers](const WebReply& reply) {
    ++answers;
    Require(reply.status >= 200 && reply.status < 600, "an answer has a status");
    Require(!reply.type.empty(), "an answer has a type");
  });
  Require(answers == 1, "each request has one answer");
  return 0;
}
