// The stand-in for the system-log library, as the daemon loads it. Each test is a child process
// with a /dev/log of its own.

#include "platform/logsvc.h"

#include <dlfcn.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/child_process.h"
#include "support/paths.h"

namespace ipsla::test {
namespace {

struct LogLibrary {
  decltype(&SYSLOG_message) message = nullptr;
  decltype(&SYSLOG_close) close = nullptr;
};

// Past the recording functions of this program to the library's own.
LogLibrary LoadLogLibrary() {
  void* handle = dlopen(LibraryPath("liblogsvc.so").c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) FinishChild(dlerror());
  LogLibrary library;
  library.message = reinterpret_cast<decltype(library.message)>(dlsym(handle, "SYSLOG_message"));
  library.close = reinterpret_cast<decltype(library.close)>(dlsym(handle, "SYSLOG_close"));
  if (!library.message || !library.close || library.message == &SYSLOG_message) {
    FinishChild("symbols");
  }
  return library;
}

void EnterPrivateDev() {
  if (unshare(CLONE_NEWNS) != 0 || mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) {
    FinishChild("no private /dev");
  }
}

int ListenAsSystemLog() {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  unlink(address.sun_path);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    FinishChild("no /dev/log");
  }
  return fd;
}

// Local datagrams are there as soon as they are sent. Nothing left: an empty text.
std::string TakeDatagram(int fd) {
  std::vector<char> buffer(200000);
  const ssize_t length = recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
  return length < 0 ? "" : std::string(buffer.data(), static_cast<std::size_t>(length));
}

// The text behind the header; the whole datagram when it has no right one.
std::string TextOf(const std::string& datagram) {
  const std::string program = " ipsla-unit-tests[" + std::to_string(getpid()) + "]: ";
  const std::size_t found = datagram.find(program);
  return found == std::string::npos ? datagram : datagram.substr(found + program.size());
}

void ExpectText(int fd, const std::string& text) {
  const std::string received = TextOf(TakeDatagram(fd));
  if (received != text) FinishChild("expected " + text + ", received " + received);
}

// Messages that go through again after an attempt failed: the next attempt is a moment later.
void SendUntilTaken(const LogLibrary& library, int fd, std::string* first) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (first->empty() && std::chrono::steady_clock::now() < deadline) {
    library.message(59, 1, 7, "%s", "again");
    *first = TakeDatagram(fd);
  }
}

TEST(LogServiceStandInTest, SendsToTheSystemLogWithTheGivenSeverity) {
  const auto run = [] {
    const LogLibrary library = LoadLogLibrary();
    EnterPrivateDev();
    const int fd = ListenAsSystemLog();
    library.message(59, 1, 7, "%%%s-%s: %d", "IP_SLA", "D", 42);
    const std::string first = TakeDatagram(fd);
    if (!first.starts_with("<15>") || TextOf(first) != "%IP_SLA-D: 42") FinishChild(first);
    library.message(59, 0, 3, "%s", "broken");
    const std::string second = TakeDatagram(fd);
    if (!second.starts_with("<11>") || TextOf(second) != "broken") FinishChild(second);
    FinishChild("");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(LogServiceStandInTest, WritesTheTimeAsSyslogDoes) {
  const auto run = [] {
    setenv("TZ", "LAB-05:30", 1);
    const LogLibrary library = LoadLogLibrary();
    EnterPrivateDev();
    const int fd = ListenAsSystemLog();
    const std::time_t before = std::time(nullptr);
    library.message(59, 1, 7, "%s", "now");
    const std::time_t after = std::time(nullptr);
    const std::string received = TakeDatagram(fd);
    for (std::time_t second = before; second <= after; ++second) {
      std::array<char, 32> stamp{};
      tm local{};
      localtime_r(&second, &local);
      std::strftime(stamp.data(), stamp.size(), "<15>%b %e %T ", &local);
      if (received.starts_with(stamp.data())) FinishChild("");
    }
    FinishChild(received);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(LogServiceStandInTest, SendsLongTextsWholeAndKeepsErrno) {
  const auto run = [] {
    const LogLibrary library = LoadLogLibrary();
    EnterPrivateDev();
    const int fd = ListenAsSystemLog();
    const std::string text(50000, 'x');
    errno = EXDEV;
    library.message(59, 1, 7, "%s, %d", text.c_str(), 12);
    if (errno != EXDEV) FinishChild("errno");
    ExpectText(fd, text + ", 12");
    FinishChild("");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(LogServiceStandInTest, OpensAgainAfterItWasClosed) {
  const auto run = [] {
    const LogLibrary library = LoadLogLibrary();
    EnterPrivateDev();
    library.close();
    const int fd = ListenAsSystemLog();
    library.message(59, 1, 7, "%s", "before");
    ExpectText(fd, "before");
    library.close();
    library.message(59, 1, 7, "%s", "after closing");
    ExpectText(fd, "after closing");
    FinishChild("");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(LogServiceStandInTest, DoesNotWaitForALogThatIsNotRead) {
  const auto run = [] {
    const LogLibrary library = LoadLogLibrary();
    EnterPrivateDev();
    const int fd = ListenAsSystemLog();
    constexpr int kMessages = 20000;
    for (int i = 0; i < kMessages; ++i) library.message(59, 1, 7, "message %d", i);
    int taken = 0;
    for (; !TakeDatagram(fd).empty(); ++taken) continue;
    if (taken == 0 || taken == kMessages) FinishChild("taken " + std::to_string(taken));
    library.message(59, 1, 7, "%s", "read again");
    const std::string notice = TakeDatagram(fd);
    const std::string expected = std::to_string(kMessages - taken) + " messages lost";
    if (!notice.starts_with("<12>") || TextOf(notice) != expected) FinishChild(notice);
    ExpectText(fd, "read again");
    library.message(59, 1, 7, "%s", "said once");
    ExpectText(fd, "said once");
    FinishChild("");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(LogServiceStandInTest, FindsALogServiceThatWasStartedAnew) {
  const auto run = [] {
    const LogLibrary library = LoadLogLibrary();
    EnterPrivateDev();
    const int first = ListenAsSystemLog();
    library.message(59, 1, 7, "%s", "to the first");
    ExpectText(first, "to the first");
    close(first);
    const int second = ListenAsSystemLog();
    library.message(59, 1, 7, "%s", "to the second");
    ExpectText(second, "to the second");
    FinishChild("");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST(LogServiceStandInTest, CountsWhileThereIsNoLogService) {
  const auto run = [] {
    const LogLibrary library = LoadLogLibrary();
    EnterPrivateDev();
    for (int i = 0; i < 5; ++i) library.message(59, 1, 7, "%s", "to nobody");
    const int fd = ListenAsSystemLog();
    std::string first;
    SendUntilTaken(library, fd, &first);
    const std::string notice = TextOf(first);
    if (!notice.ends_with(" messages lost") || std::stoi(notice) < 5) FinishChild(first);
    ExpectText(fd, "again");
    FinishChild("");
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

// Every message is either read or counted, whichever threads send and however the reader hangs.
TEST(LogServiceStandInTest, CountsRightlyForManyThreads) {
  const auto run = [] {
    const LogLibrary library = LoadLogLibrary();
    EnterPrivateDev();
    const int fd = ListenAsSystemLog();
    constexpr int kThreads = 4;
    constexpr int kEach = 3000;
    std::atomic<int> running{kThreads};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < kEach; ++i) library.message(59, 1, 7, "%s", "message");
        --running;
      });
    }
    int taken = 0;
    int lost = 0;
    const auto take = [&](const std::string& text) {
      text == "message" ? ++taken : lost += std::stoi(text);
    };
    bool is_last = false;
    while (!is_last) {
      is_last = running == 0;
      for (std::string text = TextOf(TakeDatagram(fd)); !text.empty();
           text = TextOf(TakeDatagram(fd))) {
        take(text);
      }
    }
    for (std::thread& thread : threads) thread.join();
    library.message(59, 1, 7, "%s", "message");
    for (std::string text = TextOf(TakeDatagram(fd)); !text.empty();
         text = TextOf(TakeDatagram(fd))) {
      take(text);
    }
    const int all = kThreads * kEach + 1;
    FinishChild(taken + lost == all ? "" : std::to_string(taken) + " + " + std::to_string(lost));
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace ipsla::test
