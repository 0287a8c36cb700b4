#include "api/netlink_watcher.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <exception>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>

#include "api/interface_query.h"
#include "api/netlink_message.h"
#include "api/nl_protocol.h"
#include "api/receive_outcome.h"
#include "env/namespace_scope.h"
#include "env/network_namespace.h"
#include "log/log.h"

namespace ipsla {
namespace {

constexpr std::size_t kNetlinkBufferBytes = 8192;
constexpr std::uint32_t kNetlinkGroups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;

// Some thousand messages can wait while a reload keeps the thread busy. The kernel counts about 1
// kB for a message and doubles the figure that it is given.
constexpr int kSocketBufferBytes = 4 * 1024 * 1024;

// Reading until nothing is left must end, whatever the kernel adds meanwhile.
constexpr int kMostDiscarded = 1'000'000;

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

void EnlargeBuffer(int fd) {
  const int bytes = kSocketBufferBytes;
  // The first needs privilege, the second is cut to the system's limit; both are only an attempt.
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0) return;
  static_cast<void>(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes));
}

// Until the socket has been read empty the kernel drops what comes without saying so again; and
// what waits in it is older than the answer that is about to be asked for.
void DiscardWaiting(int fd) {
  std::array<char, 1> beginning{};  // the rest of each message goes with it
  for (int count = 0; count < kMostDiscarded; ++count) {
    if (recv(fd, beginning.data(), beginning.size(), MSG_DONTWAIT) >= 0) continue;
    if (errno != ENOBUFS && errno != EINTR) return;
  }
}

// The namespace to enter for a VRF key: the daemon's own is never entered.
std::string NamespaceOf(const std::string& vrf_key) {
  return vrf_key == kDefaultVrf ? std::string() : vrf_key;
}

// What tells one namespace from another as long as it is held.
using NamespaceId = std::pair<dev_t, ino_t>;

std::optional<NamespaceId> IdOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return NamespaceId(status.st_dev, status.st_ino);
}

}  // namespace

struct NetlinkWatcher::Watch {
  Watch(boost::asio::io_context& service, std::shared_ptr<VrfInterfaces> known)
      : interfaces(std::move(known)), socket(service) {}

  void Close() {
    boost::system::error_code ignored;
    socket.close(ignored);
  }

  // Says once what goes on failing round after round.
  void Complain(const std::exception& exception) {
    if (!std::exchange(complained, true)) LOG_DEBUG(0, "Catch exception %s", exception.what());
  }

  const std::shared_ptr<VrfInterfaces> interfaces;
  std::array<std::uint8_t, kNetlinkBufferBytes> buffer{};
  nl_protocol::endpoint sender;      // of what is in the buffer
  nl_protocol::socket socket;        // not open while there is no namespace to be in
  std::optional<NamespaceId> place;  // what the name stood for when it was last looked at
  bool behind = false;               // messages were lost and not made up for yet
  bool complained = false;
};

NetlinkWatcher::NetlinkWatcher(boost::asio::io_context& service,
                               std::shared_ptr<InterfaceTable> table, InterfaceObserver& observer,
                               Trust is_trusted)
    : is_trusted_(is_trusted),
      service_(service),
      table_(std::move(table)),
      observer_(observer),
      round_timer_(std::make_shared<boost::asio::steady_timer>(service)) {}

NetlinkWatcher::~NetlinkWatcher() {
  try {
    Close();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a socket that cannot be closed is gone with its
                   // descriptor
  }
}

bool NetlinkWatcher::IsFromKernel(const nl_protocol::endpoint& sender) {
  sockaddr_nl address{};
  if (sender.size() < sizeof address) return false;
  std::memcpy(&address, sender.data(), sizeof address);
  return address.nl_pid == 0;
}

void NetlinkWatcher::CreateNetlinkSocketInVrf(const std::string& vrf) {
  const std::string key = VrfKey(vrf);
  if (watches_.contains(key)) return;
  const auto watch =
      std::make_shared<Watch>(service_, std::make_shared<VrfInterfaces>(key, *table_, observer_));
  try {
    watch->interfaces->Begin(Open(*watch, key));
  } catch (const std::exception& exception) {
    LOG_DEBUG(0, "Catch exception %s", exception.what());
    throw std::runtime_error("CreateNetlinkSocketInVrf failed");
  }
  Receive(watch);
  watches_.emplace(key, watch);
  if (watches_.size() == 1) WaitForRound();
}

InterfaceListing NetlinkWatcher::Open(Watch& watch, const std::string& vrf_key) {
  NetworkNamespaceScope scope(NamespaceOf(vrf_key));
  const auto place = IdOf("/proc/thread-self/ns/net");
  // Listening comes before listing: a change in between is then seen twice, not missed.
  watch.socket.open(nl_protocol());
  EnlargeBuffer(watch.socket.native_handle());
  Bind(watch.socket);
  InterfaceListing listing = ListInterfaces();
  scope.Leave();
  watch.place = place;
  return listing;
}

void NetlinkWatcher::Release(const std::string& vrf) {
  const auto found = watches_.find(VrfKey(vrf));
  if (found == watches_.end()) return;
  found->second->Close();
  found->second->interfaces->Forget();
  watches_.erase(found);
}

void NetlinkWatcher::Close() {
  while (!watches_.empty()) Release(watches_.begin()->first);
  round_timer_->cancel();
}

void NetlinkWatcher::Receive(const WatchPtr& watch) {
  watch->socket.async_receive_from(
      boost::asio::buffer(watch->buffer), watch->sender,
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
      DiscardWaiting(watch->socket.native_handle());
      MakeUp(watch);
      break;
    case ReceiveOutcome::kData: {
      if (!is_trusted_(watch->sender)) break;
      const auto message = ParseNetlinkMessage(std::span(watch->buffer).first(bytes));
      if (message.event == NetlinkEvent::kTruncated) MakeUp(watch);
      watch->interfaces->Apply(message);
      // With the next round: what stood in the way now may stand there for a moment more.
      if (watch->interfaces->IsUnsure()) watch->behind = true;
      break;
    }
    case ReceiveOutcome::kAgain:
      break;
  }
  // A check may have put another watch in place of this one.
  if (watch->socket.is_open()) Receive(watch);
}

void NetlinkWatcher::MakeUp(const WatchPtr& watch) {
  watch->behind = true;
  CheckVrfs();
}

void NetlinkWatcher::CheckVrfs() {
  for (auto& [key, watch] : watches_) {
    const std::string name = NamespaceOf(key);
    const auto place = name.empty() ? watch->place : IdOf("/var/run/netns/" + name);
    if (place != watch->place) {
      LOG_DEBUG(0, "VRF %s: its network namespace is %s", key.c_str(),
                place ? "another one" : "gone");
      Move(watch, key);
    } else if (place && !watch->socket.is_open()) {
      Move(watch, key);
    } else if (watch->behind) {
      Resync(*watch, key);
    }
  }
}

void NetlinkWatcher::Move(WatchPtr& watch, const std::string& vrf_key) {
  watch->Close();
  auto fresh = std::make_shared<Watch>(service_, watch->interfaces);
  fresh->complained = watch->complained;
  fresh->place = IdOf("/var/run/netns/" + vrf_key);
  watch = fresh;
  InterfaceListing listing;
  if (fresh->place) {
    try {
      listing = Open(*fresh, vrf_key);
      fresh->complained = false;
      Receive(fresh);
    } catch (const std::exception& exception) {
      fresh->Complain(exception);
      fresh->Close();
    }
  }
  fresh->interfaces->Replace(listing);
}

// Messages were lost, so what they said is found out by asking. Without an answer (no descriptor
// free, for example) the question is asked again in the next round.
void NetlinkWatcher::Resync(Watch& watch, const std::string& vrf_key) {
  try {
    NetworkNamespaceScope scope(NamespaceOf(vrf_key));
    InterfaceListing now = ListInterfaces();
    scope.Leave();
    watch.behind = false;
    watch.complained = false;
    watch.interfaces->Compare(std::move(now));
  } catch (const std::exception& exception) {
    watch.Complain(exception);
  }
}

void NetlinkWatcher::WaitForRound() {
  round_timer_->expires_after(kRound);
  round_timer_->async_wait(
      [this, timer = std::weak_ptr(round_timer_)](const boost::system::error_code& error) {
        if (error || timer.expired() || watches_.empty()) return;
        CheckVrfs();
        WaitForRound();
      });
}

}  // namespace ipsla
