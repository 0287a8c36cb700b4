#include <arpa/inet.h>
#include <net/if.h>

#include <algorithm>
#include <string>

#include <fmt/format.h>

#include "ctl/task_warnings.h"

namespace ipsla::ctl {
namespace {

bool IsAddress(const std::string& text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool SameHost(in_addr a, in_addr b) {
  return a.s_addr == b.s_addr;
}

/// "this machine" or its VRF.
std::string Whereabouts(const std::string& vrf) {
  return vrf.empty() ? "this machine" : fmt::format("VRF \"{}\"", vrf);
}

/// What kind of address no responder has; empty for one that a host can have.
std::string NoHostReason(in_addr address) {
  const std::uint32_t number = ntohl(address.s_addr);
  if (number == INADDR_ANY) {
    return "is no host's address";
  }
  if (number == INADDR_BROADCAST) {
    return "is the broadcast address: no single host answers";
  }
  if (IN_MULTICAST(number)) {
    return "is a multicast address: no single host answers";
  }
  return IN_BADCLASS(number) ? "is a reserved address: no host has it" : "";
}

void InspectSource(const std::string& key, const std::string& text, in_addr source,
                   TaskRemarks* remarks) {
  if (!IsAddress(text)) {
    remarks->Warn(key, "is no IPv4 address and counts as 0.0.0.0: no run can start");
  } else if (source.s_addr == INADDR_ANY) {
    remarks->Warn(key, "is no interface's address: no run can start");
  }
}

void InspectDestination(const std::string& key, in_addr destination, TaskRemarks* remarks) {
  if (!IsAddress(remarks->Text(key))) {
    remarks->Warn(key, "is no IPv4 address and counts as 0.0.0.0");
  } else if (std::string reason = NoHostReason(destination); !reason.empty()) {
    remarks->Warn(key, std::move(reason));
  }
}

/// What this machine has of a phase's addresses.
void InspectOnHost(const std::string& phase, const SlaEndpointConfig& endpoint,
                   const std::vector<HostInterface>& interfaces, TaskRemarks* remarks) {
  const std::string place = Whereabouts(endpoint.vrf);
  if (endpoint.if_name.empty()) {
    const bool present = std::ranges::any_of(interfaces, [&](const HostInterface& interface) {
      return std::ranges::any_of(interface.addresses, [&](in_addr address) {
        return SameHost(address, endpoint.src.sin_addr);
      });
    });
    if (!present && endpoint.src.sin_addr.s_addr != INADDR_ANY) {
      remarks->Warn(phase + ".src-address",
                    fmt::format("is on no interface of {}: no run can start until it is", place));
    }
  } else {
    const auto found = std::ranges::find(interfaces, endpoint.if_name, &HostInterface::name);
    if (found == interfaces.end()) {
      remarks->Warn(phase + ".src-interface",
                    fmt::format("is not there in {}: no run can start until it is", place));
    } else if (found->addresses.empty()) {
      remarks->Warn(phase + ".src-interface", "has no IPv4 address: no run can start until it has");
    }
  }
  for (const HostInterface& interface : interfaces) {
    const bool reaches_all = std::ranges::any_of(interface.broadcasts, [&](in_addr address) {
      return SameHost(address, endpoint.dst.sin_addr);
    });
    if (reaches_all) {
      remarks->Warn(phase + ".dst-address",
                    fmt::format("is the broadcast address of interface {}: no single host answers",
                                interface.name));
      return;
    }
  }
}

}  // namespace

void InspectVrf(const SlaTaskConfig& task, HostView* host, TaskRemarks* remarks) {
  constexpr const char* kKey = "vrf-instance";
  constexpr const char* kEnd = "which ends the daemon when it creates the test";
  const std::string& vrf = task.measurement.vrf;
  if (vrf.empty()) {
    return;
  }
  if (vrf.find('/') != std::string::npos || vrf == "." || vrf == "..") {
    remarks->Fatal(kKey, fmt::format("cannot be the name of a network namespace, {}", kEnd));
    return;
  }
  if (host == nullptr) {
    return;
  }
  if (const std::string fault = host->VrfFault(vrf); !fault.empty()) {
    remarks->Fatal(kKey, fmt::format("cannot be entered ({}), {}", fault, kEnd));
  }
  if (const std::string fault = host->ReturnFault(); !fault.empty()) {
    remarks->Fatal(kKey,
                   fmt::format("needs the daemon's own network namespace under the name 1 ({}): "
                               "without it the daemon ends or measures elsewhere",
                               fault));
  }
}

void InspectEndpoint(const SlaTaskConfig& task, const std::string& phase, HostView* host,
                     TaskRemarks* remarks) {
  const bool is_control = phase == "control-phase";
  const SlaEndpointConfig& endpoint = is_control ? task.control_phase : task.measurement;
  if (remarks->Text(phase + ".src-interface").size() >= IFNAMSIZ) {
    remarks->Warn(
        phase + ".src-interface",
        fmt::format("is longer than {} bytes, and no interface has such a name", IFNAMSIZ - 1));
  }
  const std::string port = remarks->Text(phase + ".src-port");
  if (endpoint.src_port_any && port != "any") {
    remarks->Warn(phase + ".src-port", "counts as \"any\"");
  }
  if (is_control && IsIcmp(task.sla_type)) {
    return;  // nothing is sent there
  }
  const std::string source = remarks->Text(phase + ".src-address");
  if (!source.empty()) {
    InspectSource(phase + ".src-address", source, endpoint.src.sin_addr, remarks);
  }
  InspectDestination(phase + ".dst-address", endpoint.dst.sin_addr, remarks);
  if (host == nullptr) {
    return;
  }
  if (const auto& interfaces = host->Interfaces(endpoint.vrf).found) {
    InspectOnHost(phase, endpoint, *interfaces, remarks);
  }
}

}  // namespace ipsla::ctl
