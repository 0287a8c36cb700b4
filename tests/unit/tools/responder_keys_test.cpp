#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "responder/keys.h"
#include "support/temporary_directory.h"
#include "support/text_files.h"

namespace ipsla::responder {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

KeySources FromFile(const std::string& file) {
  KeySources sources;
  sources.password_file = file;
  return sources;
}

KeySources FromCommandLine(const std::string& password) {
  KeySources sources;
  sources.password = password;
  return sources;
}

KeySources FromKeychain(const std::string& file) {
  KeySources sources;
  sources.keychain = file;
  return sources;
}

class KeysTest : public testing::Test {
 protected:
  AuthPolicy Read(const KeySources& sources) {
    warnings_.clear();
    return ReadPolicy(sources, [this](const std::string& text) { warnings_.push_back(text); });
  }

  AuthPolicy ReadFile(const std::string& content) {
    test::WriteText(file_, content);
    return Read(FromFile(file_));
  }

  // Why the keys cannot be read.
  std::string Fault(const KeySources& sources) {
    try {
      static_cast<void>(Read(sources));
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "none";
  }

  std::string FaultOfFile(const std::string& content) {
    test::WriteText(file_, content);
    return Fault(FromFile(file_));
  }

  test::TemporaryDirectory directory_;
  const std::string file_ = directory_ / "key";
  std::vector<std::string> warnings_;
};

TEST_F(KeysTest, TakesTheFirstLineOfAFile) {
  EXPECT_EQ(ReadFile("my key\nsecond\n").password, "my key");
  EXPECT_EQ(ReadFile("no line break").password, "no line break");
  EXPECT_EQ(ReadFile("0x6162\n").password, "ab");
  EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(KeysTest, CutsACarriageReturnAndWarnsOfBlanks) {
  EXPECT_EQ(ReadFile("my key\r\n").password, "my key");
  EXPECT_THAT(warnings_, IsEmpty());
  EXPECT_EQ(ReadFile("6162\r\n").password, "ab");
  EXPECT_EQ(ReadFile("my key \n").password, "my key ");
  EXPECT_THAT(warnings_, ElementsAre(HasSubstr("ends with blanks")));
  EXPECT_EQ(ReadFile("my key\t\r\n").password, "my key\t");
  EXPECT_THAT(warnings_, ElementsAre(HasSubstr("ends with blanks")));
}

TEST_F(KeysTest, TakesNoEmptyKey) {
  for (const char* content : {"", "\n", "\nkey\n", "\r\nkey\r\n", "0x\n", "0x\r\n"}) {
    EXPECT_THAT(FaultOfFile(content), HasSubstr("empty")) << content;
  }
  EXPECT_THAT(Fault(FromCommandLine("")), HasSubstr("empty"));
  EXPECT_THAT(Fault(FromCommandLine("0x")), HasSubstr("empty"));
}

TEST_F(KeysTest, SaysWhyAFileCannotBeRead) {
  EXPECT_THAT(Fault(FromFile(directory_ / "none")), HasSubstr("No such file"));
  EXPECT_THAT(Fault(FromFile(directory_.Path())), HasSubstr("Is a directory"));
  EXPECT_THAT(Fault(FromFile("")), HasSubstr("No such file"));
  EXPECT_THAT(FaultOfFile(std::string(65537, 'k')), HasSubstr("longer than 65536"));
  EXPECT_EQ(ReadFile(std::string(65536, 'x')).password, std::string(65536, 'x'));
}

TEST_F(KeysTest, TakesAKeychainWithoutEmptyKeys) {
  test::WriteText(file_, R"({"keychain-storage": [{"key-id": 7, "key-string": "seven"}]})");
  KeySources sources = FromKeychain(file_);
  sources.allow_open = true;
  const AuthPolicy policy = Read(sources);
  EXPECT_EQ(policy.keychain, (KeychainStorage{{7, "seven"}}));
  EXPECT_TRUE(policy.allow_open);
  EXPECT_FALSE(policy.password.has_value());
  test::WriteText(file_, R"({"keychain-storage": [{"key-id": 7, "key-string": ""}]})");
  EXPECT_THAT(Fault(FromKeychain(file_)), HasSubstr("key 7"));
  EXPECT_THAT(Fault(FromKeychain("")), HasSubstr("cannot read the keychain file"));
}

TEST_F(KeysTest, WithoutSourcesThereAreNoKeys) {
  const AuthPolicy policy = Read({});
  EXPECT_TRUE(policy.Wants(SlaAuthMode::kNone));
  EXPECT_FALSE(policy.Wants(SlaAuthMode::kPassword));
}

}  // namespace
}  // namespace ipsla::responder
