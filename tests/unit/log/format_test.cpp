#include "log/format.h"

#include <cstdarg>
#include <string>

#include <gtest/gtest.h>

namespace ipsla::test {
namespace {

TEST(FormatTest, FormatsArgumentsOfEveryKind) {
  EXPECT_EQ(Format("%s #%u: %.1f", "task", 7U, 0.5), "task #7: 0.5");
}

TEST(FormatTest, AnEmptyTextStaysEmpty) {
  EXPECT_EQ(Format("%s", ""), "");
}

TEST(FormatTest, ALongTextIsWhole) {
  const std::string text(100000, 'x');
  EXPECT_EQ(Format("%s", text.c_str()), text);
}

// Twice from one list: what a caller passes to two sinks.
std::string Doubled(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string first = FormatV(format, arguments);
  std::string both = first + FormatV(format, arguments);
  va_end(arguments);
  return both;
}

FormattedText Formatted(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  FormattedText text(format, arguments);
  va_end(arguments);
  return text;
}

TEST(FormattedTextTest, IsWholeAtEveryLength) {
  for (const std::size_t length : {0U, 1U, 1022U, 1023U, 1024U, 1025U, 100000U}) {
    const std::string expected(length, 'x');
    const FormattedText text = Formatted("%s", expected.c_str());
    EXPECT_EQ(text.View(), expected);
    EXPECT_STREQ(text.Text(), expected.c_str());
  }
}

TEST(FormatTest, ArgumentsStayUsable) {
  EXPECT_EQ(Doubled("%d%s ", 12, "ab"), "12ab 12ab ");
}

}  // namespace
}  // namespace ipsla::test
