// The daemon's central object for tests: configuration files, and a client whose thread runs the
// service context.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_API_FIXTURE_H_
#define IPSLA_TESTS_UNIT_SUPPORT_API_FIXTURE_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "api/api_sender.h"
#include "support/api_client.h"

namespace ipsla::test {

/// What a test logs when it is to start without delay.
inline constexpr const char* kStartAtOnce = "func 'NewStart' timeout 0 ms";

/// A task of the tasks file: icmp-echo on loopback, every 3600 seconds, unless a test says
/// otherwise.
struct TaskEntry {
  int id = 1;
  int interval = 20;
  std::string vrf{};  ///< empty: none
  std::string source = "127.0.0.1";
  std::string start = "now";

  [[nodiscard]] std::string Json() const;
};

/// Files, client and (once Start() was called) the object itself.
class ApiFixture : public ApiClient {
 public:
  ApiFixture();
  ~ApiFixture() override;

  void WriteTasks(const std::vector<TaskEntry>& tasks, const std::string& cpus = "[]") const;
  void WriteTasksText(const std::string& text) const;
  void WriteKeychain(const std::string& text) const;

  /// Creates the object on the current files; the result of ParseConfigsAndStart.
  [[nodiscard]] int Start();

  /// Destroys the object.
  void End() { sender.reset(); }

  /// By task id (0 to 9), of those with statistics, as the API tells it.
  [[nodiscard]] std::map<int, int> SuccessfulRuns();

  std::optional<ApiSender> sender;
  std::string tasks_file;
  std::string keychain_file;

 private:
  std::string directory_;
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_API_FIXTURE_H_
