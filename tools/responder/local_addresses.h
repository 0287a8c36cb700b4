// The IPv4 addresses of this host, kept in memory: asking the kernel for them takes as long as
// answering a dozen probes, and each request needs them.

#ifndef IPSLA_TOOLS_RESPONDER_LOCAL_ADDRESSES_H_
#define IPSLA_TOOLS_RESPONDER_LOCAL_ADDRESSES_H_

#include <netinet/in.h>

#include <cstdint>
#include <set>

#include "env/descriptor.h"

namespace ipsla::responder {

/// Belongs to the network namespace in which it was made. Single-threaded.
class LocalAddresses {
 public:
  /// Asks the kernel to tell of changes. Without that (no netlink) the list is read anew when it is
  /// a second old.
  LocalAddresses();

  /// True when an interface of this host has the address (all of 127.0.0.0/8 where there is a
  /// loopback address). Reads the list if it changed; when that fails, every address may be ours:
  /// to bind a socket to it will tell. `now`: the steady clock.
  [[nodiscard]] bool Contains(in_addr address, std::int64_t now);

  /// Becomes readable when addresses change; -1 without netlink.
  [[nodiscard]] int Fd() const { return changes_.Get(); }

  /// Takes what Fd() has to tell.
  void NoteChanges();

  /// How often the list was read, for tests.
  [[nodiscard]] std::uint64_t Reads() const { return reads_; }

 private:
  // Asks the kernel for all addresses.
  void Read();

  // A netlink socket that tells when to read again.
  Descriptor changes_;
  bool fresh_ = false;
  std::int64_t read_at_ = 0;
  std::uint64_t reads_ = 0;
  std::set<std::uint32_t> addresses_;  // host order
  // There is a loopback address: all of 127.0.0.0/8 is ours.
  bool loopback_ = false;
};

}  // namespace ipsla::responder

#endif  // IPSLA_TOOLS_RESPONDER_LOCAL_ADDRESSES_H_
