#include "config/keychain.h"

#include <atomic>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/json_text.h"
#include "config/scratch_file.h"
#include "support/recording_syslog.h"

namespace ipsla {
namespace {

using test::ScratchFile;
using testing::ElementsAre;
using testing::IsEmpty;

// What a read gave and wrote to both logs.
struct KeychainRead {
  int status = 0;
  std::string fault;
  KeychainStorage storage = {{77, "left over"}};
  std::vector<std::string> file_log;
  std::vector<std::string> system_log;

  explicit KeychainRead(const std::string& filename) {
    test::FreshLogFile(0);
    static_cast<void>(test::TakeSyslog());
    status = ParseKeychainConfig(filename, &storage, &fault);
    file_log = test::ReadLogFile(0);
    system_log = test::TakeSyslogTexts();
  }
};

KeychainRead ReadKeychainFile(const std::string& content) {
  const ScratchFile file(content);
  return KeychainRead(file.Name());
}

void ExpectBothLogs(const KeychainRead& read, const std::vector<std::string>& lines) {
  EXPECT_EQ(read.file_log, lines);
  EXPECT_EQ(read.system_log, lines);
}

TEST(KeychainTest, KeepsKeyTextsExactlyAsWritten) {
  const KeychainRead read = ReadKeychainFile(R"({"keychain-storage": [
    {"key-id": 9, "key-string": "0x0a1B"},
    {"key-id": -3, "key-string": " spaced "},
    {"key-id": 2147483647, "key-string": "ümlaut", "comment": "ignored"}
  ]})");
  EXPECT_EQ(read.status, 0);
  EXPECT_EQ(read.storage,
            (KeychainStorage{{-3, " spaced "}, {9, "0x0a1B"}, {2147483647, "ümlaut"}}));
  ExpectBothLogs(read, {});
}

TEST(KeychainTest, AcceptsAnEmptyStorage) {
  const KeychainRead read = ReadKeychainFile(R"({"keychain-storage": []})");
  EXPECT_EQ(read.status, 0);
  EXPECT_THAT(read.storage, IsEmpty());
  ExpectBothLogs(read, {});
}

TEST(KeychainTest, AcceptsAnEmptyKey) {
  const KeychainRead read =
      ReadKeychainFile(R"({"keychain-storage": [{"key-id": 1, "key-string": ""}]})");
  EXPECT_EQ(read.storage, (KeychainStorage{{1, ""}}));
  ExpectBothLogs(read, {});
}

TEST(KeychainTest, KeepsTheFirstOfTwoKeysWithOneId) {
  const KeychainRead read = ReadKeychainFile(
      R"({"keychain-storage": [{"key-id": 5, "key-string": "first"}, {"key-id": 5, "key-string": "second"}]})");
  EXPECT_EQ(read.status, 0);
  EXPECT_EQ(read.storage, (KeychainStorage{{5, "first"}}));
  ExpectBothLogs(read, {"key id #5 parse skipped: duplicate key"});
}

TEST(KeychainTest, SkipsElementsWithoutIdOrText) {
  for (const char* element :
       {R"({"key-id": "5", "key-string": "text"})", R"({"key-string": "text"})", R"({"key-id": 5})",
        R"({"key-id": 5, "key-string": 5})", R"({"key-id": 5, "key-string": null})", "5", "null",
        "[]", "{}"}) {
    const KeychainRead read = ReadKeychainFile(std::string(R"({"keychain-storage": [)") + element +
                                               R"(, {"key-id": 6, "key-string": "kept"}]})");
    EXPECT_EQ(read.status, 0) << element;
    EXPECT_EQ(read.storage, (KeychainStorage{{6, "kept"}})) << element;
    ExpectBothLogs(read, {"key id #undefined parse skipped: no key configuration"});
  }
}

TEST(KeychainTest, FindsKeysInAnyCase) {
  const KeychainRead read =
      ReadKeychainFile(R"({"KEYCHAIN-storage": [{"Key-Id": 1, "KEY-STRING": "Text"}]})");
  EXPECT_EQ(read.storage, (KeychainStorage{{1, "Text"}}));
}

TEST(KeychainTest, FailsSilentlyWithoutItsArray) {
  for (const char* content :
       {"{}", "[]", "7", R"({"keychain-storage": {}})", R"({"keychain-storage": "x"})"}) {
    const KeychainRead read = ReadKeychainFile(content);
    EXPECT_EQ(read.status, -1) << content;
    EXPECT_THAT(read.storage, IsEmpty()) << content;
    ExpectBothLogs(read, {});
  }
}

TEST(KeychainTest, RefusesAnEmptyName) {
  const KeychainRead read{""};
  EXPECT_EQ(read.status, -1);
  EXPECT_THAT(read.storage, IsEmpty());
  ExpectBothLogs(read, {"invalid keychain configuration filename"});
}

TEST(KeychainTest, RefusesAFileThatCannotBeRead) {
  for (const char* name : {"/no/such/file", "/tmp"}) {
    const KeychainRead read{name};
    EXPECT_EQ(read.status, -1) << name;
    EXPECT_THAT(read.storage, IsEmpty()) << name;
    ExpectBothLogs(read, {"unable to open configuration file"});
  }
}

TEST(KeychainTest, ShowsWhereTheJsonIsWrong) {
  const KeychainRead read = ReadKeychainFile(R"({"keychain-storage": [} ])");
  EXPECT_EQ(read.status, -1);
  EXPECT_THAT(read.storage, IsEmpty());
  ExpectBothLogs(read, {"JSON parse error at line: } ]"});
}

TEST(KeychainTest, ShowsAnEmptyFileAsAJsonErrorWithoutText) {
  ExpectBothLogs(ReadKeychainFile(""), {"JSON parse error at line: "});
}

TEST(KeychainTest, ReportsSkippedElementsWithTheirPosition) {
  KeychainStorage storage;
  const JsonParse parse =
      ParseJson(R"([{"key-id": 1, "key-string": "a"}, {}, {"key-id": 1, "key-string": "b"}])");
  const std::vector<KeyFault> faults = ReadKeys(parse.document.get(), &storage);
  ASSERT_EQ(faults.size(), 2U);
  EXPECT_EQ(faults[0].position, 1U);
  EXPECT_EQ(faults[0].id, std::nullopt);
  EXPECT_EQ(faults[1].position, 2U);
  EXPECT_EQ(faults[1].id, 1);
}

TEST(GetTaskKeyTest, AnswersByMode) {
  const KeychainStorage storage = {{5, "five"}, {261, "two hundred and sixty-one"}};
  struct {
    SlaAuthConfig auth;
    int status;
    const char* key;
  } const rows[] = {
      {{.mode = SlaAuthMode::kPassword, .key_string = "secret"}, 1, "secret"},
      {{.mode = SlaAuthMode::kPassword, .key_id = 5, .key_string = ""}, 1, ""},
      {{.mode = SlaAuthMode::kKeychain, .key_id = 5, .key_string = ""}, 1, "five"},
      {{.mode = SlaAuthMode::kKeychain, .key_id = 6, .key_string = ""}, -1, "no key"},
      {{.mode = SlaAuthMode::kNone, .key_string = "ignored"}, 1, "no key required"},
      {{.mode = SlaAuthMode::kUndefined, .key_string = ""}, -1, "undefined"},
      {{.mode = static_cast<SlaAuthMode>(9), .key_string = ""}, -1, "undefined"},
  };
  for (const auto& row : rows) {
    std::string key = "before";
    EXPECT_EQ(GetTaskKey(&key, row.auth, storage), row.status) << row.key;
    EXPECT_EQ(key, row.key);
  }
}

TEST(GetTaskKeyTest, FindsNoKeyWhoseIdNeedsMoreThanEightBits) {
  std::string key;
  const SlaAuthConfig cut = {
      .mode = SlaAuthMode::kKeychain, .key_id = static_cast<std::uint8_t>(261), .key_string = ""};
  EXPECT_EQ(GetTaskKey(&key, cut, {{261, "text"}}), -1);
  EXPECT_EQ(key, "no key");
}

TEST(KeyStoreTest, StartsEmpty) {
  EXPECT_THAT(*KeyStore().Snapshot(), IsEmpty());
}

TEST(KeyStoreTest, ASnapshotOutlivesItsReplacement) {
  KeyStore store;
  store.Replace({{1, "old"}});
  const auto before = store.Snapshot();
  store.Replace({{1, "new"}});
  EXPECT_EQ(before->at(1), "old");
  EXPECT_EQ(store.Snapshot()->at(1), "new");
}

TEST(KeyStoreTest, ReadersNeverSeeAHalfReplacedStore) {
  KeyStore store;
  store.Replace({{1, "0"}, {2, "0"}});
  std::atomic<int> mixed = 0;
  std::atomic<bool> done = false;
  std::thread reader([&] {
    while (!done) {
      const auto keys = store.Snapshot();
      if (keys->at(1) != keys->at(2)) ++mixed;
    }
  });
  for (int i = 1; i <= 1000; ++i) store.Replace({{1, std::to_string(i)}, {2, std::to_string(i)}});
  done = true;
  reader.join();
  EXPECT_EQ(mixed, 0);
}

}  // namespace
}  // namespace ipsla
