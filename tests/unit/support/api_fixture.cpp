#include "support/api_fixture.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace ipsla::test {
namespace {

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::trunc);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace

std::string TaskEntry::Json() const {
  const std::string endpoints =
      R"("src-address": ")" + source +
      R"(", "src-port": "any", "dst-address": "127.0.0.1", "dst-port": 1967)";
  return R"({"sla-id": )" + std::to_string(id) +
         R"(, "schedule": true, "num-rep-hist": 3,
             "scheduler": {"time": 3600, "Start-time": ")" +
         start + R"(", "life-time": "forever"},)" +
         (vrf.empty() ? "" : R"("vrf-instance": ")" + vrf + R"(",)") +
         R"("control-phase": {"timeout": 1000, "retry": 5, "authentication": {"mode": "no"}, )" +
         endpoints + R"(},
             "sla-type": "icmp-echo",
             "icmp-echo": {"num-packets": 3, "packet-size": 100, "interval": )" +
         std::to_string(interval) + R"(, "timeout": 1000, "ttl": 64, "dscp": 0, "cos": 0, )" +
         endpoints + "}}";
}

ApiFixture::ApiFixture() {
  std::string pattern = (std::filesystem::temp_directory_path() / "ipsla-api-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  directory_ = pattern;
  tasks_file = directory_ + "/tasks.json";
  keychain_file = directory_ + "/keychain.json";
  WriteTasks({});
  WriteKeychain(R"({"keychain-storage": []})");
  client_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(kApiPort);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(client_, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
    throw std::runtime_error("connect failed");
  }
  const int room = 32 * 1024 * 1024;
  setsockopt(client_, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
}

ApiFixture::~ApiFixture() {
  End();
  close(client_);
  std::filesystem::remove_all(directory_);
}

void ApiFixture::WriteTasks(const std::vector<TaskEntry>& tasks, const std::string& cpus) const {
  std::string list;
  for (const TaskEntry& task : tasks) list += (list.empty() ? "" : ",\n") + task.Json();
  WriteTasksText(R"({"cpus": )" + cpus + R"(, "IP-SLA-tasks": [)" + list + "]}");
}

void ApiFixture::WriteTasksText(const std::string& text) const {
  WriteFile(tasks_file, text);
}

void ApiFixture::WriteKeychain(const std::string& text) const {
  WriteFile(keychain_file, text);
}

int ApiFixture::Start() {
  sender.emplace(service, tasks_file, keychain_file);
  return sender->ParseConfigsAndStart();
}

bool ApiFixture::RunUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    service.restart();
    service.run_one_for(std::chrono::milliseconds(5));
  }
  return true;
}

void ApiFixture::Send(const std::vector<std::uint8_t>& datagram) const {
  if (send(client_, datagram.data(), datagram.size(), 0) != static_cast<ssize_t>(datagram.size())) {
    throw std::runtime_error(std::string("send failed: ") + std::strerror(errno));
  }
}

std::optional<std::vector<std::uint8_t>> ApiFixture::TakeReply() const {
  std::vector<std::uint8_t> reply(65536);
  const ssize_t size = recv(client_, reply.data(), reply.size(), 0);
  if (size < 0) return std::nullopt;
  reply.resize(static_cast<std::size_t>(size));
  return reply;
}

std::vector<std::uint8_t> ApiFixture::ReceiveReply() {
  std::optional<std::vector<std::uint8_t>> reply;
  static_cast<void>(RunUntil([&] { return (reply = TakeReply()).has_value(); }));
  return reply.value_or(std::vector<std::uint8_t>());
}

std::vector<std::uint8_t> ApiFixture::Exchange(const std::vector<std::uint8_t>& datagram) {
  Send(datagram);
  return ReceiveReply();
}

std::vector<std::uint8_t> RequestBytes(std::uint16_t command, const std::string& json) {
  std::vector<std::uint8_t> bytes = {'p', 'r',  'e',  'f',  'i', 'x', '-', '8',  // prefix
                                     1,   0xFE, 0xAB, 0xCD,  // marker, flags, reserved
                                     1,   2,    3,    4,     // fragment number
                                     9,   9,    9,    9,     // datagram length: anything goes
                                     0,   0,    0,    0,     // command, result
                                     7,   7,    7,    7};    // block length: likewise
  std::memcpy(&bytes[20], &command, sizeof command);
  if (json.empty()) return bytes;
  bytes.insert(bytes.end(), json.begin(), json.end());
  bytes.push_back(0);
  return bytes;
}

}  // namespace ipsla::test
