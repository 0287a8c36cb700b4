// GetIfaceData in the daemon's own namespace and in a VRF.

#include "env/interface_lookup.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/resource.h>

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/recording_syslog.h"
#include "support/vrf_fixture.h"

namespace ipsla::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kNoInterface = "GetIfaceData failed: invalid task config";

struct Lookup {
  InterfaceAddress interface;
  std::int32_t status = -1;
};

Lookup LookUpName(const std::string& vrf, const std::string& name) {
  Lookup lookup;
  lookup.interface = GetIfaceData(vrf, name, &lookup.status);
  return lookup;
}

std::string AddressOf(const InterfaceAddress& interface) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &interface.address.sin_addr, text, sizeof text);
  return text;
}

class GetIfaceDataTest : public testing::Test {
 protected:
  GetIfaceDataTest() {
    vrfs_.AddVrf("blue");
    vrfs_.AddLink("blue", {"near0", "10.9.0.1/24"}, {"far0", "10.9.0.2/24"});
    vrfs_.AddLink("blue", {"bare0", ""}, {"bare1", ""});
    FreshLogFile(0);
    TakeSyslog();
  }
  ~GetIfaceDataTest() override { EXPECT_EQ(CurrentNetworkNamespace(), own_); }

  VrfFixture vrfs_;
  const ino_t own_ = CurrentNetworkNamespace();
};

TEST_F(GetIfaceDataTest, FindsAnInterfaceOfTheOwnNamespace) {
  const Lookup lookup = LookUpName("", "near0");
  EXPECT_EQ(lookup.status, kInterfaceFound);
  EXPECT_EQ(lookup.interface.name, "near0");
  EXPECT_EQ(lookup.interface.index, if_nametoindex("near0"));
  EXPECT_NE(lookup.interface.index, 0U);
  EXPECT_EQ(lookup.interface.address.sin_family, AF_INET);
  EXPECT_EQ(AddressOf(lookup.interface), "10.9.0.1");
  EXPECT_THAT(TakeSyslogTexts(), IsEmpty());
}

TEST_F(GetIfaceDataTest, FindsAnInterfaceInAVrf) {
  const Lookup lookup = LookUpName("blue", "far0");
  unsigned index = 0;
  VrfFixture::RunInVrf("blue", [&] { index = if_nametoindex("far0"); });
  EXPECT_EQ(lookup.status, kInterfaceFound);
  EXPECT_EQ(lookup.interface.index, index);
  EXPECT_NE(index, 0U);
  EXPECT_EQ(AddressOf(lookup.interface), "10.9.0.2");
}

TEST_F(GetIfaceDataTest, AcceptsAnUnknownInterfaceWithoutIndexAndAddress) {
  for (const char* vrf : {"", "blue"}) {
    const Lookup lookup = LookUpName(vrf, "eth77");
    EXPECT_EQ(lookup.status, kInterfaceFound);
    EXPECT_EQ(lookup.interface.index, 0U);
    EXPECT_EQ(lookup.interface.name, "eth77");
    EXPECT_EQ(lookup.interface.address.sin_family, 0);
    EXPECT_EQ(AddressOf(lookup.interface), "0.0.0.0");
  }
  EXPECT_THAT(TakeSyslogTexts(), IsEmpty());
}

TEST_F(GetIfaceDataTest, GivesAZeroAddressForAnInterfaceWithoutOne) {
  const Lookup lookup = LookUpName("", "bare0");
  EXPECT_EQ(lookup.status, kInterfaceFound);
  EXPECT_EQ(lookup.interface.index, if_nametoindex("bare0"));
  EXPECT_EQ(AddressOf(lookup.interface), "0.0.0.0");
}

TEST_F(GetIfaceDataTest, KeepsANameThatIsTooLong) {
  const std::string name = "an-interface-name-of-thirty-two-";
  const Lookup lookup = LookUpName("", name);
  EXPECT_EQ(lookup.status, kInterfaceFound);
  EXPECT_EQ(lookup.interface.name, name);
  EXPECT_EQ(lookup.interface.index, 0U);
}

TEST_F(GetIfaceDataTest, RefusesAPhaseThatNamesNoInterface) {
  const Lookup lookup = LookUpName("", "");
  EXPECT_EQ(lookup.status, kInterfaceNotConfigured);
  EXPECT_EQ(lookup.interface.index, 0U);
  EXPECT_EQ(lookup.interface.name, "");
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre(kNoInterface));
  EXPECT_EQ(ReadLogFile(0).size(), 1U);
}

TEST_F(GetIfaceDataTest, ReportsAnUnknownVrfAndLooksUpOutside) {
  const Lookup lookup = LookUpName("red", "near0");
  EXPECT_EQ(lookup.status, kInterfaceEnvironmentFailed);
  EXPECT_EQ(lookup.interface.index, if_nametoindex("near0"));
  EXPECT_THAT(TakeSyslogTexts(),
              ElementsAre("Catch exception SetNetworkNamespaceredfailed: open() failed: %m"));
}

TEST_F(GetIfaceDataTest, ReportsThatTheOwnNamespaceIsNotRegistered) {
  vrfs_.Unregister("1");
  const Lookup lookup = LookUpName("blue", "far0");
  EXPECT_EQ(lookup.status, kInterfaceEnvironmentFailed);
  EXPECT_EQ(AddressOf(lookup.interface), "10.9.0.2");
  EXPECT_THAT(TakeSyslogTexts(),
              ElementsAre("Catch exception SetNetworkNamespace1failed: open() failed: %m"));
}

TEST_F(GetIfaceDataTest, ReportsEachFailedSwitch) {
  vrfs_.Unregister("1");
  EXPECT_EQ(LookUpName("red", "near0").status, kInterfaceEnvironmentFailed);
  EXPECT_THAT(TakeSyslogTexts(),
              ElementsAre("Catch exception SetNetworkNamespaceredfailed: open() failed: %m",
                          "Catch exception SetNetworkNamespace1failed: open() failed: %m"));
}

TEST_F(GetIfaceDataTest, ReportsThatThereIsNoSocketToAskThrough) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const Lookup lookup = LookUpName("", "near0");
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(lookup.status, kInterfaceEnvironmentFailed);
  EXPECT_EQ(lookup.interface.index, 0U);
  EXPECT_EQ(lookup.interface.name, "near0");
  EXPECT_THAT(TakeSyslogTexts(), ElementsAre("socket failed: Too many open files"));
}

}  // namespace
}  // namespace ipsla::test
