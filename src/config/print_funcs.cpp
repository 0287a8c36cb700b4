#include "config/print_funcs.h"

#include <arpa/inet.h>
#include <sys/types.h>

#include "log/log.h"

// A line that both logs get alike is one LOG_DEBUG. Where the file's copy is left out, or carries
// another number than the system log's, both halves are written out.

namespace ipsla {
namespace {

void PrintSchedule(const SlaTaskConfig& task) {
  const SlaSchedulerConfig& scheduler = task.scheduler;
  const std::string time = ScheduleTimeToString(scheduler);
  if (task.schedule) {
    LOG_DEBUG_FILE(0,
                   "   |- Scheduler\n   .  |- Start time      : %s\n   .  |- Lifetime        : %s\n"
                   "   .  |- Time            : %s\n   .  -",
                   scheduler.start_time.c_str(), scheduler.life_time.c_str(), time.c_str());
  }
  LOG_DEBUG_SYSTEM(
      "   |- Scheduler\n   .  |- Start time      : %s\n   .  |- Lifetime        : %s\n"
      "   .  |- Time            : %s\n   .  -",
      scheduler.start_time.c_str(), scheduler.life_time.c_str(), time.c_str());
}

void PrintVrf(const std::string& vrf) {
  if (!vrf.empty()) LOG_DEBUG_FILE(0, "   |- VRF instance       : %s", vrf.c_str());
  LOG_DEBUG_SYSTEM("   |- VRF instance       : %s", vrf.c_str());
}

void PrintKey(const SlaAuthConfig& auth, const KeychainStorage& keychain) {
  LOG_DEBUG(0, "   .  .  |- Algorithm    : %s (#%u)\n   .  .  |- Key",
            AuthAlgorithmToString(auth.algorithm).c_str(), NumberOf(auth.algorithm));
  if (auth.mode == SlaAuthMode::kKeychain) {
    LOG_DEBUG_FILE(0, "   .  .  .  |- ID        : #%u", unsigned{auth.key_id});
  }
  LOG_DEBUG_SYSTEM("   .  .  .  |- ID        : #%u", unsigned{auth.key_id});
  std::string key;
  GetTaskKey(&key, auth, keychain);  // without a key its word for that is shown
  LOG_DEBUG(0, "   .  .  .  |- Value     : \"%s\"\n   .  .  .  -\n   .  .  -\n   .  -",
            key.c_str());
}

void PrintControlPhase(const SlaTaskConfig& task, const KeychainStorage& keychain) {
  const SlaEndpointConfig& phase = task.control_phase;
  const SlaAuthMode mode = task.auth.mode;
  LOG_DEBUG(0, "   |- Control phase config");
  LOG_DEBUG(0, "   .  |- Source address  : %s", Ipv4ToString(phase.src.sin_addr).c_str());
  LOG_DEBUG(0,
            "   .  |- Source port     : %s\n   .  |- Dest address    : %s\n   .  |- Dest port      "
            " : %d\n"
            "   .  |- Timeout         : %u (milliseconds)\n   .  |- Authentication\n"
            "   .  .  |- Mode         : %s (#%u)\n",
            SourcePortToString(phase).c_str(), Ipv4ToString(phase.dst.sin_addr).c_str(),
            ntohs(phase.dst.sin_port), static_cast<unsigned>(task.control_timeout),
            AuthModeToString(mode).c_str(), NumberOf(mode));
  if (mode == SlaAuthMode::kPassword || mode == SlaAuthMode::kKeychain) {
    PrintKey(task.auth, keychain);
  } else {
    LOG_DEBUG(0, "   .  .  -");
  }
}

void PrintOperation(const SlaTaskConfig& task) {
  const SlaEndpointConfig& phase = task.measurement;
  LOG_DEBUG(0, "   .  -\n   |- Operation type     : %s (#%u)\n   |- Operation config",
            TestTypeToString(task.sla_type).c_str(), NumberOf(task.sla_type));
  LOG_DEBUG(0, "   .  |- Source address  : %s", Ipv4ToString(phase.src.sin_addr).c_str());
  LOG_DEBUG(0,
            "   .  |- Source port     : %s\n   .  |- Dest address    : %s\n   .  |- Dest port      "
            " : %d\n"
            "   .  |- Count           : %u\n   .  |- Size            : %-4u\t(bytes)\n"
            "   .  |- Interval        : %-4u\t(milliseconds)\n   .  |- Timeout         : "
            "%-4u\t(milliseconds)\n"
            "   .  |- TTL             : %-4u\n   .  |- DSCP            : %u\t(PHB: %s)\n   .  -\n"
            "   |- Number of reports  : %u\n   -",
            SourcePortToString(phase).c_str(), Ipv4ToString(phase.dst.sin_addr).c_str(),
            ntohs(phase.dst.sin_port), static_cast<unsigned>(task.num_packets),
            unsigned{task.packet_size}, static_cast<unsigned>(task.interval),
            static_cast<unsigned>(task.timeout), unsigned{task.ttl}, unsigned{task.dscp},
            DscpToPhbName(task.dscp).c_str(), unsigned{task.num_rep_hist});
}

}  // namespace

void PrintTaskConfigs(const SlaTaskMap& tasks, const KeychainStorage& keychain) {
  LOG_DEBUG(0, "List IP SLA operations: %zd tasks", static_cast<ssize_t>(tasks.size()));
  std::uint16_t ordinal = 1;  // two per task: one for the log file, the next for the system log
  for (const auto& [id, task] : tasks) {
    const std::string schedule = BoolToString(task.schedule);
    LOG_DEBUG_FILE(0, " [Task #%u]\n   |- ID                 : #%u\n   |- Schedule           : %s",
                   unsigned{ordinal++}, unsigned{task.sla_id}, schedule.c_str());
    LOG_DEBUG_SYSTEM(" [Task #%u]\n   |- ID                 : #%u\n   |- Schedule           : %s",
                     unsigned{ordinal++}, unsigned{task.sla_id}, schedule.c_str());
    PrintSchedule(task);
    PrintVrf(task.control_phase.vrf);
    PrintControlPhase(task, keychain);
    PrintOperation(task);
  }
}

void PrintKeychain(const KeychainStorage& keychain) {
  LOG_DEBUG(0, "List of keys in the storage: %zd keys", static_cast<ssize_t>(keychain.size()));
  unsigned ordinal = 1;  // two per key, as for the tasks
  for (const auto& [id, key] : keychain) {
    LOG_DEBUG_FILE(0, " [Key #%u]\n   |- ID     : #%d\n   |- String : \"%s\"\n   -", ordinal++, id,
                   key.c_str());
    LOG_DEBUG_SYSTEM(" [Key #%u]\n   |- ID     : #%d\n   |- String : \"%s\"\n   -", ordinal++, id,
                     key.c_str());
  }
}

}  // namespace ipsla
