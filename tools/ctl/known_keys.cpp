#include "ctl/known_keys.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include <fmt/format.h>

#include "config/config_file.h"
#include "config/task_parser.h"

namespace ipsla::ctl {
namespace {

using Keys = std::vector<KnownKey>;

std::string NumberRange(std::int64_t least, std::int64_t most) {
  return fmt::format("a number from {} to {}", least, most);
}

std::string AtLeast(std::int64_t least, const char* unit) {
  return fmt::format("{}, a number of at least {}", unit, least);
}

/// What both phases of a task have.
Keys EndpointKeys() {
  const std::string address = "an IPv4 address as text";
  return {
      {"src-address", KeyKind::kText, address},
      {"src-interface", KeyKind::kText, "an interface's name here, or src-address"},
      {"src-port", KeyKind::kTextOrNumber, NumberRange(0, kMaxPort) + ", or \"any\""},
      {"dst-address", KeyKind::kText, address},
      {"dst-port", KeyKind::kNumber, NumberRange(0, kMaxPort)},
  };
}

Keys EndpointKeysAnd(const Keys& more) {
  Keys keys = EndpointKeys();
  keys.insert(keys.end(), more.begin(), more.end());
  return keys;
}

Keys TaskKeys() {
  const std::string object = "an object";
  return {
      {"sla-id", KeyKind::kNumber, NumberRange(0, std::numeric_limits<std::uint16_t>::max())},
      {"num-rep-hist", KeyKind::kNumber, NumberRange(1, std::numeric_limits<std::uint8_t>::max())},
      {"schedule", KeyKind::kBool, "true"},
      {"scheduler", KeyKind::kObject, object},
      {"vrf-instance", KeyKind::kText, "the name of a network namespace"},
      {"control-phase", KeyKind::kObject, object},
      {"sla-type", KeyKind::kText,
       "udp-echo, udp-jitter, udp-jitter-ntp, icmp-echo or icmp-jitter"},
      {"udp-echo", KeyKind::kAny, object},
      {"udp-jitter", KeyKind::kAny, object},
      {"udp-jitter-ntp", KeyKind::kAny, object},
      {"icmp-echo", KeyKind::kAny, object},
      {"icmp-jitter", KeyKind::kAny, object},
  };
}

Keys SchedulerKeys() {
  return {
      {"time", KeyKind::kTextOrNumber, AtLeast(1, "seconds")},
      {"Start-time", KeyKind::kText, "\"now\" or a time as text"},
      {"life-time", KeyKind::kTextOrNumber, "\"forever\", or seconds of at least 1"},
  };
}

Keys AuthenticationKeys() {
  return {
      {"mode", KeyKind::kText, "no, password or keychain"},
      {"algorithm", KeyKind::kText, "sha256 or hmac-sha256"},
      {"key-string", KeyKind::kText, "a text that is not empty"},
      {"key-id", KeyKind::kNumber, NumberRange(0, std::numeric_limits<std::uint8_t>::max())},
  };
}

Keys MeasurementKeys() {
  return EndpointKeysAnd({
      {"num-packets", KeyKind::kNumber, "a number of at least 1"},
      {"packet-size", KeyKind::kNumber},  // depends on the type
      {"interval", KeyKind::kNumber, AtLeast(0, "milliseconds")},
      {"timeout", KeyKind::kNumber, AtLeast(1, "milliseconds")},
      {"ttl", KeyKind::kNumber, NumberRange(0, kMaxTtl)},
      {"dscp", KeyKind::kNumber, NumberRange(0, kMaxDscp)},
      {"cos", KeyKind::kAny, NumberRange(0, 7)},
  });
}

const Keys& KeyTable(KeyPlace place) {
  static const Keys tasks_root{{kTasksKey, KeyKind::kArray}, {"cpus"}};
  static const Keys task = TaskKeys();
  static const Keys scheduler = SchedulerKeys();
  static const Keys control_phase = EndpointKeysAnd({
      {"timeout", KeyKind::kNumber, AtLeast(1, "milliseconds")},
      {"retry", KeyKind::kNumber, AtLeast(1, "seconds")},
      {"authentication", KeyKind::kObject, "an object"},
  });
  static const Keys authentication = AuthenticationKeys();
  static const Keys measurement = MeasurementKeys();
  static const Keys keychain_root{{kKeychainKey, KeyKind::kArray}};
  static const Keys key{{"key-id", KeyKind::kNumber}, {"key-string", KeyKind::kText}};
  switch (place) {
    case KeyPlace::kTasksRoot:
      return tasks_root;
    case KeyPlace::kTask:
      return task;
    case KeyPlace::kScheduler:
      return scheduler;
    case KeyPlace::kControlPhase:
      return control_phase;
    case KeyPlace::kAuthentication:
      return authentication;
    case KeyPlace::kMeasurement:
      return measurement;
    case KeyPlace::kKeychainRoot:
      return keychain_root;
    case KeyPlace::kKey:
      break;
  }
  return key;
}

}  // namespace

std::span<const KnownKey> KeysOf(KeyPlace place) {
  return KeyTable(place);
}

const KnownKey* FindKnownKey(KeyPlace place, std::string_view name) {
  const auto found = std::ranges::find_if(KeyTable(place), [name](const KnownKey& key) {
    return key.name.size() == name.size() &&
           strncasecmp(key.name.data(), name.data(), name.size()) == 0;
  });
  return found == KeyTable(place).end() ? nullptr : &*found;
}

KeyPlace PlaceOfKey(std::string_view key) {
  if (key.find('.') == std::string_view::npos) {
    return KeyPlace::kTask;
  }
  if (key.starts_with("scheduler.")) {
    return KeyPlace::kScheduler;
  }
  if (key.starts_with("control-phase.authentication.")) {
    return KeyPlace::kAuthentication;
  }
  return key.starts_with("control-phase.") ? KeyPlace::kControlPhase : KeyPlace::kMeasurement;
}

std::string ExpectedAt(std::string_view key, SlaTestType type) {
  const KeyPlace place = PlaceOfKey(key);
  const std::string_view name = key.substr(key.rfind('.') + 1);  // npos + 1 is 0
  if (place == KeyPlace::kMeasurement && name == "packet-size") {
    return AtLeast(MinPacketSize(type), "bytes");
  }
  const KnownKey* known = FindKnownKey(place, name);
  return known == nullptr ? "" : known->expected;
}

}  // namespace ipsla::ctl
