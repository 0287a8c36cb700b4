#include <algorithm>
#include <chrono>

#include <cjson/cJSON.h>
#include <fmt/format.h>

#include "client/daemon_process.h"
#include "ctl/commands.h"
#include "ctl/display_text.h"
#include "ctl/json_out.h"
#include "ctl/reload.h"
#include "ctl/reload_check.h"

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

/// The daemon logs what it is asked and what it answers: so only what runs, without its values, and
/// the ids that the file names.
TaskSnapshot TakeSnapshot(const SenderClient& sender, std::set<std::int32_t> ids) {
  TaskSnapshot snapshot;
  snapshot.results = sender.ActiveStatistics({});
  for (const auto& [id, result] : snapshot.results) {
    ids.insert(id);
  }
  snapshot.configured = sender.Statuses(ids);
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

/// Whether the reload is to be done; the objections are printed either way.
bool Allowed(const CommonOptions& common, const ReloadCheck& check, bool force) {
  const bool refused = !check.objections.empty() && (!force || check.would_end_daemon);
  for (const std::string& line : check.objections) {
    fmt::print(stderr, "ip-sla-ctl: {}\n", Printable(line));
  }
  if (refused) {
    static_cast<void>(Fail(common, kExitFailing,
                           check.would_end_daemon
                               ? "not reloaded: the daemon would end"
                               : "not reloaded; with --force the daemon is told all the same"));
  }
  return !refused;
}

int FailTasksReload(const CommonOptions& common, const ClientError& error) {
  if (error.GetKind() == Kind::kRefused) {
    return Fail(common, kExitFailing,
                "the daemon could not read the tasks file and goes on with the tasks it has; its "
                "log says why, and so does \"ip-sla-ctl check\"");
  }
  if (error.GetKind() == Kind::kEnded) {
    return Fail(common, kExitNoDaemon,
                "the daemon ended: a test of the new tasks file could not be created");
  }
  throw error;
}

}  // namespace

int RunReloadTasks(const CommonOptions& common, const ReloadOptions& options) {
  const SenderClient sender(common.client);
  const auto daemons = client::FindDaemons(common.client.port);
  const ReloadCheck check = CheckTasksReload(options.file, client::AnsweringDaemon(daemons));
  const TaskSnapshot before = TakeSnapshot(sender, check.ids);
  if (!Allowed(common, check, options.force)) {
    return kExitFailing;
  }
  if (!check.warning.empty()) {
    fmt::print(stderr, "ip-sla-ctl: {}\n", Printable(check.warning));
  }
  try {
    sender.ReloadTasks(ReloadTimeout(common, std::max(before.configured.size(), check.ids.size())));
  } catch (const ClientError& error) {
    return FailTasksReload(common, error);
  }
  std::set<std::int32_t> ids = check.ids;
  for (const auto& [id, scheduled] : before.configured) {
    ids.insert(id);
  }
  const TaskSnapshot after = TakeSnapshot(sender, ids);
  ReloadChanges changes = CompareSnapshots(before, after);
  changes.skipped = check.skipped;
  // The check knows the keys of the keychain file, not those that the daemon has loaded.
  const std::vector<SkippedElement> not_taken = TasksNotTaken(check, after.configured);
  changes.skipped.insert(changes.skipped.end(), not_taken.begin(), not_taken.end());
  const int status = not_taken.empty() ? kExitFine : kExitFailing;
  if (common.json) {
    fmt::print("{}\n", ReloadJson(changes));
    return status;
  }
  for (const std::string& line : ReloadLines(changes)) {
    fmt::print("{}\n", Printable(line));
  }
  return status;
}

int RunReloadKeychain(const CommonOptions& common, const ReloadOptions& options) {
  const SenderClient sender(common.client);
  const auto daemons = client::FindDaemons(common.client.port);
  const ReloadCheck check = CheckKeychainReload(options.file, client::AnsweringDaemon(daemons));
  // That there is no daemon is the first thing to be told.
  if (sender.Api().DaemonListens() && !Allowed(common, check, options.force)) {
    return kExitFailing;
  }
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
  const std::vector<std::int32_t> ids(check.ids.begin(), check.ids.end());
  if (common.json) {
    const JsonDocument document(cJSON_CreateObject());
    cJSON_AddStringToObject(document.get(), "reloaded", "keychain");
    AddIds(document.get(), "keys", ids);
    AddSkipped(document.get(), check.skipped);
    fmt::print("{}\n", CompactJson(document.get()));
    return kExitFine;
  }
  fmt::print("keychain reloaded: {} key{}{}{}\n", ids.size(), ids.size() == 1 ? "" : "s",
             ids.empty() ? "" : ": ", fmt::join(ids, " "));
  for (const std::string& line : SkippedLines(check.skipped, "key")) {
    fmt::print("{}\n", Printable(line));
  }
  return kExitFine;
}

}  // namespace ipsla::ctl
