// What the completion of an asynchronous receive asks for. Pure.

#ifndef IPSLA_API_RECEIVE_OUTCOME_H_
#define IPSLA_API_RECEIVE_OUTCOME_H_

#include <cstddef>

#include <boost/asio/error.hpp>
#include <boost/system/error_code.hpp>

namespace ipsla {

/// What to do after a receive.
enum class ReceiveOutcome {
  kData,   ///< a datagram: handle it and receive again
  kAgain,  ///< nothing to handle: receive again
  kLost,   ///< the kernel dropped messages for want of room: receive again, and make up for them
           ///< where that is possible
  kEnd,    ///< closed, or a descriptor on which no receive can succeed: receiving again would only
           ///< spin
};

/// Sorts a completion. An error that the kernel reports once and then forgets (an ICMP error, for
/// example) is kAgain.
[[nodiscard]] inline ReceiveOutcome ClassifyReceive(const boost::system::error_code& error,
                                                    std::size_t bytes) {
  if (!error) return bytes == 0 ? ReceiveOutcome::kAgain : ReceiveOutcome::kData;
  if (error == boost::asio::error::no_buffer_space) return ReceiveOutcome::kLost;
  const bool unusable =
      error == boost::asio::error::operation_aborted ||
      error == boost::asio::error::bad_descriptor || error == boost::asio::error::not_socket ||
      error == boost::asio::error::invalid_argument || error == boost::asio::error::fault ||
      error == boost::asio::error::operation_not_supported;
  return unusable ? ReceiveOutcome::kEnd : ReceiveOutcome::kAgain;
}

}  // namespace ipsla

#endif  // IPSLA_API_RECEIVE_OUTCOME_H_
