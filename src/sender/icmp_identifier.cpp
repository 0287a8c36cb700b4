#include "sender/icmp_identifier.h"

#include <bitset>
#include <cstddef>
#include <cstdlib>

#include "log/mutex.h"

namespace ipsla {
namespace {

constexpr std::size_t kIdentifiers = 65536;

struct Registry {
  Mutex mutex;
  std::bitset<kIdentifiers> used IPSLA_GUARDED_BY(mutex);
};

// Never destroyed: tests may still die while the process exits.
Registry& TheRegistry() {
  static auto& registry = *new Registry;
  return registry;
}

}  // namespace

IcmpIdentifier::IcmpIdentifier() {
  Registry& registry = TheRegistry();
  const MutexLock lock(registry.mutex);
  std::size_t candidate = static_cast<std::size_t>(std::rand()) % kIdentifiers;
  if (!registry.used.all()) {
    while (registry.used.test(candidate)) candidate = (candidate + 1) % kIdentifiers;
    registry.used.set(candidate);
    owned_ = true;
  }
  value_ = static_cast<std::uint16_t>(candidate);
}

IcmpIdentifier::~IcmpIdentifier() {
  if (!owned_) return;
  Registry& registry = TheRegistry();
  const MutexLock lock(registry.mutex);
  registry.used.reset(value_);
}

}  // namespace ipsla
