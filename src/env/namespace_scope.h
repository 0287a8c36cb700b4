// A thread inside a VRF, for a while.

#ifndef IPSLA_ENV_NAMESPACE_SCOPE_H_
#define IPSLA_ENV_NAMESPACE_SCOPE_H_

#include <string>

#include "env/descriptor.h"

namespace ipsla {

/// Runs the rest of a block in the VRF `name`; an empty name means the daemon's own namespace and
/// does nothing.
///
/// Leave() returns to the namespace registered as "1". When that fails the thread returns through a
/// descriptor of the namespace it came from, so it is back in any case, and Leave() throws what
/// SetNetworkNamespace threw. A scope that ends without Leave() (an exception on the way) returns
/// in the same manner but silently. Threads: affects the calling thread only; create and end it on
/// one thread.
class NetworkNamespaceScope {
 public:
  /// Enters. Throws std::runtime_error and leaves the thread where it was.
  explicit NetworkNamespaceScope(const std::string& name);
  ~NetworkNamespaceScope();
  NetworkNamespaceScope(const NetworkNamespaceScope&) = delete;
  NetworkNamespaceScope& operator=(const NetworkNamespaceScope&) = delete;

  /// Returns now; a second call does nothing.
  void Leave();

 private:
  Descriptor origin_;  // the namespace the thread came from; none: nothing to leave
};

}  // namespace ipsla

#endif  // IPSLA_ENV_NAMESPACE_SCOPE_H_
