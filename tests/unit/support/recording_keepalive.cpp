#include "support/recording_keepalive.h"

#include <mutex>
#include <utility>

#include "platform/keepalive.h"

namespace {

std::mutex mutex;
std::vector<ipsla::test::KeepAliveCall> calls;  // guarded by mutex

void Record(ipsla::test::KeepAliveCall call) {
  const std::lock_guard lock(mutex);
  calls.push_back(std::move(call));
}

}  // namespace

extern "C" void send_signal_live(int first, int second) {
  Record({"send_signal_live", {first, second}, {}});
}

extern "C" void set_timeout(void* state) {
  Record({"set_timeout", {}, {state}});
}

extern "C" void send_and_shift_timeout(void* state, void* record, int value) {
  Record({"send_and_shift_timeout", {value}, {state, record}});
}

namespace ipsla::test {

std::vector<KeepAliveCall> TakeKeepAliveCalls() {
  const std::lock_guard lock(mutex);
  return std::exchange(calls, {});
}

}  // namespace ipsla::test
