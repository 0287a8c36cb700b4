// The life of one test: its runs, their results and its history.

#ifndef IPSLA_SENDER_SENDER_H_
#define IPSLA_SENDER_SENDER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/system/error_code.hpp>

#include "config/keychain.h"
#include "config/task_config.h"
#include "env/packet_stamps.h"
#include "env/time_values.h"
#include "log/mutex.h"
#include "sender/interface_table.h"
#include "sender/measurement_socket.h"
#include "sender/pacer.h"
#include "sender/probe_ring.h"
#include "sender/run_timer.h"
#include "sender/task_metrics.h"

namespace ipsla {

/// What every test shares with the daemon's central object.
struct SenderContext {
  std::shared_ptr<StatisticsStore> statistics;
  std::shared_ptr<const InterfaceTable> interfaces;
  std::shared_ptr<const KeyStore> keys;
  std::shared_ptr<Pacer> pacer;
};

/// One test, whatever its probes. Created by CreateSender, held by shared
/// pointer.
///
/// Life: Schedule() arms the first start; NewStart begins a run (StartTest of the concrete test);
/// its last reply, its time-out or a failure ends it in CalcMetric, which stores the result and
/// arms the next start. Nothing starts after the end of life or Stop(true).
///
/// Threads: handlers run on the worker context, public operations are called by the service thread,
/// probes are sent by the pacer's thread on duty. mutex_ guards all that is not constant and is
/// held for short steps only: not while a test waits for its next probe, and not while the metrics
/// of a run are computed, stored and reported (see reporting_).
///
/// Late handlers: runs have numbers, and a handler does nothing unless the number it was armed with
/// is still that of the run. Stop, Restart and the end of a run count on, so a run ends once. After
/// Stop() nothing is stored any more once the statistics' mutex has been taken.
///
/// Lifetime: each pending operation holds a shared pointer. The destructor need not be virtual:
/// boost::make_shared makes the concrete class, and its pointer alone destroys it.
///
/// Lock order: test, then pacer, statistics or interface table, then logger.
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
                          std::uint32_t new_address, std::uint32_t old_address)
      IPSLA_EXCLUDES(mutex_);

  /// A link appeared under `if_name` with this index, or (without a name) the link with this index
  /// is gone.
  void SetInterfaceIndex(const std::string& vrf_key, std::uint32_t if_index,
                         const std::optional<std::string>& if_name) IPSLA_EXCLUDES(mutex_);

  /// True when the end of life has passed or Stop(true) was called.
  [[nodiscard]] bool IsStopped();

  /// Constant: any thread.
  [[nodiscard]] std::uint16_t GetId() const { return id_; }
  [[nodiscard]] SlaTestType GetType() const { return type_; }

 protected:
  // Counts runs, and what ends them.
  using RunNumber = std::uint64_t;

  /// Holds mutex_ to the end of the block: the only way to lock it. A probe that fell due meanwhile
  /// goes back to the pacer then.
  class IPSLA_ATTRIBUTE(scoped_lockable) Lock {
   public:
    explicit Lock(Sender& test) IPSLA_ATTRIBUTE(acquire_capability(test.mutex_)) : test_(test) {
      test_.mutex_.lock();
    }
    /// Takes over the mutex that the caller holds.
    Lock(Sender& test, std::adopt_lock_t) IPSLA_ATTRIBUTE(requires_capability(test.mutex_))
        : test_(test) {}
    ~Lock() IPSLA_ATTRIBUTE(release_capability()) {
      test_.mutex_.unlock();
      test_.TakeUpLeftProbe();
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    Sender& test_;
  };

  /// What the timer does when it expires; called with mutex_ held. The name appears in the log.
  struct TimerHandler {
    const char* name;
    void (*run)(Sender& test);
  };

  /// What became of a probe that was to be sent.
  enum class SendOutcome : std::uint8_t {
    kSent,    ///< it left, or counts as one that was lost
    kFull,    ///< the socket takes no more for now; the probe is not counted
    kFailed,  ///< the sending of this run ends
  };

  /// How a concrete test sends and reads; both called with mutex_ held.
  struct ProbeCalls {
    /// Builds the next probe, opens its record and sends it.
    SendOutcome (*send)(Sender& test);
    /// Takes one datagram that arrived in time. False ends the receiving of this run.
    bool (*take)(Sender& test, const StampedDatagram& datagram);
  };

  /// When the run after this one starts.
  enum class NextRun : std::uint8_t {
    kByOutcome,  ///< as kAfterTime; but "retry" seconds from now when no probe could be sent
    kAfterTime,  ///< "time" seconds after this one's start, whatever happened
  };

  // Begin the next run; end the one that has run out of time.
  static const TimerHandler kNewStart;
  static const TimerHandler kTestStop;

  /// Copies the task, allocates buffers and records, completes the source interfaces from the
  /// interface table and opens the test's log file. Throws std::runtime_error when the log
  /// directory cannot be created.
  Sender(boost::asio::io_context& worker, const SlaTaskConfig& task, SenderContext context,
         const ProbeCalls& calls);
  ~Sender() = default;

  // The four operations of a concrete test.

  /// Starts one run: BeginRun, then the sockets, then the first probe or the control phase.
  /// Failures end in FailRun. Called with mutex_ held.
  virtual void StartTest() IPSLA_REQUIRES(mutex_) = 0;
  /// Fills metrics_ from the ring. Only called with at least one reply accepted, and without
  /// mutex_, while the results are the caller's (reporting_).
  virtual void CalcTestMetric() = 0;
  /// The value to keep as the task's latest: see LatestOf. Called as CalcTestMetric.
  [[nodiscard]] virtual SlaTaskMetrics GetMetrics(
      const std::list<SlaTaskMetrics>& history) const = 0;
  /// Closes every open socket of the run. Throws boost::system::system_error naming "close". Called
  /// with mutex_ held.
  virtual void CloseSockets() IPSLA_REQUIRES(mutex_) = 0;

  // For concrete tests; all require mutex_ unless they say otherwise.

  /// Opens a new run: counters, records and metrics as on a first run, buffers zeroed, start time
  /// now.
  void BeginRun() IPSLA_REQUIRES(mutex_);

  /// Ends the run as failed with this text. The caller has logged the reason.
  void FailRun(const std::string& error_description) IPSLA_REQUIRES(mutex_);

  /// Logs a failed start, as often as the limiter allows, and ends the run with "Start test
  /// failed".
  void FailStart(const std::string& reason) IPSLA_REQUIRES(mutex_);

  /// Ends the run: stores and reports its result, then waits for the next one. Gives mutex_
  /// back while it computes and reports: afterwards the test may have moved on.
  void CalcMetric(NextRun next = NextRun::kByOutcome) IPSLA_REQUIRES(mutex_);

  /// Arms the timer. A wait armed before is void from now on. Throws boost::bad_weak_ptr when no
  /// shared pointer owns the test.
  void StartFuncTimeout(const TimerHandler& handler, std::uint32_t milliseconds)
      IPSLA_REQUIRES(mutex_);

  /// Makes the armed wait of the timer void.
  void CancelTimer() IPSLA_REQUIRES(mutex_) { timer_.Cancel(); }

  /// As IsStopped().
  [[nodiscard]] bool IsStoppedLocked() const IPSLA_REQUIRES(mutex_);

  /// Sets the measurement socket's options as the task has them.
  void SetProbeOptions() IPSLA_REQUIRES(mutex_);

  /// Fills the probe behind its header, up to `end`, with random bytes, which
  /// do not change as long as the test lives.
  void FillPadding(std::size_t header, std::size_t end) IPSLA_REQUIRES(mutex_);

  /// Begins to receive and to send, and arms TestStop: the run ends after so many milliseconds, and
  /// no reply counts that the kernel stamped later.
  void StartProbing(std::uint32_t milliseconds) IPSLA_REQUIRES(mutex_);

  /// Lets the pacer send the next probe of this run now. Needs no lock.
  void PaceNow(RunNumber run);

  /// Opens the record of the next probe. To be called immediately before it is sent; `now` is the
  /// real-time clock's word for that moment.
  SlaPacketRecord& OpenProbe(const timespec& now) IPSLA_REQUIRES(mutex_);

  /// Sends the first `bytes` of send_buffer_ as the probe opened last. 0, or the errno value; with
  /// EAGAIN its record is taken back.
  [[nodiscard]] int SendProbe(std::size_t bytes, const sockaddr_in* to) IPSLA_REQUIRES(mutex_);

  /// Counts an accepted reply. The last one of the run ends it.
  void AcceptReply(SlaPacketRecord* record) IPSLA_REQUIRES(mutex_);

  /// The run's own metrics, or for a successful run of a jitter type those of its whole history.
  [[nodiscard]] SlaTaskMetrics LatestOf(const std::list<SlaTaskMetrics>& history) const
      IPSLA_UNCHECKED_LOCKING;

  /// A pointer to the concrete test, to be held by a pending operation.
  template <typename Test>
  [[nodiscard]] static boost::shared_ptr<Test> SharedFrom(Test* test) {
    return boost::static_pointer_cast<Test>(test->shared_from_this());
  }

  // Constant.
  const std::uint16_t id_;
  const SlaTestType type_;
  const std::int32_t num_packets_;
  const std::uint16_t packet_size_;  // bytes, as stored in the task
  const SenderContext context_;

  Mutex mutex_;                    // to be locked by Lock
  std::atomic<RunNumber> run_{0};  // written under mutex_; also read without it
  // Interfaces and sources follow the system; what the constants above repeat does not change.
  SlaTaskConfig config_ IPSLA_GUARDED_BY(mutex_);
  MeasurementSocket socket_ IPSLA_GUARDED_BY(mutex_);
  // At least kMinBufferBytes long, whatever the packet size: replies are read at fixed offsets.
  std::vector<std::uint8_t> send_buffer_ IPSLA_GUARDED_BY(mutex_);
  std::vector<std::uint8_t> receive_buffer_ IPSLA_GUARDED_BY(mutex_);
  static constexpr std::size_t kMinBufferBytes = 64;

  // The run's results. While reporting_ is set they belong to the thread that reports, without the
  // mutex: its operations are the ones with IPSLA_UNCHECKED_LOCKING.
  ProbeRing ring_ IPSLA_GUARDED_BY(mutex_);
  SlaTaskMetrics metrics_ IPSLA_GUARDED_BY(mutex_);

 private:
  // Start and end of runs (sender.cpp).
  void OnTimer(RunTimer::Ticket ticket, const TimerHandler& handler) IPSLA_EXCLUDES(mutex_);
  void NewStart() IPSLA_REQUIRES(mutex_);
  void EndByTimeout() IPSLA_REQUIRES(mutex_);
  [[nodiscard]] bool CheckSourceAddress() IPSLA_REQUIRES(mutex_);
  void FollowGivenAddresses() IPSLA_REQUIRES(mutex_);
  void FollowGivenAddress(SlaEndpointConfig* endpoint, in_addr given) const;
  [[nodiscard]] bool IsInVrf(const std::string& vrf_key) const IPSLA_REQUIRES(mutex_);
  void StopLocked(bool final) IPSLA_REQUIRES(mutex_);
  [[nodiscard]] std::uint32_t SecondsToNextRun() const IPSLA_REQUIRES(mutex_);
  void ClearFailedRun() IPSLA_REQUIRES(mutex_);
  void ReportRun() IPSLA_REQUIRES(mutex_);
  void StoreRun(const SlaTaskConfig& config) IPSLA_UNCHECKED_LOCKING;

  // Probes out and replies in (sender_probes.cpp).
  /// Takes mutex_, or leaves the due probe to who holds it. True when it was taken.
  [[nodiscard]] bool LockOrLeaveProbe(RunNumber run)
      IPSLA_ATTRIBUTE(try_acquire_capability(true, mutex_));
  void TakeUpLeftProbe();
  [[nodiscard]] std::optional<SteadyTime> SendDue(RunNumber run) IPSLA_EXCLUDES(mutex_);
  [[nodiscard]] std::optional<SteadyTime> SendNext() IPSLA_REQUIRES(mutex_);
  /// And not when they come; only behind the last probe it waits for them.
  [[nodiscard]] bool TakesRepliesWhenItSends() const IPSLA_REQUIRES(mutex_);
  /// Datagrams that can have come since somebody looked, by a generous estimate.
  [[nodiscard]] std::size_t MostThatWait() const IPSLA_REQUIRES(mutex_);
  void WaitToSend() IPSLA_REQUIRES(mutex_);
  void SendPacket(const boost::system::error_code& error, RunNumber run) IPSLA_EXCLUDES(mutex_);
  void WaitToReceive() IPSLA_REQUIRES(mutex_);
  void ReceivePacket(const boost::system::error_code& error, RunNumber run) IPSLA_EXCLUDES(mutex_);
  [[nodiscard]] bool TakeReplies(std::size_t most) IPSLA_REQUIRES(mutex_);
  [[nodiscard]] bool IsInTime(const timespec& arrival) const IPSLA_REQUIRES(mutex_);
  void TakeDepartures() IPSLA_REQUIRES(mutex_);

  static constexpr RunNumber kNoRun = 0;  // run_ is 1 in the first run
  // The run whose next probe fell due while a handler held mutex_, until that handler is done.
  std::atomic<RunNumber> left_probe_{kNoRun};
  // Constant.
  const ProbeCalls calls_;
  // The sources that the task gives by address; 0 where it names an interface.
  const in_addr given_control_;
  const in_addr given_measurement_;
  RunTimer timer_ IPSLA_GUARDED_BY(mutex_);
  bool receiving_ IPSLA_GUARDED_BY(mutex_) = false;  // until an error or `take` ends it
  SteadyTime run_start_ IPSLA_GUARDED_BY(mutex_);    // of this run
  timespec run_start_real_ IPSLA_GUARDED_BY(mutex_){};
  SteadyTime last_send_ IPSLA_GUARDED_BY(mutex_);          // immediately before the last probe
  SteadyTime deadline_ IPSLA_GUARDED_BY(mutex_);           // of this run, once its probes go out
  std::uint32_t stamp_base_ IPSLA_GUARDED_BY(mutex_) = 0;  // sequence number of stamp number 0
  std::int64_t end_of_life_ IPSLA_GUARDED_BY(mutex_) = 0;  // nanoseconds since the epoch
  bool scheduled_ IPSLA_GUARDED_BY(mutex_) = false;        // Schedule() armed the first start
  bool stopped_ IPSLA_GUARDED_BY(mutex_) = false;
  // Stop() was called: what is being reported is not stored any more. Written under mutex_.
  std::atomic<bool> withdrawn_{false};
  // A run that has ended is being computed, stored and reported, without mutex_. A start that
  // falls into this time waits for its end.
  bool reporting_ IPSLA_GUARDED_BY(mutex_) = false;
  bool start_after_report_ IPSLA_GUARDED_BY(mutex_) = false;
};

}  // namespace ipsla

#endif  // IPSLA_SENDER_SENDER_H_
