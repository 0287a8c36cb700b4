#include "api/receive_outcome.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace ipsla {
namespace {

TEST(ReceiveOutcomeTest, EveryCompletionHasItsOutcome) {
  struct Case {
    int error;
    std::size_t bytes;
    ReceiveOutcome outcome;
  };
  const Case cases[] = {
      {0, 1, ReceiveOutcome::kData},
      {0, 0, ReceiveOutcome::kAgain},
      {ECANCELED, 0, ReceiveOutcome::kEnd},
      {ENOBUFS, 0, ReceiveOutcome::kLost},
      {ECONNREFUSED, 0, ReceiveOutcome::kAgain},
      {EHOSTUNREACH, 0, ReceiveOutcome::kAgain},
      {ENOMEM, 0, ReceiveOutcome::kAgain},
      {EBADF, 0, ReceiveOutcome::kEnd},
      {ENOTSOCK, 0, ReceiveOutcome::kEnd},
      {EINVAL, 0, ReceiveOutcome::kEnd},
      {EFAULT, 0, ReceiveOutcome::kEnd},
      {EOPNOTSUPP, 0, ReceiveOutcome::kEnd},
  };
  for (const auto& [error, bytes, outcome] : cases) {
    const boost::system::error_code code(error, boost::system::system_category());
    EXPECT_EQ(ClassifyReceive(code, bytes), outcome) << code.message();
  }
}

}  // namespace
}  // namespace ipsla
