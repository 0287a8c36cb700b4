// VRFs for tests: named network namespaces below /run/netns, joined to the test program's own by
// veth pairs.
//
//   VrfFixture vrfs;                                       // the program's own namespace is
//   registered as "1" vrfs.AddVrf("blue"); vrfs.AddLink("blue", {"near0", "10.9.0.1/24"}, {"far0",
//   "10.9.0.2/24"}); vrfs.RunInVrf("blue", [] { ... });                     // a responder, for
//   instance
//
// Everything is undone at the end. The test program already has private mount and network
// namespaces (see main.cpp). Any failure throws std::runtime_error.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_VRF_FIXTURE_H_
#define IPSLA_TESTS_UNIT_SUPPORT_VRF_FIXTURE_H_

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace ipsla::test {

/// The network namespace of the calling thread, to be compared with another.
[[nodiscard]] ino_t CurrentNetworkNamespace();

/// Runs ip(8) with these arguments and throws when it fails.
void RunIp(const std::vector<std::string>& arguments);

class VrfFixture {
 public:
  /// One end of a veth pair. An empty address (with prefix length) leaves the interface without
  /// one.
  struct Interface {
    std::string name;
    std::string address;
  };

  /// Registers the namespace of the calling thread as "1".
  VrfFixture();
  /// Removes the links and the registered names. The namespaces go when their last socket does.
  ~VrfFixture();
  VrfFixture(const VrfFixture&) = delete;
  VrfFixture& operator=(const VrfFixture&) = delete;

  /// Creates the namespace `name`, its loopback interface up.
  void AddVrf(const std::string& name);

  /// Joins the own namespace (`near`) and `vrf` (`far`) by a veth pair, both ends up.
  void AddLink(const std::string& vrf, const Interface& near, const Interface& far);

  /// Runs `body` on a thread of its own inside `vrf` and waits for it. What it throws is thrown
  /// here.
  static void RunInVrf(const std::string& vrf, const std::function<void()>& body);

  /// Takes one name out of /run/netns, "1" for example; the namespace itself stays as long as it is
  /// used.
  void Unregister(const std::string& name);

 private:
  void Register(const std::string& name);

  std::vector<std::string> names_;       // registered by this fixture
  std::vector<std::string> interfaces_;  // near ends of the links
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_VRF_FIXTURE_H_
