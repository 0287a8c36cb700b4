// Sets the process's time zone for the duration of a test.

#ifndef IPSLA_TESTS_UNIT_SUPPORT_LOCAL_TIME_ZONE_H_
#define IPSLA_TESTS_UNIT_SUPPORT_LOCAL_TIME_ZONE_H_

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

namespace ipsla::test {

/// `zone` as TZ takes it, for example "CET-1CEST,M3.5.0,M10.5.0/3". Only while no other thread
/// looks at local time.
class LocalTimeZone {
 public:
  explicit LocalTimeZone(const char* zone) {
    if (const char* before = std::getenv("TZ"); before != nullptr) before_ = before;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~LocalTimeZone() {
    if (before_) {
      setenv("TZ", before_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }
  LocalTimeZone(const LocalTimeZone&) = delete;
  LocalTimeZone& operator=(const LocalTimeZone&) = delete;

 private:
  std::optional<std::string> before_;
};

}  // namespace ipsla::test

#endif  // IPSLA_TESTS_UNIT_SUPPORT_LOCAL_TIME_ZONE_H_
