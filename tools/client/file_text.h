// Files that a tool is told to read, read without trusting them.

#ifndef IPSLA_TOOLS_CLIENT_FILE_TEXT_H_
#define IPSLA_TOOLS_CLIENT_FILE_TEXT_H_

#include <cstddef>
#include <optional>
#include <string>

namespace ipsla::client {

/// Largest configuration file that is read.
inline constexpr std::size_t kMaxConfigBytes = std::size_t{64} << 20;

/// The contents of a regular file (also one of /proc) of at most `limit` bytes. Nothing, with the
/// reason in `error` (may be null), when it cannot be read, is longer, or is no regular file: a
/// FIFO would hang its reader.
[[nodiscard]] std::optional<std::string> ReadRegularFile(const std::string& path, std::size_t limit,
                                                         std::string* error);

/// The last `limit` bytes of a regular file; nothing when it cannot be read.
[[nodiscard]] std::optional<std::string> ReadFileEnd(const std::string& path, std::size_t limit);

}  // namespace ipsla::client

#endif  // IPSLA_TOOLS_CLIENT_FILE_TEXT_H_
