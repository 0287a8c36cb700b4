#include <gtest/gtest.h>

#include "ctl/host_view.h"

namespace ipsla::ctl {
namespace {

TEST(SystemHost, TellsWhichCpusThereAre) {
  SystemHost host;
  EXPECT_FALSE(host.HasCpu(255));
  bool has_any = false;
  for (std::uint8_t cpu = 0; cpu < 255; ++cpu) {
    has_any = has_any || host.HasCpu(cpu);
  }
  EXPECT_TRUE(has_any);
}

TEST(SystemHost, SaysWhyAVrfCannotBeEntered) {
  SystemHost host;
  EXPECT_EQ(host.VrfFault("no-such-vrf"), "/var/run/netns/no-such-vrf: No such file or directory");
  EXPECT_EQ(host.Interfaces("no-such-vrf").fault,
            "/var/run/netns/no-such-vrf: No such file or directory");
  EXPECT_FALSE(host.Interfaces("no-such-vrf").found.has_value());
}

TEST(SystemHost, ListsTheInterfacesOfItsOwnNamespace) {
  SystemHost host;
  const HostInterfaces& own = host.Interfaces("");
  ASSERT_TRUE(own.found.has_value()) << own.fault;
  EXPECT_EQ(&host.Interfaces(""), &own) << "looked at once";
}

}  // namespace
}  // namespace ipsla::ctl
