// The calls of the watchdog library, recorded: the test program's own functions take the library's
// place.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_RECORDING_KEEPALIVE_H_
#define IPSLA_TESTS_UNIT_SUPPORT_RECORDING_KEEPALIVE_H_

#include <string>
#include <vector>

namespace ipsla::test {

struct KeepAliveCall {
  std::string name;
  std::vector<int> numbers;    ///< the arguments that are numbers
  std::vector<void*> records;  ///< the arguments that are records
};

/// The calls since the last one of this function. Any thread.
std::vector<KeepAliveCall> TakeKeepAliveCalls();

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_RECORDING_KEEPALIVE_H_
