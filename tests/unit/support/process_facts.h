// What the kernel tells of the test program itself.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_PROCESS_FACTS_H_
#define IPSLA_TESTS_UNIT_SUPPORT_PROCESS_FACTS_H_

#include <sys/types.h>

#include <cstddef>
#include <set>
#include <string>

namespace ipsla::test {

/// Descriptors that are open.
[[nodiscard]] std::size_t OpenDescriptors();

/// Threads whose allowed CPUs are exactly this list, without those that have ended.
[[nodiscard]] std::size_t ThreadsOn(const std::string& cpus);

/// The descriptor of this inode, or -1.
[[nodiscard]] int DescriptorOf(ino_t inode);

/// This process's routing netlink sockets in the VRF (empty: the namespace of the calling thread),
/// by their inodes.
[[nodiscard]] std::set<ino_t> RoutingSocketsIn(const std::string& vrf);

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_PROCESS_FACTS_H_
