// The life of one test: its timer, its runs, their results and its history.

#ifndef IPSLA_SENDER_SENDER_H_
#define IPSLA_SENDER_SENDER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/system/error_code.hpp>

#include "config/keychain.h"
#include "config/task_config.h"
#include "env/packet_stamps.h"
#include "sender/interface_table.h"
#include "sender/task_metrics.h"

namespace ipsla {

/// What every test shares with the daemon's central object.
struct SenderContext {
  std::shared_ptr<StatisticsStore> statistics;
  std::shared_ptr<const InterfaceTable> interfaces;
  std::shared_ptr<const KeyStore> keys;
};

/// One test: everything that ICMP and UDP tests have in common. Created by CreateSender, held by
/// shared pointer.
///
/// Life: Schedule() arms the timer for the first run; NewStart starts a run (StartTest of the
/// subclass); the run ends with its last reply, its time-out or a failure, all of which lead to
/// CalcMetric, which stores the result and arms the timer for the next run. After the end of life,
/// or after Stop(true), no further run starts.
///
/// Threads: the worker context's threads run all handlers, the service thread calls the public
/// operations. mutex_ guards every field that is not constant; each handler and each public
/// operation holds it for its short steps. It is never held while a sender sleeps between probes.
///
/// Late handlers: every run has a number, and so has every armed wait of the timer. A handler
/// carries the number it was armed with and does nothing when the test has moved on. Stop, Restart
/// and the end of a run move the test on, so a run is stored exactly once, and nothing of it is
/// stored after Stop() has returned.
///
/// Lifetime: every pending operation holds a shared pointer. The destructor is deliberately not
/// virtual: tests are created by boost::make_shared for their concrete class and destroyed through
/// that pointer only.
///
/// Lock order: test, then statistics or interface table, then logger.
class Sender : public boost::enable_shared_from_this<Sender> {
 public:
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  /// The first start. Throws std::runtime_error "Cannot parse time string: ..." for a bad start or
  /// life time. A negative life time leaves the test unstarted for good. Call once.
  void Schedule();

  /// Ends the run in progress without storing it, closes its sockets and cancels the timer. With
  /// `final` the test never starts again. Throws boost::system::system_error when a socket cannot
  /// be closed.
  void Stop(bool final);

  /// The wall clock was set: ends the run in progress; the next one starts "time" seconds from now.
  /// Never throws.
  void Restart();

  // What the interface watcher saw in one VRF. Indexes and addresses repeat from VRF to VRF, so a
  // test of another one is not concerned.

  /// An IPv4 address of an interface came (`old_address` 0), went (`new_address` 0) or changed;
  /// addresses in network byte order. When the interface is one of the test's, the test takes the
  /// new source address and restarts at once. Never throws.
  void UpdateLocalAddress(const std::string& vrf_key, std::uint32_t if_index,
                          std::uint32_t new_address, std::uint32_t old_address);

  /// A link appeared under `if_name` with this index, or (without a name) the link with this index
  /// is gone.
  void SetInterfaceIndex(const std::string& vrf_key, std::uint32_t if_index,
                         const std::optional<std::string>& if_name);

  /// True when the end of life has passed or Stop(true) was called.
  [[nodiscard]] bool IsStopped() const;

  [[nodiscard]] std::uint16_t GetId() const { return config_.sla_id; }
  [[nodiscard]] SlaTestType GetType() const { return config_.sla_type; }

 protected:
  using RunNumber = std::uint64_t;

  /// What the timer does when it expires; called with mutex_ held. The name appears in the log.
  struct TimerHandler {
    const char* name;
    void (*run)(Sender& test);
  };

  /// When the run after this one starts.
  enum class NextRun {
    kByOutcome,  ///< "time" seconds after this one's start; "retry" seconds from now when it failed
                 ///< before any probe
    kAfterTime,  ///< "time" seconds after this one's start, whatever happened
  };

  static const TimerHandler kNewStart;

  /// Copies the task, allocates buffers and records, completes the source interfaces from the
  /// interface table and opens the test's log file. Throws std::runtime_error when the log
  /// directory cannot be created.
  Sender(boost::asio::io_context& worker, const SlaTaskConfig& task, SenderContext context);
  ~Sender() = default;

  // The four operations of a concrete test. All are called with mutex_ held.

  /// Starts one run: BeginRun, then the sockets, then the first probe or the control phase.
  /// Failures end in FailRun.
  virtual void StartTest() = 0;
  /// Fills metrics_ from packets_. Only called with at least one reply accepted.
  virtual void CalcTestMetric() = 0;
  /// The value to keep as the task's latest: the run's own, or for a successful jitter run the
  /// history's aggregate.
  [[nodiscard]] virtual SlaTaskMetrics GetMetrics(
      const std::list<SlaTaskMetrics>& history) const = 0;
  /// Closes every open socket of the run. Throws boost::system::system_error naming "close".
  virtual void CloseSockets() = 0;

  // For concrete tests; all require mutex_ unless they say otherwise.

  /// Opens a new run: counters, records and metrics as on a first run, buffers zeroed, start time
  /// now.
  void BeginRun();

  /// Ends the run as failed with this text. The caller has logged the reason.
  void FailRun(const std::string& error_description);

  /// Ends the run: stores its result, reports it and arms the timer for the next one.
  void CalcMetric(NextRun next = NextRun::kByOutcome);

  /// TestStop's work: ends the run unless the test has stopped meanwhile (the run is then not
  /// stored and its sockets stay open until the test is stopped or destroyed; deliberate).
  void EndByTimeout();

  /// Arms the timer. A wait armed before is void from now on. Throws boost::bad_weak_ptr when no
  /// shared pointer owns the test.
  void StartFuncTimeout(const TimerHandler& handler, std::uint32_t milliseconds);

  /// Makes the armed wait of the timer void.
  void CancelTimer();

  [[nodiscard]] bool IsStoppedLocked() const;

  /// Starts the record of the probe about to be sent: sequence number, state and times.
  SlaPacketRecord& OpenRecord(std::uint32_t sequence, const timespec& now);

  /// The slot of a reply with this sequence number, or null when that slot was not sent in this
  /// run.
  [[nodiscard]] SlaPacketRecord* FindSent(std::uint32_t sequence);

  /// Marks a slot as answered: arrival order, state, counters.
  void AcceptReply(SlaPacketRecord* record);

  /// The work of a send handler, called WITHOUT mutex_: sleeps for the rest of the interval since
  /// the last probe, cut to whole units of `granularity_ns`, then calls `send_probe` with mutex_
  /// held. Does nothing once `run` is over. A failed wait is logged and ends the sending.
  void PacedSend(const boost::system::error_code& error, RunNumber run, std::int64_t granularity_ns,
                 const std::function<void()>& send_probe);

  /// The work of a receive handler: takes what has arrived on `fd`, at most `size` bytes each, and
  /// hands every datagram to `take` until that returns false or ends the run. True when receiving
  /// goes on: nothing more is there for now, or after `most` datagrams others should have their
  /// turn. A receive error is logged and ends the receiving. Once it has ended, it stays so for the
  /// rest of the run: later calls take nothing and return false.
  [[nodiscard]] bool DrainReplies(int fd, std::size_t size,
                                  const std::function<bool(const StampedDatagram&)>& take,
                                  std::size_t most = kDatagramsPerTurn);

  /// As many datagrams as a run can reasonably have waiting: what TestStop drains before it counts
  /// losses.
  [[nodiscard]] std::size_t AllReplies() const { return 2 * packets_.size() + kDatagramsPerTurn; }

  /// Logs a failed start, as often as the limiter allows, and ends the run with "Start test
  /// failed".
  void FailStart(const std::string& reason);

  /// Boost's weak reference as a pointer to the concrete test, to be held by a pending operation.
  template <typename Test>
  [[nodiscard]] static boost::shared_ptr<Test> SharedFrom(Test* test) {
    return boost::static_pointer_cast<Test>(test->shared_from_this());
  }

  mutable std::mutex mutex_;
  boost::asio::io_context& worker_;
  const SenderContext context_;

  // All guarded by mutex_.
  std::atomic<RunNumber> run_{
      0};  // also read without mutex_ by a sleeping sender; written under it only
  SlaTaskConfig
      config_;  // id, type and numbers are constant; interfaces and sources follow the system
  std::uint32_t packets_sent_ = 0;      // sequence number of the last probe
  std::uint32_t packets_received_ = 0;  // distinct probes answered
  SlaTaskMetrics metrics_;              // the run in progress
  std::vector<SlaPacketRecord> packets_;
  // At least kMinBufferBytes long, whatever the packet size: replies are read at fixed offsets.
  std::vector<std::uint8_t> send_buffer_;
  std::vector<std::uint8_t> receive_buffer_;

  static constexpr std::size_t kMinBufferBytes = 64;
  static constexpr std::size_t kDatagramsPerTurn = 64;

 private:
  void OnTimer(const boost::system::error_code& error, std::uint64_t ticket,
               const TimerHandler& handler);
  void NewStart();
  [[nodiscard]] bool IsInVrf(const std::string& vrf_key) const;
  [[nodiscard]] bool CheckSourceAddress();
  void CompleteSourceInterface(SlaEndpointConfig* endpoint) const;
  void StopLocked(bool final);
  [[nodiscard]] std::size_t SlotOf(std::uint32_t sequence) const {
    return sequence % packets_.size();
  }
  void StoreRun();
  [[nodiscard]] std::int64_t PauseNanoseconds() const;
  [[nodiscard]] bool Pace(RunNumber run, std::int64_t pause_nanoseconds) const;

  // All guarded by mutex_.
  boost::asio::steady_timer timer_;
  std::uint64_t timer_ticket_ = 0;     // number of the armed wait
  bool receiving_ = false;             // until an error or `take` ends this run's receiving
  std::int64_t last_send_steady_ = 0;  // steady clock at the last probe of this run
  std::int64_t end_of_life_ = 0;       // nanoseconds since the epoch
  bool scheduled_ = false;             // Schedule() armed the first start
  bool stopped_ = false;
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_SENDER_H_
