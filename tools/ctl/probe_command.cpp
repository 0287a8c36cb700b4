#include <fmt/format.h>

#include "ctl/commands.h"
#include "ctl/plugin.h"

namespace ipsla::ctl {
namespace {

PluginResult Unknown(const std::string& text) {
  return {PluginState::kUnknown, text, {}};
}

PluginResult Judge(const CommonOptions& common, const ProbeOptions& options) {
  const client::SenderClient sender(common.client);
  const auto answer = client::QueryTasks(sender, {.ids = {options.id}}, {}, MetricGroupNames());
  if (answer.tasks.empty()) {
    return Unknown(fmt::format("no task {} is configured", options.id));
  }
  return JudgeTask(answer.tasks.front(), options.warning, options.critical, Now());
}

}  // namespace

int RunProbe(const CommonOptions& common, const ProbeOptions& options) {
  PluginResult result;
  try {
    result = Judge(common, options);
  } catch (const std::exception& error) {
    result = Unknown(error.what());
  }
  fmt::print("{}\n", common.json ? PluginJson(result) : PluginLine(result));
  return static_cast<int>(result.state);
}

}  // namespace ipsla::ctl
