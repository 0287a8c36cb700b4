// Work inside another network namespace, without going there oneself.

#ifndef IPSLA_TOOLS_CTL_NAMESPACE_THREAD_H_
#define IPSLA_TOOLS_CTL_NAMESPACE_THREAD_H_

#include <functional>
#include <optional>
#include <string>

namespace ipsla::ctl {

/// Where the namespaces of VRFs are registered, with the slash at its end.
inline constexpr const char* kNamespaceDirectory = "/var/run/netns/";

/// Runs `work` on a thread of its own, which ends with it, and waits for that.
void OnOwnThread(const std::function<void()>& work);

/// The same inside the network namespace of a file; of this process for the empty name. The
/// system's reason when it cannot be entered; `work` is then not run.
[[nodiscard]] std::optional<std::string> InNamespace(const std::string& file,
                                                     const std::function<void()>& work);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_NAMESPACE_THREAD_H_
