// Text for a terminal: its width, its padding, and nothing in it that a terminal would obey. Pure.

#ifndef IPSLA_TOOLS_CTL_DISPLAY_TEXT_H_
#define IPSLA_TOOLS_CTL_DISPLAY_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ipsla::ctl {

/// What is shown where there is no value.
inline constexpr const char* kNoValue = "-";

/// `text` as UTF-8 that is safe to print: bytes that are no UTF-8 and control characters (a name
/// may hold an escape sequence) become U+FFFD.
[[nodiscard]] std::string Printable(std::string_view text);

/// Columns that printable text takes: combining marks none, wide characters two.
[[nodiscard]] std::size_t DisplayWidth(std::string_view text);

/// `text` padded with spaces to `width` columns.
[[nodiscard]] std::string PadRight(std::string_view text, std::size_t width);
[[nodiscard]] std::string PadLeft(std::string_view text, std::size_t width);

/// `text` cut to at most `width` columns, "…" at its end when something was cut. REQUIRES: width at
/// least 1.
[[nodiscard]] std::string Shorten(std::string_view text, std::size_t width);

/// `text` in lines of at most `width` columns (0: one line), broken at spaces, and within a word
/// that is longer than a line. At least one line.
[[nodiscard]] std::vector<std::string> WrapText(std::string_view text, std::size_t width);

/// Seconds as the two largest units: "12s", "3m05s", "4h00m", "2d03h"; a negative age (a clock was
/// set back) is "0s".
[[nodiscard]] std::string AgeText(std::int64_t seconds);

/// A number with at most `decimals` decimals, none that are zero at the end; kNoValue for none.
[[nodiscard]] std::string NumberText(std::optional<double> value, int decimals);

/// Milliseconds with about four significant digits, at least 1 µs: "0.052", "12.34", "123.4",
/// "1234".
[[nodiscard]] std::string MillisecondsText(std::optional<double> value);

}  // namespace ipsla::ctl

#endif  // IPSLA_TOOLS_CTL_DISPLAY_TEXT_H_
