// The daemon's replies as the tools read them: a series of datagrams, each behind two bytes of its
// length; the first byte of all says which command they answer.

#include <algorithm>

#include "client/reply_assembler.h"
#include "client/task_results.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla;
  using namespace ipsla::client;
  using Outcome = ReplyAssembler::Outcome;
  if (size == 0) return 0;
  const auto command = static_cast<std::uint16_t>(data[0] % 3);
  ReplyAssembler assembler({1, 2, 3, 4, 5, 6, 7, 8}, command);
  for (std::size_t at = 1; at + 2 <= size;) {
    const std::size_t wanted = data[at] * std::size_t{256} + data[at + 1];
    at += 2;
    const auto datagram = fuzz::Exactly(data + at, std::min(wanted, size - at));
    at += datagram.size();
    const Outcome outcome = assembler.Add(datagram);
    if (outcome == Outcome::kMalformed) {
      fuzz::Require(!assembler.Fault().empty(), "a malformed reply has a fault");
      return 0;
    }
    if (outcome != Outcome::kComplete) continue;
    const std::string text = assembler.Text();
    fuzz::Require(assembler.Missing().empty(), "a complete reply lacks nothing");
    StatisticsMap statistics;
    static_cast<void>(ReadStatistics(text, &statistics));
    for (const auto& [id, task] : statistics) {
      fuzz::Require(id == task.id, "each task stands under its own id");
    }
    StatusMap statuses;
    static_cast<void>(ReadStatuses(text, &statuses));
    return 0;
  }
  return 0;
}
