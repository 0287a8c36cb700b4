// The watchdog keep-alive: tells the device's watchdog every 10 seconds that the service loop is
// alive.

#ifndef IPSLA_ENV_KEEP_ALIVE_H_
#define IPSLA_ENV_KEEP_ALIVE_H_

#include <boost/asio/io_context.hpp>

namespace ipsla {

/// Starts the keep-alive on the service context, or, when it runs already (the wall clock was set),
/// starts its period over: the next signal follows 5 seconds from now. The first call announces the
/// process to the watchdog; the first signal follows 10 seconds later, then one every 10 seconds.
/// Threads: the main thread before the service context runs, afterwards the API thread only. There
/// is one keep-alive per process; it lives on the context of the first call. Throws
/// boost::system::system_error naming "cancel".
void StartKeepAlive(boost::asio::io_context& service);

/// The signal in between, for work that keeps the service context from running for long: sends it
/// when one is due, and does nothing before StartKeepAlive. Threads: as StartKeepAlive.
void SignalKeepAlive();

}  // namespace ipsla

#endif  // IPSLA_ENV_KEEP_ALIVE_H_
