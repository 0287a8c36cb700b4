#include "api/creation_note.h"

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/recording_syslog.h"

namespace ipsla {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CreationNoteTest : public ::testing::Test {
 protected:
  CreationNoteTest() {
    task.sla_id = 7;
    static_cast<void>(test::TakeSyslogTexts());
  }

  // What the terminate handler says while `thrown` is on its way.
  template <typename Thrown>
  std::string Report(const Thrown& thrown) {
    ::testing::internal::CaptureStderr();
    try {
      const CreationNote note(task);
      throw thrown;
    } catch (...) {
      ReportFailedCreation();
    }
    return ::testing::internal::GetCapturedStderr();
  }

  SlaTaskConfig task;
};

TEST_F(CreationNoteTest, TaskVrfAndReasonAreNamedOnTheTerminalAndInTheLog) {
  task.measurement.vrf = "red";
  EXPECT_EQ(Report(std::runtime_error("no such thing")),
            "task 7 in VRF red cannot be created: no such thing\n");
  EXPECT_THAT(test::TakeSyslogTexts(),
              ElementsAre("task 7 in VRF red cannot be created: no such thing"));
}

TEST_F(CreationNoteTest, DefaultVrfHasNoNameAndNotEveryExceptionAText) {
  EXPECT_EQ(Report(1), "task 7 in the default VRF cannot be created: unknown error\n");
}

TEST_F(CreationNoteTest, TaskThatWasCreatedIsNotNamed) {
  { const CreationNote note(task); }
  ::testing::internal::CaptureStderr();
  ReportFailedCreation();
  EXPECT_THAT(::testing::internal::GetCapturedStderr(), IsEmpty());
  EXPECT_THAT(test::TakeSyslogTexts(), IsEmpty());
}

}  // namespace
}  // namespace ipsla
