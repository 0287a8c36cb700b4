#include "ctl/display_text.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <fmt/format.h>

namespace ipsla::ctl {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr std::string_view kReplacementUtf8 = "\xEF\xBF\xBD";

struct CodePoint {
  char32_t value = kReplacement;
  std::size_t bytes = 1;
  bool valid = false;
};

/// The code point at the start of `text`, which is not empty. Overlong forms, surrogates and cut
/// sequences are not valid and take one byte.
CodePoint Decode(std::string_view text) {
  const auto byte = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
  const unsigned char first = byte(0);
  if (first < 0x80) {
    return {first, 1, true};
  }
  const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  constexpr std::array<char32_t, 5> kSmallest{0, 0, 0x80, 0x800, 0x10000};
  if (first < 0xC2 || first > 0xF4 || text.size() < size) {
    return {};
  }
  char32_t value = first & (0x7FU >> size);
  for (std::size_t index = 1; index < size; ++index) {
    if ((byte(index) & 0xC0U) != 0x80U) {
      return {};
    }
    value = (value << 6U) | (byte(index) & 0x3FU);
  }
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  if (value < kSmallest[size] || value > 0x10FFFF || surrogate) {
    return {};
  }
  return {value, size, true};
}

struct Range {
  char32_t first, last;
};

template <std::size_t Size>
bool IsIn(const std::array<Range, Size>& ranges, char32_t value) {
  return std::any_of(ranges.begin(), ranges.end(), [value](const Range& range) {
    return value >= range.first && value <= range.last;
  });
}

/// Control characters, and those that change the direction of the text around them.
bool IsControl(char32_t value) {
  constexpr std::array<Range, 5> kControls{
      {{0, 0x1F}, {0x7F, 0x9F}, {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069}}};
  return IsIn(kControls, value);
}

/// The blocks of combining marks and of wide characters; rare scripts in between may be off by a
/// column.
std::size_t Width(char32_t value) {
  constexpr std::array<Range, 8> kZero{{{0x0300, 0x036F},
                                        {0x0483, 0x0489},
                                        {0x0591, 0x05BD},
                                        {0x1AB0, 0x1AFF},
                                        {0x1DC0, 0x1DFF},
                                        {0x200B, 0x200D},
                                        {0x20D0, 0x20FF},
                                        {0xFE00, 0xFE0F}}};
  constexpr std::array<Range, 9> kTwo{{{0x1100, 0x115F},
                                       {0x2E80, 0x303E},
                                       {0x3041, 0x33FF},
                                       {0x3400, 0x4DBF},
                                       {0x4E00, 0x9FFF},
                                       {0xAC00, 0xD7A3},
                                       {0xF900, 0xFAFF},
                                       {0xFF00, 0xFF60},
                                       {0x1F300, 0x1FAFF}}};
  if (IsIn(kZero, value)) {
    return 0;
  }
  return IsIn(kTwo, value) || (value >= 0x20000 && value <= 0x3FFFD) ? 2 : 1;
}

/// Bytes of the longest beginning of `text` that is no wider than `width`; at least one character.
std::size_t FittingBytes(std::string_view text, std::size_t width) {
  std::size_t used = 0;
  std::size_t bytes = 0;
  while (bytes < text.size()) {
    const CodePoint point = Decode(text.substr(bytes));
    used += Width(point.value);
    if (used > width && bytes > 0) {
      break;
    }
    bytes += point.bytes;
  }
  return bytes;
}

}  // namespace

std::string Printable(std::string_view text) {
  std::string printable;
  while (!text.empty()) {
    const CodePoint point = Decode(text);
    const bool keep = point.valid && !IsControl(point.value);
    printable += keep ? text.substr(0, point.bytes) : kReplacementUtf8;
    text.remove_prefix(point.bytes);
  }
  return printable;
}

std::size_t DisplayWidth(std::string_view text) {
  std::size_t width = 0;
  while (!text.empty()) {
    const CodePoint point = Decode(text);
    width += Width(point.value);
    text.remove_prefix(point.bytes);
  }
  return width;
}

std::string PadRight(std::string_view text, std::size_t width) {
  const std::size_t used = DisplayWidth(text);
  return std::string(text) + std::string(width > used ? width - used : 0, ' ');
}

std::string PadLeft(std::string_view text, std::size_t width) {
  const std::size_t used = DisplayWidth(text);
  return std::string(width > used ? width - used : 0, ' ') + std::string(text);
}

std::string Shorten(std::string_view text, std::size_t width) {
  if (DisplayWidth(text) <= width) {
    return std::string(text);
  }
  std::string shortened;
  std::size_t used = 0;
  while (!text.empty()) {
    const CodePoint point = Decode(text);
    used += Width(point.value);
    if (used > width - 1) {
      break;
    }
    shortened += text.substr(0, point.bytes);
    text.remove_prefix(point.bytes);
  }
  return shortened + "…";
}

std::vector<std::string> WrapText(std::string_view text, std::size_t width) {
  if (width == 0 || DisplayWidth(text) <= width) {
    return {std::string(text)};
  }
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::size_t fitting = FittingBytes(text, width);
    std::size_t bytes = fitting;
    if (fitting < text.size() && text[fitting] != ' ') {
      const std::size_t space = text.rfind(' ', fitting);
      bytes = space == std::string_view::npos || space == 0 ? fitting : space;
    }
    lines.emplace_back(text.substr(0, bytes));
    lines.back().erase(lines.back().find_last_not_of(' ') + 1);
    text.remove_prefix(bytes);
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  }
  return lines;
}

std::string AgeText(std::int64_t seconds) {
  constexpr std::int64_t kMinute = 60;
  constexpr std::int64_t kHour = 60 * kMinute;
  constexpr std::int64_t kDay = 24 * kHour;
  if (seconds < kMinute) {
    return fmt::format("{}s", std::max<std::int64_t>(seconds, 0));
  }
  if (seconds < kHour) {
    return fmt::format("{}m{:02}s", seconds / kMinute, seconds % kMinute);
  }
  if (seconds < kDay) {
    return fmt::format("{}h{:02}m", seconds / kHour, seconds % kHour / kMinute);
  }
  return fmt::format("{}d{:02}h", seconds / kDay, seconds % kDay / kHour);
}

std::string NumberText(std::optional<double> value, int decimals) {
  if (!value) {
    return kNoValue;
  }
  std::string text = fmt::format("{:.{}f}", *value, decimals);
  if (text.find('.') != std::string::npos) {
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') {
      text.pop_back();
    }
  }
  return text == "-0" ? "0" : text;
}

std::string MillisecondsText(std::optional<double> value) {
  if (!value) {
    return kNoValue;
  }
  const double size = std::fabs(*value);
  const int decimals = size < 10 ? 3 : size < 100 ? 2 : size < 1000 ? 1 : 0;
  return fmt::format("{:.{}f}", *value, decimals);
}

}  // namespace ipsla::ctl
