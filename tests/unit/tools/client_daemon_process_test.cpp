#include <sys/stat.h>

#include <ctime>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/daemon_process.h"
#include "client/daemon_version.h"
#include "client/file_text.h"
#include "support/temporary_directory.h"

namespace ipsla::client {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

constexpr std::uint16_t kPort = 10101;

/// A process table of a test's own making.
class FakeProc {
 public:
  FakeProc() {
    Write(directory_ / "self/net/udp",
          "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  "
          "timeout inode ref pointer drops\n"
          "  271: 0100007F:0035 00000000:0000 07 00000000:00000000 00:00000000 00000000     0"
          "        0 111 2 0000000000000000 0\n"
          "  272: 0100007F:2775 00000000:0000 07 00000000:00000000 00:00000000 00000000     0"
          "        0 222 2 0000000000000000 0\n");
    Link("self/ns/net", "net:[1]");
    Link("self/ns/mnt", "mnt:[1]");
  }

  void Add(int pid, const std::string& command_line, const std::string& name = "ip-sla-sender") {
    const fs::path process = directory_ / std::to_string(pid);
    Write(process / "comm", name + "\n");
    Write(process / "cmdline", command_line);
    Write(process / "stat", std::to_string(pid) +
                                " (a ) name) S 1 1 1 0 -1 4194560 1 0 0 0 0 0 0 "
                                "0 20 0 18 0 100 1 1\n");
  }
  void Link(const std::string& path, const std::string& target) {
    fs::create_directories((directory_ / path).parent_path());
    fs::create_symlink(target, directory_ / path);
  }
  [[nodiscard]] std::vector<DaemonProcess> Find() const {
    return FindDaemons(kPort, directory_.Path().string());
  }
  [[nodiscard]] std::string Path() const { return directory_.Path().string(); }

 private:
  static void Write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
  }

  test::TemporaryDirectory directory_;
};

/// Words of a command line with the NULs between them.
std::string CommandLine(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += word + '\0';
  }
  return text;
}

std::vector<int> PidsOf(const std::vector<DaemonProcess>& daemons) {
  std::vector<int> pids;
  for (const DaemonProcess& daemon : daemons) {
    pids.push_back(daemon.pid);
  }
  return pids;
}

TEST(DaemonProcess, HasItsFilesAndItsStart) {
  FakeProc proc;
  proc.Add(40, CommandLine({"/usr/sbin/ip-sla-sender", "-f", "/etc/tasks.json", "-kkeys.json"}));
  proc.Link("40/cwd", "/srv");
  const auto daemons = proc.Find();
  ASSERT_THAT(PidsOf(daemons), ElementsAre(40));
  EXPECT_EQ(daemons[0].tasks_file, "/etc/tasks.json");
  EXPECT_EQ(daemons[0].keychain_file, "/srv/keys.json");
  timespec since_boot{};
  clock_gettime(CLOCK_BOOTTIME, &since_boot);
  const std::int64_t boot = std::time(nullptr) - since_boot.tv_sec;
  ASSERT_TRUE(daemons[0].started);
  EXPECT_NEAR(static_cast<double>(*daemons[0].started), static_cast<double>(boot + 1), 2)
      << "100 ticks after the boot";
}

TEST(DaemonProcess, HasTheLastOfRepeatedOptions) {
  FakeProc proc;
  proc.Add(40, CommandLine({"ip-sla-sender", "-f", "-k", "-f", "b", "-k", "c"}));
  const auto daemons = proc.Find();
  ASSERT_EQ(daemons.size(), 1U);
  EXPECT_EQ(daemons[0].tasks_file, "b") << "relative where the directory may not be read";
  EXPECT_EQ(daemons[0].keychain_file, "c");
}

TEST(DaemonProcess, IsFoundByItsNameInThisNetworkNamespace) {
  FakeProc proc;
  const std::string words = CommandLine({"ip-sla-sender"});
  proc.Add(50, words);
  proc.Add(41, words);
  proc.Add(42, words, "ip-sla-ctl");
  proc.Add(43, words);
  proc.Add(44, "");  // ended
  proc.Link("41/ns/net", "net:[1]");
  proc.Link("43/ns/net", "net:[2]");
  EXPECT_THAT(PidsOf(proc.Find()), ElementsAre(41, 50)) << "of 50 it may not be told";
}

TEST(DaemonProcess, AnswersWhenItHasThePort) {
  FakeProc proc;
  const std::string words = CommandLine({"ip-sla-sender"});
  proc.Add(41, words);
  proc.Add(42, words);
  proc.Link("41/fd/3", "socket:[111]");
  proc.Link("42/fd/3", "/dev/null");
  proc.Link("42/fd/4", "socket:[222]");
  const auto daemons = proc.Find();
  ASSERT_EQ(daemons.size(), 2U);
  EXPECT_EQ(daemons[0].has_port, false);
  EXPECT_EQ(daemons[1].has_port, true);
  ASSERT_NE(AnsweringDaemon(daemons), nullptr);
  EXPECT_EQ(AnsweringDaemon(daemons)->pid, 42);
}

TEST(DaemonProcess, AnswersWhenItIsTheOnlyOneAndMayNotBeAsked) {
  EXPECT_EQ(AnsweringDaemon({}), nullptr);
  EXPECT_NE(AnsweringDaemon({{.pid = 1}}), nullptr);
  EXPECT_EQ(AnsweringDaemon({{.pid = 1}, {.pid = 2}}), nullptr);
  EXPECT_EQ(AnsweringDaemon({{.pid = 1, .has_port = false}}), nullptr)
      << "another program has the port";
}

TEST(DaemonProcess, IsReachedThroughItsRootWhenItsFilesAreElsewhere) {
  FakeProc proc;
  proc.Add(41, CommandLine({"ip-sla-sender", "-f", "/tasks.json"}));
  proc.Link("41/ns/mnt", "mnt:[2]");
  const auto daemons = proc.Find();
  ASSERT_EQ(daemons.size(), 1U);
  EXPECT_EQ(daemons[0].Reachable("/tasks.json"), proc.Path() + "/41/root/tasks.json");
  EXPECT_EQ(DaemonProcess{}.Reachable("/tasks.json"), "/tasks.json");
}

TEST(DaemonPlans, AreThoseOfItsFile) {
  const test::TemporaryDirectory directory;
  const std::string path = directory / "tasks.json";
  std::ofstream(path) << R"({"IP-SLA-tasks":[{"sla-id":3}]})";
  const DaemonProcess daemon{.pid = 1, .tasks_file = path};
  std::string error;
  const auto plans = ReadDaemonPlans(&daemon, &error);
  ASSERT_TRUE(plans) << error;
  EXPECT_TRUE(plans->contains(3));
}

TEST(DaemonPlans, SayWhyThereAreNone) {
  const test::TemporaryDirectory directory;
  std::string error;
  EXPECT_FALSE(ReadDaemonPlans(nullptr, &error));
  EXPECT_EQ(error, "the daemon's tasks file is not known");
  const std::string path = directory / "tasks.json";
  EXPECT_FALSE(ReadPlansFile(path, &error));
  EXPECT_EQ(error, path + ": No such file or directory");
  std::ofstream(path) << "nonsense";
  EXPECT_FALSE(ReadPlansFile(path, &error));
  EXPECT_EQ(error, path + ": it is no tasks file");
}

TEST(FileText, ReadsARegularFileUpToALimit) {
  const test::TemporaryDirectory directory;
  const std::string path = directory / "text";
  std::ofstream(path) << std::string(200000, 'x') << "end";
  std::string error;
  EXPECT_EQ(ReadRegularFile(path, 200003, &error).value_or("").size(), 200003U) << error;
  EXPECT_FALSE(ReadRegularFile(path, 200002, &error));
  EXPECT_EQ(error, "it is too long");
  EXPECT_EQ(ReadFileEnd(path, 5), "xxend");
  EXPECT_EQ(ReadFileEnd(path, 1 << 20).value_or("").size(), 200003U);
}

TEST(FileText, DoesNotWaitForAFifo) {
  const test::TemporaryDirectory directory;
  const std::string path = directory / "fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  std::string error;
  EXPECT_FALSE(ReadRegularFile(path, 100, &error));
  EXPECT_EQ(error, "it is no regular file");
  EXPECT_FALSE(ReadFileEnd(path, 100));
  EXPECT_FALSE(ReadRegularFile(directory.Path().string(), 100, &error));
  EXPECT_EQ(error, "Is a directory");
}

TEST(DaemonVersion, IsInTheBanner) {
  EXPECT_EQ(VersionIn("IP SLA module version R1.2.3-4 (compiled Jan  1 2024 @ 00:00:00)\n"),
            "R1.2.3-4");
  EXPECT_EQ(VersionIn("IP SLA module version R1\n"), "R1");
  EXPECT_EQ(VersionIn("IP SLA module version \n"), std::nullopt);
  EXPECT_EQ(VersionIn("usage"), std::nullopt);
}

// Any process may call itself like the daemon: its program is not run.
TEST(DaemonVersion, IsNotAskedOfAnotherProgram) {
  EXPECT_EQ(VersionOf({.pid = getpid()}), std::nullopt);
}

}  // namespace
}  // namespace ipsla::client
