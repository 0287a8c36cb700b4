// Records of a run: one per probe, the result of the run, and the statistics of a task. Plain data.

#ifndef IPSLA_SENDER_TASK_METRICS_H_
#define IPSLA_SENDER_TASK_METRICS_H_

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "config/task_config.h"
#include "log/mutex.h"

namespace ipsla {

/// One probe. Where a test keeps it: ProbeRing.
struct SlaPacketRecord {
  std::uint32_t id = 0;  ///< arrival order of the accepted reply, from 0
  SlaPacketState state = SlaPacketState::kSent;
  std::uint32_t ss =
      0;  ///< sequence number written into the probe, from 1; 0: not sent in this run
  std::uint32_t rs = 0;                    ///< UDP jitter types: responder's counter from the reply
  std::uint64_t send_stamp = 0;            ///< UDP: 10 ns of the day; icmp-jitter: ms of the day
  std::uint64_t remote_receive_stamp = 0;  ///< as send_stamp, at the responder
  std::uint64_t remote_transmit_stamp = 0;  ///< as send_stamp, at the responder
  std::uint64_t receive_stamp = 0;          ///< as send_stamp; stays 0 for udp-jitter-ntp
  double send_ms = 0;                       ///< ms of the day
  double receive_ms = 0;                    ///< ms of the day
  // In network order. Nothing fills them all: kept-behaviours.md#ntp-tests-have-no-usable-values
  std::uint64_t ntp_t1 = 0;
  std::uint64_t ntp_t2 = 0;
  std::uint64_t ntp_t3 = 0;
  std::uint64_t ntp_t4 = 0;
};

/// Result of one run. Times in milliseconds.
struct SlaTaskMetrics {
  RunResult status = RunResult::kSuccessful;
  std::string error_description;  ///< empty on success
  std::int64_t start_time = 0;    ///< seconds since the epoch
  std::int64_t finish_time = 0;   ///< seconds since the epoch
  std::int32_t sd_smp_count = 0;  ///< samples source to destination
  std::int32_t ds_smp_count = 0;  ///< samples destination to source
  std::int32_t rtt_smp_count = 0;
  std::int32_t sd_pkt_count = 0;  ///< probes sent
  std::int32_t ds_pkt_count = 0;  ///< replies accepted
  std::int32_t sd_loss = 0;
  std::int32_t ds_loss = 0;
  std::int32_t sd_out_of_sequence = 0;
  std::int32_t ds_out_of_sequence = 0;
  std::int32_t late_arrival = 0;
  std::int32_t skipped = 0;
  std::int32_t duplicate = 0;
  double sd_loss_pct = 0;
  double ds_loss_pct = 0;
  double jitter_sd_min = 0;
  double jitter_sd_avg = 0;
  double jitter_sd_sd = 0;
  double jitter_sd_max = 0;
  double jitter_ds_min = 0;
  double jitter_ds_avg = 0;
  double jitter_ds_sd = 0;
  double jitter_ds_max = 0;
  double latency_sd_min = 0;
  double latency_sd_avg = 0;
  double latency_sd_max = 0;
  double latency_ds_min = 0;
  double latency_ds_avg = 0;
  double latency_ds_max = 0;
  double rtt_min = 0;
  double rtt_avg = 0;
  double rtt_max = 0;

  bool operator==(const SlaTaskMetrics&) const = default;
};

/// Points of one task, and its last result.
struct SlaTaskStatistics {
  SlaTaskMetrics last;                 ///< what the Sender API reports
  std::uint32_t successful_count = 0;  ///< runs stored with a status other than fail
  std::uint32_t failed_count = 0;      ///< runs stored with status fail
  std::list<SlaTaskMetrics> history;   ///< oldest first, at most "num-rep-hist" entries
};

/// The statistics of all tasks, shared by the tests (which store into it) and the Sender API (which
/// reads and erases).
struct StatisticsStore {
  /// Held while a run is stored and reported, and while a reply is made.
  Mutex mutex;
  std::map<std::uint16_t, SlaTaskStatistics> tasks IPSLA_GUARDED_BY(mutex);  ///< by task id
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_TASK_METRICS_H_
