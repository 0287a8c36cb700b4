// The listening end: connections, bounded in number, size and time.

#ifndef IPSLA_TOOLS_EXPORTER_HTTP_SERVER_H_
#define IPSLA_TOOLS_EXPORTER_HTTP_SERVER_H_

#include <cstddef>
#include <list>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "exporter/routes.h"

namespace ipsla::exporter {

class HttpSession;

/// Largest number of connections. One more takes the place of the one that has waited longest for
/// its other side, to send a request or to take an answer; when all of them are being answered, it
/// is closed.
inline constexpr std::size_t kMaxConnections = 64;

/// Threads: the one that runs the context, alone. Must outlive all that runs there.
class HttpServer {
 public:
  /// Serves whoever connects to a listening socket.
  HttpServer(boost::asio::io_context* context, boost::asio::ip::tcp::acceptor acceptor,
             const Routes* routes);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// Where it listens.
  [[nodiscard]] boost::asio::ip::tcp::endpoint LocalEndpoint() const {
    return acceptor_.local_endpoint();
  }

 private:
  // Steps of a connection on its way in.
  void Accept();
  void Admit(boost::asio::ip::tcp::socket socket);
  [[nodiscard]] bool MakePlace();

  // Outlive the server.
  boost::asio::io_context* const context_;
  const Routes* const routes_;
  // Listens, or pauses for want of descriptors.
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer pause_;
  std::list<std::weak_ptr<HttpSession>> sessions_;  // oldest first
};

}  // namespace ipsla::exporter

#endif  // IPSLA_TOOLS_EXPORTER_HTTP_SERVER_H_
