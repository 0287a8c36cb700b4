// Follows the interfaces and addresses of every VRF in use: one routing netlink socket per VRF.

#ifndef IPSLA_API_NETLINK_WATCHER_H_
#define IPSLA_API_NETLINK_WATCHER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/error_code.hpp>

#include "api/netlink_message.h"
#include "api/nl_protocol.h"
#include "sender/interface_table.h"

namespace ipsla {

/// Who is told of changes; the operations are those of Sender. Called on the service thread,
/// without any lock held and after the interface table was brought up to date.
class InterfaceObserver {
 public:
  InterfaceObserver() = default;
  virtual ~InterfaceObserver() = default;
  InterfaceObserver(const InterfaceObserver&) = delete;
  InterfaceObserver& operator=(const InterfaceObserver&) = delete;

  virtual void UpdateLocalAddress(const std::string& vrf_key, std::uint32_t if_index,
                                  std::uint32_t new_address, std::uint32_t old_address) = 0;
  virtual void SetInterfaceIndex(const std::string& vrf_key, std::uint32_t if_index,
                                 const std::optional<std::string>& if_name) = 0;
};

/// The netlink sockets of all VRFs in use and what is done with their messages.
///
/// Threads: the thread that runs the service context, or any one thread while none does. Lifetime:
/// a handler that is still queued when its VRF is released, or when the watcher ends, finds its
/// socket closed and does nothing.
class NetlinkWatcher {
 public:
  NetlinkWatcher(boost::asio::io_context& service, std::shared_ptr<InterfaceTable> table,
                 InterfaceObserver& observer);
  ~NetlinkWatcher();
  NetlinkWatcher(const NetlinkWatcher&) = delete;
  NetlinkWatcher& operator=(const NetlinkWatcher&) = delete;

  /// Begins to watch a VRF (empty: the daemon's own namespace) and enters its addresses into the
  /// table; does nothing when it is watched already. Throws std::runtime_error
  /// "CreateNetlinkSocketInVrf failed" after logging the reason; nothing of the VRF is then left
  /// behind.
  void CreateNetlinkSocketInVrf(const std::string& vrf);

  /// Ends the watch: closes the VRF's socket and drops its addresses, which nobody would keep up to
  /// date any more.
  void Release(const std::string& vrf);

  /// Releases every VRF.
  void Close();

  /// Descriptor of the VRF's socket, or -1 when it is not watched.
  [[nodiscard]] int NativeHandle(const std::string& vrf);

 private:
  struct Watch;
  using WatchPtr = std::shared_ptr<Watch>;

  void Open(const WatchPtr& watch, const std::string& vrf);
  void Receive(const WatchPtr& watch);
  void NetlinkReceivePacket(const boost::system::error_code& error, std::size_t bytes,
                            const WatchPtr& watch);
  void Apply(const NetlinkMessage& message, const WatchPtr& watch);
  void SetAddresses(const NetlinkMessage& message, const std::string& vrf_key);
  void EraseAddresses(const NetlinkMessage& message, const std::string& vrf_key);
  void Resync(const WatchPtr& watch);
  void ResyncNow(const std::string& vrf_key);
  void TellAddress(const std::string& vrf_key, const boost::asio::ip::address& address,
                   std::int32_t index, bool added);

  boost::asio::io_context& service_;
  const std::shared_ptr<InterfaceTable> table_;
  InterfaceObserver& observer_;
  std::map<std::string, WatchPtr> watches_;  // by VRF key
};

}  // namespace ipsla

#endif  // IPSLA_API_NETLINK_WATCHER_H_
