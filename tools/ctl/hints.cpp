#include "ctl/hints.h"

#include <algorithm>
#include <array>

namespace ipsla::ctl {
namespace {

constexpr std::array kHints{
    Hint{"timeout, no samples",
         "no probe came back: is the destination reachable (ping, from the task's source and VRF), "
         "and no firewall between?"},
    Hint{"source address or interface not exist",
         "give the task a source address that an interface of its VRF has and that is up (ip "
         "address)"},
    Hint{"Start test failed",
         "the sockets could not be opened: the daemon's sender.log and the task's log name the "
         "call; a port in use, a missing VRF or a missing key are usual"},
    Hint{"control phase failed: destination host is not responding",
         "no answer from the responder's control port: is the host reachable, its responder "
         "running, and UDP let through?"},
    Hint{"control phase failed: connection refused",
         "the host answers but nothing listens on the control port: start the responder, or "
         "correct \"dst-port\" of the control phase"},
    Hint{"control phase failed: invalid response control phase protocol version",
         "something else answers on the control port, or a responder of another protocol version: "
         "check \"dst-port\""},
    Hint{"control phase failed: internal error",
         "a socket call failed in the control phase: the task's log names it"},
    Hint{"control phase failed: command header status: format error",
         "the responder could not read the request: its protocol may be another version"},
    Hint{"control phase failed: command header status: unsupported protocol version",
         "the responder speaks another version of the protocol"},
    Hint{"control phase failed: command header status: ",
         "the responder refused the request for this reason: its log says more"},
    Hint{"control phase authentication failed: authentication fail",
         "the two ends have different keys, key ids or algorithms: compare them"},
    Hint{"control phase authentication failed: unsupported authentication mode",
         "the responder expects another \"mode\" of authentication"},
    Hint{"control phase authentication failed: unsupported authentication algorithm",
         "the responder expects another \"algorithm\" of authentication"},
    Hint{"control phase authentication failed: ",
         "compare mode, algorithm and key at both ends; the responder's log says more"},
    Hint{"control phase measurement failed: requested port is busy",
         "the responder has no free measurement port, or the one of the task is taken: another "
         "\"dst-port\", or a wider range at the responder"},
    Hint{"control phase measurement failed: unsupported address",
         "the responder does not have the task's destination address"},
    Hint{"control phase measurement failed: unsupported operation type",
         "the responder does not know this type of test"},
    Hint{"control phase measurement failed: ",
         "the responder cannot measure as the task wants: its log says more"},
    Hint{"no usable replies",
         "udp-jitter-ntp keeps no send times, so no reply of it can be used: take udp-jitter",
         SlaTestType::kUdpJitterNtp},
    Hint{"no usable replies",
         "all replies came after the run's time, or a clock was set meanwhile: give the task a "
         "longer \"timeout\" if it happens again"},
};

}  // namespace

std::span<const Hint> Hints() {
  return kHints;
}

std::string_view HintFor(std::string_view reason, SlaTestType type) {
  const auto* const hint = std::find_if(kHints.begin(), kHints.end(), [=](const Hint& one) {
    return reason.starts_with(one.reason) && (one.type == SlaTestType::kNone || one.type == type);
  });
  return hint == kHints.end() ? std::string_view{} : hint->hint;
}

}  // namespace ipsla::ctl
