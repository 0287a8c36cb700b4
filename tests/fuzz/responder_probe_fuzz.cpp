// Probes to the responder: one session's datagrams, with copies of its request between them. The
// first byte is the session's type; then comes a length for each datagram and as many bytes, 255
// standing for a copy of the request.

#include <algorithm>

#include "fuzz_target.h"
#include "responder/session.h"
#include "udp/probe_message.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace ipsla;
  using namespace ipsla::responder;
  using fuzz::Require;
  if (size == 0) return 0;
  Session session;
  session.type = static_cast<SlaTestType>(1 + data[0] % 3);
  std::uint64_t answered = 0;
  for (std::size_t at = 1; at < size;) {
    const std::size_t wanted = data[at++];
    if (wanted == 255) {
      ExpectRestart(&session);
      continue;
    }
    auto probe = fuzz::Exactly(data + at, std::min(wanted, size - at));
    at += probe.size();
    const auto before = probe;
    const bool is_answered = AnswerProbe(&session, {.tv_sec = 1, .tv_nsec = 2}, probe);
    Require(probe.size() == before.size(), "a reply is as long as its probe");
    Require(is_answered || probe == before, "what is not answered is left alone");
    if (is_answered) {
      ++answered;
      CountReply(&session, true);
      const std::uint64_t counter = DecodeReply(probe).counter;
      Require(probe.size() < 28 || (counter >= 1 && counter <= answered),
              "the counter counts probes of the session");
    }
    const SessionStatistics& statistics = session.run.statistics;
    Require(statistics.distinct + statistics.duplicates == statistics.received,
            "every probe is new or a duplicate");
    static_cast<void>(StatisticsLine(session, statistics, "ended"));
    session.previous_run.reset();
  }
  return 0;
}
