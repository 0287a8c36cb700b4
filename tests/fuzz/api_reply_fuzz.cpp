// The Sender API from the datagram to the reply, through its socket, in a network namespace of the
// target's own.

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <ctime>

#include "api/api_server.h"
#include "config/json_text.h"
#include "env/descriptor.h"
#include "env/time_values.h"
#include "fuzz_target.h"
#include "unit/support/api_client.h"

namespace {

using namespace ipsla;
using Datagram = std::vector<std::uint8_t>;

void EnterPrivateNetwork() {
  const bool entered = unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
  fuzz::Require(entered, "a network namespace can be made");
  const Descriptor fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  request.ifr_name[0] = 'l';
  request.ifr_name[1] = 'o';
  request.ifr_flags = IFF_UP;
  fuzz::Require(ioctl(fd.Get(), SIOCSIFFLAGS, &request) == 0, "the loopback interface comes up");
}

// A clock on which every pause is over before it begins.
SteadyTime HastySteadyTime() {
  static std::chrono::microseconds passed{0};
  return SteadyTime(passed += std::chrono::milliseconds(1));
}

// Not RealTimeNow(): that asks the clocks in use.
timespec SystemRealTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

constexpr Clocks kHasty{.real_time = SystemRealTime, .steady = HastySteadyTime};

SlaTaskMap SomeTasks() {
  SlaTaskMap tasks;
  for (const std::uint16_t id : std::vector<std::uint16_t>{1, 2, 65535}) {
    tasks[id].sla_id = id;
    tasks[id].schedule = id != 2;
    tasks[id].sla_type = id == 1 ? SlaTestType::kUdpJitter : SlaTestType::kIcmpEcho;
  }
  return tasks;
}

// Lives as long as the process.
struct Daemon {
  Daemon() {
    statistics.tasks[1].successful_count = 4;
    statistics.tasks[65535].failed_count = 1;
    UseClocks(nullptr);
    server.Open();
    UseClocks(&kHasty);
  }

  test::ApiClient client;
  SlaTaskMap tasks = SomeTasks();
  StatisticsStore statistics;
  ApiServer server{client.service,
                   {.tasks = tasks,
                    .statistics = statistics,
                    .reload_tasks = [] { return true; },
                    .reload_keychain = [] { return false; }}};
};

void RequireRightReply(const Datagram& request, const Datagram& reply) {
  fuzz::Require(reply.size() >= kApiHeaderSize, "each request has an answer");
  const ApiHeader asked = DecodeApiHeader(request);
  const ApiHeader answered = DecodeApiHeader(reply);
  fuzz::Require(answered.prefix == asked.prefix && answered.command == asked.command,
                "the answer is to this request");
  if (asked.request_marker != kApiRequestMarker || asked.result != kApiSuccess) {
    fuzz::Require(answered.result == kApiFailure, "what is no request fails");
  }
  if (reply.size() == kApiHeaderSize) return;
  fuzz::Require(answered.result == kApiSuccess && asked.command <= 2, "only queries have a text");
  fuzz::Require((answered.flags & kApiMoreFragments) != 0 ||
                    ParseJson(ApiPayloadText(reply)).document != nullptr,
                "the text of a whole reply is JSON");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Daemon& daemon = *[] {
    EnterPrivateNetwork();
    return new Daemon;
  }();
  if (size == 0 || size > 60000) return 0;
  const auto request = fuzz::Exactly(data, size);
  RequireRightReply(request, daemon.client.Exchange(request));
  while (daemon.client.TakeReply()) {
  }
  return 0;
}
