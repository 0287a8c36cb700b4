// The addresses of every watched VRF, kept by the interface watcher and read by the tests.

#ifndef IPSLA_SENDER_INTERFACE_TABLE_H_
#define IPSLA_SENDER_INTERFACE_TABLE_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include <boost/asio/ip/address.hpp>

#include "log/mutex.h"

namespace ipsla {

/// The interface that holds an address.
struct InterfaceRecord {
  std::int32_t flags = 0;  ///< interface flags (netdevice(7)); 0x40 is IFF_RUNNING
  std::int32_t index = 0;
  std::string name;

  bool operator==(const InterfaceRecord&) const = default;
};

/// (IP address, VRF key) to interface. The VRF key is the VRF's name, "1" for the default one
/// (VrfKey). Threads: any; it has its own lock, which is never held over a call out of this class.
class InterfaceTable {
 public:
  /// Address and VRF key.
  using Key = std::pair<boost::asio::ip::address, std::string>;

  /// The interface that has the address; nothing when none is known to.
  [[nodiscard]] std::optional<InterfaceRecord> Find(const boost::asio::ip::address& address,
                                                    const std::string& vrf_key) const;

  /// Inserts or replaces.
  void Set(const boost::asio::ip::address& address, const std::string& vrf_key,
           InterfaceRecord record);

  /// Removes one address of one interface. No error, and nothing happens, when the address is
  /// unknown or is another interface's by now: one that moves may come before it goes.
  void Erase(const boost::asio::ip::address& address, const std::string& vrf_key,
             std::int32_t index);

  /// Sets the flags of every record of this VRF with that interface index.
  void SetFlags(const std::string& vrf_key, std::int32_t index, std::int32_t flags);

  /// Removes every record of this VRF with that interface index.
  void EraseInterface(const std::string& vrf_key, std::int32_t index);

  /// Removes every record of this VRF.
  void EraseVrf(const std::string& vrf_key);

  /// All records of one VRF, by address.
  [[nodiscard]] std::map<boost::asio::ip::address, InterfaceRecord> OfVrf(
      const std::string& vrf_key) const;

 private:
  // Held for one look-up or change.
  mutable Mutex mutex_;
  std::map<Key, InterfaceRecord> records_ IPSLA_GUARDED_BY(mutex_);
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_INTERFACE_TABLE_H_
