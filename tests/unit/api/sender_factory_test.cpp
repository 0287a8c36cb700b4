#include "api/sender_factory.h"

#include <stdexcept>

#include <gtest/gtest.h>

#include "support/test_context.h"

namespace ipsla {
namespace {

TEST(SenderFactory, MakesATestOfEveryType) {
  test::TestContext context;
  for (int type = 1; type <= 5; ++type) {
    const auto made = CreateSender(
        context.worker,
        test::LoopbackTask(static_cast<std::uint16_t>(type), static_cast<SlaTestType>(type)),
        context.Shared());
    EXPECT_EQ(made->GetId(), type);
    EXPECT_EQ(made->GetType(), static_cast<SlaTestType>(type));
  }
}

TEST(SenderFactory, OtherTypesAreRaised) {
  test::TestContext context;
  for (const int type : {-1, 0, 6}) {
    try {
      const auto made = CreateSender(
          context.worker, test::LoopbackTask(1, static_cast<SlaTestType>(type)), context.Shared());
      FAIL() << "a test of type " << type;
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "Unknown sla sender type");
    }
  }
}

}  // namespace
}  // namespace ipsla
