// Follows the interfaces and addresses of every VRF in use: one routing netlink socket per VRF.

#ifndef IPSLA_API_NETLINK_WATCHER_H_
#define IPSLA_API_NETLINK_WATCHER_H_

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/system/error_code.hpp>

#include "api/nl_protocol.h"
#include "api/vrf_interfaces.h"
#include "sender/interface_table.h"

namespace ipsla {

/// The netlink sockets of all VRFs in use and what is done with their messages.
///
/// A VRF's name can come to stand for another namespace (deleted and made again), of which no
/// message tells: every few seconds, and at each reload, the watcher looks what the names stand
/// for. A watch moves along with the name; while the name is gone there is none, so that the old
/// namespace, with its links, can end.
///
/// Threads: the thread that runs the service context, or any one thread while none does. Lifetime:
/// a handler that is still queued when its VRF is released, or when the watcher ends, does nothing.
class NetlinkWatcher {
 public:
  /// How often the names are looked at.
  static constexpr std::chrono::seconds kRound{2};

  /// Whether what this sender says counts.
  using Trust = bool (*)(const nl_protocol::endpoint& sender);

  /// Other privileged processes can send here as well, but not with the kernel's port, which is 0.
  [[nodiscard]] static bool IsFromKernel(const nl_protocol::endpoint& sender);

  /// Watches nothing yet. `service` and `observer` must outlive it. Messages of a sender that is
  /// not trusted are dropped.
  NetlinkWatcher(boost::asio::io_context& service, std::shared_ptr<InterfaceTable> table,
                 InterfaceObserver& observer, Trust is_trusted = &IsFromKernel);
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

  /// Looks now whether each VRF's name still stands for the namespace that is watched, and makes up
  /// for lost messages where that failed before.
  void CheckVrfs();

  /// Releases every VRF.
  void Close();

 private:
  struct Watch;
  // Held by the map of watches and by a pending read.
  using WatchPtr = std::shared_ptr<Watch>;

  // Opens the socket inside the VRF and lists what is there. Throws.
  [[nodiscard]] static InterfaceListing Open(Watch& watch, const std::string& vrf_key);
  void Receive(const WatchPtr& watch);
  void NetlinkReceivePacket(const boost::system::error_code& error, std::size_t bytes,
                            const WatchPtr& watch);
  void MakeUp(const WatchPtr& watch);
  // Puts a watch of what the name stands for now, if anything, in place of `watch`.
  void Move(WatchPtr& watch, const std::string& vrf_key);
  static void Resync(Watch& watch, const std::string& vrf_key);
  void WaitForRound();

  // Constant.
  const Trust is_trusted_;
  boost::asio::io_context& service_;
  const std::shared_ptr<InterfaceTable> table_;
  InterfaceObserver& observer_;
  std::map<std::string, WatchPtr> watches_;                 // by VRF key
  std::shared_ptr<boost::asio::steady_timer> round_timer_;  // its handler sees whether it is there
};

}  // namespace ipsla

#endif  // IPSLA_API_NETLINK_WATCHER_H_
