#include "config/config_file.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include "config/scratch_file.h"

namespace ipsla {
namespace {

using test::ScratchFile;

TEST(ConfigFileTest, FindsTheArray) {
  const ScratchFile file(R"({"other": 1, "ip-sla-TASKS": [1, 2]})");
  const ConfigFile read = ReadConfigFile(file.Name(), kTasksKey);
  EXPECT_EQ(read.fault, ConfigFileFault::kNone);
  ASSERT_NE(read.array, nullptr);
  EXPECT_EQ(cJSON_GetArraySize(read.array), 2);
}

TEST(ConfigFileTest, TellsWhatIsWrongWithTheFile) {
  EXPECT_EQ(ReadConfigFile("", kTasksKey).fault, ConfigFileFault::kNoName);
  EXPECT_EQ(ReadConfigFile("/no/such/file", kTasksKey).fault, ConfigFileFault::kUnreadable);
  EXPECT_EQ(ReadConfigFile("/tmp", kTasksKey).fault, ConfigFileFault::kUnreadable);

  const ScratchFile no_json("{\n  \"IP-SLA-tasks\": [,]\n}");
  const ConfigFile broken = ReadConfigFile(no_json.Name(), kTasksKey);
  EXPECT_EQ(broken.fault, ConfigFileFault::kNotJson);
  EXPECT_EQ(broken.json.error_text, ",]\n}");
  EXPECT_EQ(broken.json.error_line, 2U);
  EXPECT_EQ(broken.json.error_column, 20U);
}

std::string FaultText(const std::string& content) {
  return FileFaultText("t.json", ReadConfigText(content, kTasksKey), kTasksKey);
}

TEST(ConfigFileTest, SaysInOneLineWhichFileIsNoUseAndWhy) {
  const auto text = [](const std::string& name) {
    return FileFaultText(name, ReadConfigFile(name, kTasksKey), kTasksKey);
  };
  EXPECT_EQ(text(""), "no file with \"IP-SLA-tasks\" is named");
  EXPECT_EQ(text("/no/such/file"), "/no/such/file: No such file or directory");
  EXPECT_EQ(text("/tmp"), "/tmp: Is a directory");
  EXPECT_EQ(FaultText(R"({"IP-SLA-tasks": []})"), "");
  EXPECT_EQ(FaultText("{\n  \"key-string\" \"secret\"}"), "t.json:2:16: is not JSON");
  EXPECT_EQ(FaultText(std::string(kMaxJsonDepth + 1, '[')), "t.json:1:33: nests deeper than 32");
  EXPECT_EQ(FaultText("[]"), "t.json: has no array \"IP-SLA-tasks\" in its root");
}

TEST(ConfigFileTest, NeedsAnArrayInTheRoot) {
  for (const char* content : {"{}", "[]", "5", "null", R"({"IP-SLA-tasks": {}})",
                              R"({"IP-SLA-tasks": null})", R"([{"IP-SLA-tasks": []}])"}) {
    const ScratchFile file(content);
    const ConfigFile read = ReadConfigFile(file.Name(), kTasksKey);
    EXPECT_EQ(read.fault, ConfigFileFault::kNoArray) << content;
    EXPECT_EQ(read.array, nullptr) << content;
    EXPECT_NE(read.json.document, nullptr) << content;
  }
}

}  // namespace
}  // namespace ipsla
