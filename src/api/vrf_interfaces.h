// What is known of one VRF's interfaces: brings the interface table up to date and tells the tests.

#ifndef IPSLA_API_VRF_INTERFACES_H_
#define IPSLA_API_VRF_INTERFACES_H_

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/ip/address.hpp>

#include "api/interface_query.h"
#include "api/netlink_message.h"
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

  /// An address came or went, a link came or is gone: see Sender.
  virtual void UpdateLocalAddress(const std::string& vrf_key, std::uint32_t if_index,
                                  std::uint32_t new_address, std::uint32_t old_address) = 0;
  virtual void SetInterfaceIndex(const std::string& vrf_key, std::uint32_t if_index,
                                 const std::optional<std::string>& if_name) = 0;
};

/// The interfaces of one VRF. Each operation changes the table as a whole before it tells anybody:
/// a test that starts over on the first call already finds everything in it. Threads: the service
/// thread.
class VrfInterfaces {
 public:
  /// Knows nothing yet. Table and observer must outlive it.
  VrfInterfaces(std::string vrf_key, InterfaceTable& table, InterfaceObserver& observer);

  /// What was there at the beginning. Nobody is told.
  void Begin(const InterfaceListing& listing);

  /// One message of the VRF's netlink socket. An error is logged, a truncated message ignored. An
  /// interface with a new name is told as one that is gone and one that came.
  void Apply(const NetlinkMessage& message);

  /// What is there now, after messages were lost: what differs is told.
  void Compare(InterfaceListing now);

  /// What is there now in another namespace that took the VRF's name: all that was is told to be
  /// gone, even if the new one has the same, because a socket does not move along.
  void Replace(const InterfaceListing& now);

  /// Drops everything from the table. Nobody is told.
  void Forget();

  /// True when the kernel did not tell something that was asked of it since the last listing: only
  /// another one brings the table up to date.
  [[nodiscard]] bool IsUnsure() const { return is_unsure_; }

 private:
  // By address.
  using Addresses = std::map<boost::asio::ip::address, InterfaceRecord>;

  // What messages do: first to the table, then (Tell) to the observer.
  void ApplyName(std::uint32_t index, const std::string& name);
  void AddAddresses(const NetlinkMessage& message);
  void RemoveAddresses(const NetlinkMessage& message);
  void RemoveInterface(std::int32_t index);
  void GiveTo(const InterfaceRecord& record, const boost::asio::ip::address& one);
  void TakeFrom(std::int32_t index, const boost::asio::ip::address& one);
  [[nodiscard]] InterfaceRecord Ask(std::int32_t index);
  void TellLink(std::uint32_t index, const std::optional<std::string>& name);
  void TellAddress(const boost::asio::ip::address& one, std::int32_t index, bool added);

  // Constant.
  const std::string vrf_key_;
  InterfaceTable& table_;
  InterfaceObserver& observer_;
  // Name by index, also of those without an address; and who has which address (the flags are those
  // of that time).
  std::map<std::uint32_t, std::string> links_;
  AddressHolders holders_;
  bool is_unsure_ = false;
};

}  // namespace ipsla

#endif  // IPSLA_API_VRF_INTERFACES_H_
