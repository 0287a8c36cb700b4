// What a check of the files has to know about this machine.

#ifndef IPSLA_TOOLS_CTL_HOST_VIEW_H_
#define IPSLA_TOOLS_CTL_HOST_VIEW_H_

#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ipsla::ctl {

/// An interface of one network namespace; addresses in network byte order.
struct HostInterface {
  std::string name;
  std::vector<in_addr> addresses{};
  std::vector<in_addr> broadcasts{};
};

/// The interfaces of a namespace, or why they could not be looked at.
struct HostInterfaces {
  std::optional<std::vector<HostInterface>> found{};
  std::string fault{};  ///< the system's reason, when there are none
};

/// The machine, as a check sees it.
class HostView {
 public:
  virtual ~HostView() = default;

  /// Why the daemon could not enter the network namespace of a VRF (never empty); empty: it can.
  [[nodiscard]] virtual std::string VrfFault(const std::string& vrf) = 0;

  /// Why the daemon would not find back from a VRF; empty: it will.
  [[nodiscard]] virtual std::string ReturnFault() = 0;

  /// The interfaces of a VRF; of the daemon's own namespace for the empty name.
  [[nodiscard]] virtual const HostInterfaces& Interfaces(const std::string& vrf) = 0;

  /// Whether a thread can be bound to this CPU.
  [[nodiscard]] virtual bool HasCpu(std::uint8_t cpu) = 0;
};

/// This machine itself. What needs rights that the caller lacks comes back as a fault. Each look at
/// a namespace or a CPU happens on a thread of its own, which ends there: the caller stays where
/// it is.
class SystemHost : public HostView {
 public:
  /// `daemon_pid`: the process whose network namespace is the daemon's own; 0: this one.
  explicit SystemHost(int daemon_pid = 0);

  [[nodiscard]] std::string VrfFault(const std::string& vrf) override;
  [[nodiscard]] std::string ReturnFault() override;
  [[nodiscard]] const HostInterfaces& Interfaces(const std::string& vrf) override;
  [[nodiscard]] bool HasCpu(std::uint8_t cpu) override;

 private:
  // The file of the network namespace that the daemon has.
  [[nodiscard]] std::string OwnNamespace() const;

  std::string own_namespace_;  // its file; empty: this process is in it
  // By VRF, as far as they were asked for.
  std::map<std::string, HostInterfaces> interfaces_;
};

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_HOST_VIEW_H_
