#include <chrono>

#include <fmt/format.h>

#include "ctl/commands.h"
#include "ctl/json_out.h"
#include "ctl/reload.h"

namespace ipsla::ctl {
namespace {

using client::ClientError;
using client::SenderClient;
using Kind = ClientError::Kind;
using std::chrono::milliseconds;

/// A reload may take the daemon long, and its end is noticed: patience costs nothing.
constexpr milliseconds kReloadTimeout{60000};
/// What the daemon spends on each task, doubled.
constexpr milliseconds kReloadTimePerTask{20};

TaskSnapshot TakeSnapshot(const SenderClient& sender) {
  TaskSnapshot snapshot;
  snapshot.configured = sender.Statuses(client::AllTaskIds());
  std::set<std::int32_t> ids;
  for (const auto& [id, scheduled] : snapshot.configured) {
    ids.insert(ids.end(), id);
  }
  // With all values: two runs within a second differ in nothing else.
  snapshot.results = sender.Statistics(ids, MetricGroupNames());
  return snapshot;
}

milliseconds ReloadTimeout(const CommonOptions& common, std::size_t tasks) {
  return common.timeout_given
             ? common.client.timeout
             : kReloadTimeout + kReloadTimePerTask * static_cast<std::int64_t>(tasks);
}

int Fail(const CommonOptions& common, int status, const std::string& text) {
  if (common.json) {
    fmt::print("{}\n", ErrorJson(text));
  }
  fmt::print(stderr, "ip-sla-ctl: {}\n", text);
  return status;
}

}  // namespace

int RunReloadTasks(const CommonOptions& common) {
  const SenderClient sender(common.client);
  const TaskSnapshot before = TakeSnapshot(sender);
  try {
    sender.ReloadTasks(ReloadTimeout(common, before.configured.size()));
  } catch (const ClientError& error) {
    if (error.GetKind() == Kind::kRefused) {
      return Fail(common, kExitFailing,
                  "the daemon could not read the tasks file and goes on with the tasks it has; its "
                  "log says why, and so "
                  "does \"ip-sla-ctl check\"");
    }
    if (error.GetKind() == Kind::kEnded) {
      return Fail(common, kExitNoDaemon,
                  "the daemon ended: a test of the new tasks file could not be created");
    }
    throw;
  }
  const ReloadChanges changes = CompareSnapshots(before, TakeSnapshot(sender));
  if (common.json) {
    fmt::print("{}\n", ReloadJson(changes));
    return kExitFine;
  }
  for (const std::string& line : ReloadLines(changes)) {
    fmt::print("{}\n", line);
  }
  return kExitFine;
}

int RunReloadKeychain(const CommonOptions& common) {
  const SenderClient sender(common.client);
  try {
    sender.ReloadKeychain(ReloadTimeout(common, 0));
  } catch (const ClientError& error) {
    if (error.GetKind() == Kind::kEnded) {
      return Fail(common, kExitNoDaemon, "the daemon ended: the keychain file could not be read");
    }
    if (error.GetKind() == Kind::kRefused) {
      return Fail(common, kExitFailing, "the daemon refused to read the keychain file");
    }
    if (error.GetKind() == Kind::kTimeout) {
      return Fail(common, kExitNoDaemon,
                  std::string(error.what()) +
                      "; a daemon listens, but it may be a new one: a keychain file that cannot be "
                      "read ends the daemon");
    }
    throw;
  }
  fmt::print("{}\n", common.json ? R"({"reloaded":"keychain"})" : "keychain reloaded");
  return kExitFine;
}

}  // namespace ipsla::ctl
