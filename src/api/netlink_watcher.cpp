#include "api/netlink_watcher.h"

#include <linux/rtnetlink.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <exception>
#include <set>
#include <span>
#include <stdexcept>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>

#include "api/interface_query.h"
#include "api/receive_outcome.h"
#include "env/namespace_scope.h"
#include "env/network_namespace.h"
#include "log/log.h"

namespace ipsla {
namespace {

constexpr std::size_t kNetlinkBufferBytes = 8192;
constexpr std::uint32_t kNetlinkGroups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
constexpr std::chrono::seconds kResyncRetry{1};

nl_protocol::endpoint Endpoint(std::uint32_t port) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = port;
  address.nl_groups = kNetlinkGroups;
  return {&address, sizeof address};
}

// Binds to the process id. Two VRF names can stand for one namespace, where that address is given
// out only once: the second socket then takes one that the kernel picks.
void Bind(nl_protocol::socket& socket) {
  boost::system::error_code error;
  socket.bind(Endpoint(static_cast<std::uint32_t>(getpid())), error);
  if (error == boost::asio::error::address_in_use) {
    socket.bind(Endpoint(0));
  } else if (error) {
    throw boost::system::system_error(error, "bind");
  }
}

// The namespace to enter for a VRF key: the daemon's own is never entered.
std::string NamespaceOf(const std::string& vrf_key) {
  return vrf_key == kDefaultVrf ? std::string() : vrf_key;
}

}  // namespace

struct NetlinkWatcher::Watch {
  Watch(boost::asio::io_context& service, std::string key)
      : vrf_key(std::move(key)), socket(service), retry(service) {}

  void Close() {
    boost::system::error_code ignored;
    socket.close(ignored);
    retry.cancel();
  }

  const std::string vrf_key;
  std::array<std::uint8_t, kNetlinkBufferBytes> buffer{};
  nl_protocol::socket socket;
  boost::asio::steady_timer retry;  // armed after a re-read that failed
};

NetlinkWatcher::NetlinkWatcher(boost::asio::io_context& service,
                               std::shared_ptr<InterfaceTable> table, InterfaceObserver& observer)
    : service_(service), table_(std::move(table)), observer_(observer) {}

NetlinkWatcher::~NetlinkWatcher() {
  try {
    Close();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a socket that cannot be closed is gone with its
                   // descriptor
  }
}

void NetlinkWatcher::CreateNetlinkSocketInVrf(const std::string& vrf) {
  const std::string key = VrfKey(vrf);
  const auto [entry, inserted] = watches_.try_emplace(key);
  if (!inserted) return;
  entry->second = std::make_shared<Watch>(service_, key);
  try {
    Open(entry->second, vrf);
    Receive(entry->second);
  } catch (const std::exception& exception) {
    LOG_DEBUG(0, "Catch exception %s", exception.what());
    Release(vrf);
    throw std::runtime_error("CreateNetlinkSocketInVrf failed");
  }
}

void NetlinkWatcher::Open(const WatchPtr& watch, const std::string& vrf) {
  NetworkNamespaceScope scope(vrf);
  // Listening comes before listing: a change in between is then seen twice, not missed.
  watch->socket.open(nl_protocol());
  Bind(watch->socket);
  InterfaceListing listing = ListInterfaces();
  scope.Leave();
  for (auto& [address, record] : listing.addresses)
    table_->Set(address, watch->vrf_key, std::move(record));
}

void NetlinkWatcher::Release(const std::string& vrf) {
  const std::string key = VrfKey(vrf);
  const auto found = watches_.find(key);
  if (found == watches_.end()) return;
  if (found->second) found->second->Close();
  watches_.erase(found);
  table_->EraseVrf(key);
}

void NetlinkWatcher::Close() {
  while (!watches_.empty()) Release(watches_.begin()->first);
}

int NetlinkWatcher::NativeHandle(const std::string& vrf) {
  const auto found = watches_.find(VrfKey(vrf));
  return found == watches_.end() ? -1 : found->second->socket.native_handle();
}

void NetlinkWatcher::Receive(const WatchPtr& watch) {
  watch->socket.async_receive(
      boost::asio::buffer(watch->buffer),
      [this, watch](const boost::system::error_code& error, std::size_t bytes) {
        // Checked first: once the socket is closed, the watcher itself may be gone.
        if (watch->socket.is_open()) NetlinkReceivePacket(error, bytes, watch);
      });
}

void NetlinkWatcher::NetlinkReceivePacket(const boost::system::error_code& error, std::size_t bytes,
                                          const WatchPtr& watch) {
  switch (ClassifyReceive(error, bytes)) {
    case ReceiveOutcome::kEnd:
      if (error != boost::asio::error::operation_aborted) {
        LOG_DEBUG(0, "Catch exception %s", error.message().c_str());
      }
      return;
    case ReceiveOutcome::kLost:
      Resync(watch);
      break;
    case ReceiveOutcome::kData:
      Apply(ParseNetlinkMessage(std::span(watch->buffer).first(bytes)), watch);
      break;
    case ReceiveOutcome::kAgain:
      break;
  }
  Receive(watch);
}

void NetlinkWatcher::Apply(const NetlinkMessage& message, const WatchPtr& watch) {
  const auto index = static_cast<std::int32_t>(message.index);
  switch (message.event) {
    case NetlinkEvent::kIgnored:
      return;
    case NetlinkEvent::kTruncated:
      Resync(watch);
      return;
    case NetlinkEvent::kError:
      LOG_DEBUG(0, "recv netlink error: %s", std::strerror(message.error));
      return;
    case NetlinkEvent::kLinkChanged:
      table_->SetFlags(watch->vrf_key, index, static_cast<std::int32_t>(message.flags));
      // A message that does not name the link says nothing about its name; passed on without one it
      // would mean that the link is gone.
      if (message.name) observer_.SetInterfaceIndex(watch->vrf_key, message.index, message.name);
      return;
    case NetlinkEvent::kLinkGone:
      table_->EraseInterface(watch->vrf_key, index);
      observer_.SetInterfaceIndex(watch->vrf_key, message.index, std::nullopt);
      return;
    case NetlinkEvent::kAddressAdded:
      SetAddresses(message, watch->vrf_key);
      return;
    case NetlinkEvent::kAddressRemoved:
      EraseAddresses(message, watch->vrf_key);
      return;
  }
}

void NetlinkWatcher::SetAddresses(const NetlinkMessage& message, const std::string& vrf_key) {
  if (message.addresses.empty()) return;
  InterfaceRecord record;
  record.index = static_cast<std::int32_t>(message.index);
  try {
    NetworkNamespaceScope scope(NamespaceOf(vrf_key));
    record = QueryInterface(message.index);
    scope.Leave();
  } catch (const std::exception& exception) {
    // The VRF's name can go while its namespace lives on; the address is kept, on an interface that
    // is not running.
    LOG_DEBUG(0, "Catch exception %s", exception.what());
  }
  std::optional<boost::asio::ip::address> latest;
  for (const auto& address : message.addresses) {
    table_->Set(address, vrf_key, record);
    if (address.is_v4()) latest = address;
  }
  if (latest) TellAddress(vrf_key, *latest, record.index, true);
}

void NetlinkWatcher::EraseAddresses(const NetlinkMessage& message, const std::string& vrf_key) {
  std::optional<boost::asio::ip::address> latest;
  for (const auto& address : message.addresses) {
    table_->Erase(address, vrf_key, static_cast<std::int32_t>(message.index));
    if (address.is_v4()) latest = address;
  }
  if (latest) TellAddress(vrf_key, *latest, static_cast<std::int32_t>(message.index), false);
}

void NetlinkWatcher::TellAddress(const std::string& vrf_key,
                                 const boost::asio::ip::address& address, std::int32_t index,
                                 bool added) {
  if (!address.is_v4()) return;
  std::uint32_t wire = 0;  // network byte order: the bytes as they stand in a packet
  const auto bytes = address.to_v4().to_bytes();
  std::memcpy(&wire, bytes.data(), sizeof wire);
  observer_.UpdateLocalAddress(vrf_key, static_cast<std::uint32_t>(index), added ? wire : 0,
                               added ? 0 : wire);
}

// Messages were lost, so what they said is found out by comparing the VRF as it is with the table.
// Without an answer (no descriptor free, for example) the question is asked again later: no message
// may follow to give a new occasion.
void NetlinkWatcher::Resync(const WatchPtr& watch) {
  try {
    ResyncNow(watch->vrf_key);
  } catch (const std::exception& exception) {
    LOG_DEBUG(0, "Catch exception %s", exception.what());
    watch->retry.expires_after(kResyncRetry);
    watch->retry.async_wait([this, watch](const boost::system::error_code& error) {
      if (!error && watch->socket.is_open()) Resync(watch);
    });
  }
}

void NetlinkWatcher::ResyncNow(const std::string& vrf_key) {
  NetworkNamespaceScope scope(NamespaceOf(vrf_key));
  const InterfaceListing now = ListInterfaces();
  scope.Leave();
  const auto before = table_->OfVrf(vrf_key);

  // The table first, as a whole: a test that restarts on the first call already finds every address
  // in it.
  std::set<std::uint32_t> links_gone;
  for (const auto& [address, record] : before) {
    const auto index = static_cast<std::uint32_t>(record.index);
    if (!now.links.contains(index)) links_gone.insert(index);
    if (!now.addresses.contains(address)) table_->Erase(address, vrf_key, record.index);
  }
  for (const auto& [address, record] : now.addresses) table_->Set(address, vrf_key, record);

  for (const std::uint32_t index : links_gone)
    observer_.SetInterfaceIndex(vrf_key, index, std::nullopt);
  for (const auto& [index, name] : now.links) observer_.SetInterfaceIndex(vrf_key, index, name);
  for (const auto& [address, record] : before) {
    const auto found = now.addresses.find(address);
    if (found == now.addresses.end() || found->second.index != record.index)
      TellAddress(vrf_key, address, record.index, false);
  }
  for (const auto& [address, record] : now.addresses) {
    const auto found = before.find(address);
    if (found == before.end() || found->second.index != record.index)
      TellAddress(vrf_key, address, record.index, true);
  }
}

}  // namespace ipsla
