// For the child process of an EXPECT_EXIT: what cannot be done in the test program itself (exiting,
// becoming another user, crashing, changing the environment) is checked there, and the verdict is
// its exit status.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_CHILD_PROCESS_H_
#define IPSLA_TESTS_UNIT_SUPPORT_CHILD_PROCESS_H_

#include <cstdio>
#include <cstdlib>
#include <string>

namespace ipsla::test {

/// Ends the child: status 0 when there is no fault, else the fault on standard error and status 1.
[[noreturn]] inline void FinishChild(const std::string& fault) {
  if (!fault.empty()) std::fprintf(stderr, "%s\n", fault.c_str());
  std::exit(fault.empty() ? 0 : 1);
}

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_CHILD_PROCESS_H_
