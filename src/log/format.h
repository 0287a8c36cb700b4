// printf(3) into a string of the right size.

#ifndef IPSLA_LOG_FORMAT_H_
#define IPSLA_LOG_FORMAT_H_

#include <cstdarg>
#include <string>

namespace ipsla {

/// The text of `format` and its arguments, whole; empty when the C library cannot format it.
[[nodiscard]] __attribute__((format(printf, 1, 2))) std::string Format(const char* format, ...);

/// The same with `arguments`, which stay usable: a copy is read.
[[nodiscard]] __attribute__((format(printf, 1, 0))) std::string FormatV(const char* format,
                                                                        va_list arguments);

}  // namespace ipsla

#endif  // IPSLA_LOG_FORMAT_H_
