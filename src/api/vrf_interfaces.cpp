#include "api/vrf_interfaces.h"

#include <cstring>
#include <exception>
#include <set>
#include <utility>

#include "env/namespace_scope.h"
#include "env/network_namespace.h"
#include "log/log.h"

namespace ipsla {
namespace {

using boost::asio::ip::address;

// The namespace to enter for a VRF key: the daemon's own is never entered.
std::string NamespaceToEnter(const std::string& vrf_key) {
  return vrf_key == kDefaultVrf ? std::string() : vrf_key;
}

}  // namespace

VrfInterfaces::VrfInterfaces(std::string vrf_key, InterfaceTable& table,
                             InterfaceObserver& observer)
    : vrf_key_(std::move(vrf_key)), table_(table), observer_(observer) {}

void VrfInterfaces::Begin(const InterfaceListing& listing) {
  links_ = listing.links;
  holders_ = listing.holders;
  is_unsure_ = false;
  for (const auto& [address, record] : listing.addresses) table_.Set(address, vrf_key_, record);
}

void VrfInterfaces::Forget() {
  links_.clear();
  holders_.clear();
  table_.EraseVrf(vrf_key_);
}

void VrfInterfaces::Apply(const NetlinkMessage& message) {
  const auto index = static_cast<std::int32_t>(message.index);
  switch (message.event) {
    case NetlinkEvent::kIgnored:
    case NetlinkEvent::kTruncated:
      return;
    case NetlinkEvent::kError:
      LOG_DEBUG(0, "recv netlink error: %s", std::strerror(message.error));
      return;
    case NetlinkEvent::kLinkChanged:
      table_.SetFlags(vrf_key_, index, static_cast<std::int32_t>(message.flags));
      // A message that does not name the link says nothing about its name; passed on without one it
      // would mean that the link is gone.
      if (message.name) ApplyName(message.index, *message.name);
      return;
    case NetlinkEvent::kLinkGone:
      links_.erase(message.index);
      RemoveInterface(index);
      TellLink(message.index, std::nullopt);
      return;
    case NetlinkEvent::kAddressAdded:
      AddAddresses(message);
      return;
    case NetlinkEvent::kAddressRemoved:
      RemoveAddresses(message);
      return;
  }
}

// A test is bound to an interface by its name. When the interface gets another one, the addresses
// go from the tests that know it by the old name and come to those that wait for the new one.
void VrfInterfaces::ApplyName(std::uint32_t index, const std::string& name) {
  const auto known = links_.find(index);
  const bool renamed = known != links_.end() && known->second != name;
  links_.insert_or_assign(index, name);
  if (!renamed) {
    TellLink(index, name);
    return;
  }
  std::vector<address> addresses;
  for (auto& [address, record] : table_.OfVrf(vrf_key_)) {
    if (record.index != static_cast<std::int32_t>(index)) continue;
    record.name = name;
    table_.Set(address, vrf_key_, record);
    addresses.push_back(address);
  }
  for (const address& one : addresses) TellAddress(one, static_cast<std::int32_t>(index), false);
  TellLink(index, std::nullopt);
  TellLink(index, name);
  for (const address& one : addresses) TellAddress(one, static_cast<std::int32_t>(index), true);
}

void VrfInterfaces::AddAddresses(const NetlinkMessage& message) {
  if (message.addresses.empty()) return;
  const InterfaceRecord record = Ask(static_cast<std::int32_t>(message.index));
  std::optional<address> latest;
  for (const address& one : message.addresses) {
    GiveTo(record, one);
    if (one.is_v4()) latest = one;
  }
  if (latest) TellAddress(*latest, record.index, true);
}

void VrfInterfaces::RemoveAddresses(const NetlinkMessage& message) {
  const auto index = static_cast<std::int32_t>(message.index);
  std::optional<address> latest;
  for (const address& one : message.addresses) {
    TakeFrom(index, one);
    if (one.is_v4()) latest = one;
  }
  if (latest) TellAddress(*latest, index, false);
}

void VrfInterfaces::RemoveInterface(std::int32_t index) {
  std::vector<address> addresses;
  for (const auto& [one, holders] : holders_) {
    if (holders.contains(index)) addresses.push_back(one);
  }
  for (const address& one : addresses) TakeFrom(index, one);
  table_.EraseInterface(vrf_key_, index);
}

// Of several that have an address the table has the last one that got it.
void VrfInterfaces::GiveTo(const InterfaceRecord& record, const address& one) {
  holders_[one][record.index] = record;
  table_.Set(one, vrf_key_, record);
}

// When that one loses it, the address may still be on another.
void VrfInterfaces::TakeFrom(std::int32_t index, const address& one) {
  table_.Erase(one, vrf_key_, index);
  const auto found = holders_.find(one);
  if (found == holders_.end()) return;
  found->second.erase(index);
  if (found->second.empty()) {
    holders_.erase(found);
  } else if (!table_.Find(one, vrf_key_)) {
    table_.Set(one, vrf_key_, Ask(found->second.begin()->first));
  }
}

InterfaceRecord VrfInterfaces::Ask(std::int32_t index) {
  InterfaceRecord record;
  record.index = index;
  try {
    NetworkNamespaceScope scope(NamespaceToEnter(vrf_key_));
    record = QueryInterface(static_cast<std::uint32_t>(index));
    scope.Leave();
  } catch (const std::exception& exception) {
    // The VRF's name can go while its namespace lives on; the address is kept, on an interface that
    // is not running.
    LOG_DEBUG(0, "Catch exception %s", exception.what());
  }
  if (record.flags == 0) is_unsure_ = true;
  return record;
}

void VrfInterfaces::Compare(InterfaceListing now) {
  const Addresses before = table_.OfVrf(vrf_key_);
  for (const auto& [address, record] : before) {
    const auto holders = now.holders.find(address);
    if (holders == now.holders.end()) continue;
    const auto same = holders->second.find(record.index);
    if (same != holders->second.end()) now.addresses[address] = same->second;
  }
  std::set<std::uint32_t> links_gone;
  for (const auto& [index, name] : links_) {
    const auto found = now.links.find(index);
    if (found == now.links.end() || found->second != name) links_gone.insert(index);
  }
  for (const auto& [address, record] : before) {
    const auto index = static_cast<std::uint32_t>(record.index);
    if (!now.links.contains(index)) links_gone.insert(index);
    if (!now.addresses.contains(address)) table_.Erase(address, vrf_key_, record.index);
  }
  Begin(now);

  const auto has = [&links_gone](const Addresses& addresses, const address& one,
                                 const InterfaceRecord& record) {
    const auto found = addresses.find(one);
    return found != addresses.end() && found->second.index == record.index &&
           !links_gone.contains(static_cast<std::uint32_t>(record.index));
  };
  for (const auto& [one, record] : before) {
    if (!has(now.addresses, one, record)) TellAddress(one, record.index, false);
  }
  for (const std::uint32_t index : links_gone) TellLink(index, std::nullopt);
  for (const auto& [index, name] : now.links) TellLink(index, name);
  for (const auto& [one, record] : now.addresses) {
    if (!has(before, one, record)) TellAddress(one, record.index, true);
  }
}

void VrfInterfaces::Replace(const InterfaceListing& now) {
  const Addresses before = table_.OfVrf(vrf_key_);
  const auto links_before = std::exchange(links_, {});
  table_.EraseVrf(vrf_key_);
  Begin(now);
  for (const auto& [one, record] : before) TellAddress(one, record.index, false);
  for (const auto& [index, name] : links_before) TellLink(index, std::nullopt);
  for (const auto& [index, name] : links_) TellLink(index, name);
  for (const auto& [one, record] : now.addresses) TellAddress(one, record.index, true);
}

void VrfInterfaces::TellLink(std::uint32_t index, const std::optional<std::string>& name) {
  observer_.SetInterfaceIndex(vrf_key_, index, name);
}

void VrfInterfaces::TellAddress(const address& one, std::int32_t index, bool added) {
  if (!one.is_v4()) return;
  std::uint32_t wire = 0;  // network byte order: the bytes as they stand in a packet
  const auto bytes = one.to_v4().to_bytes();
  std::memcpy(&wire, bytes.data(), sizeof wire);
  observer_.UpdateLocalAddress(vrf_key_, static_cast<std::uint32_t>(index), added ? wire : 0,
                               added ? 0 : wire);
}

}  // namespace ipsla
