#include "log/signal_stack.h"

#include <csignal>
#include <thread>

#include <gtest/gtest.h>

namespace ipsla::test {
namespace {

stack_t CurrentSignalStack() {
  stack_t current{};
  EXPECT_EQ(sigaltstack(nullptr, &current), 0);
  return current;
}

TEST(SignalStackTest, IsThereWhileItLivesAndLeavesAnExistingOneAlone) {
  std::thread([] {
    const stack_t before = CurrentSignalStack();
    {
      const log_internal::SignalStack first;
      const stack_t during = CurrentSignalStack();
      EXPECT_EQ(during.ss_flags & SS_DISABLE, 0);
      EXPECT_NE(during.ss_sp, nullptr);
      {
        const log_internal::SignalStack second;
        EXPECT_EQ(CurrentSignalStack().ss_sp, during.ss_sp);
      }
      EXPECT_EQ(CurrentSignalStack().ss_sp, during.ss_sp);
    }
    EXPECT_EQ(CurrentSignalStack().ss_flags, before.ss_flags);
  }).join();
}

}  // namespace
}  // namespace ipsla::test
