#include "responder/keys.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "config/config_file.h"
#include "config/keychain_rules.h"
#include "config/task_config.h"

namespace ipsla::responder {

namespace {

constexpr std::size_t kLongestKey = 65536;

// The first line of a file, without its break. Throws std::runtime_error.
std::string FirstLine(const std::string& file) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> in(std::fopen(file.c_str(), "re"),
                                                           &std::fclose);
  const auto fail = [&file](const std::string& why) -> void {
    throw std::runtime_error("cannot read a key from " + file + ": " + why);
  };
  if (!in) fail(std::strerror(errno));
  std::string line;
  int character = 0;
  while ((character = std::getc(in.get())) != EOF && character != '\n') {
    if (line.size() == kLongestKey) fail("its first line is longer than 65536 bytes");
    line.push_back(static_cast<char>(character));
  }
  if (std::ferror(in.get()) != 0) fail(std::strerror(errno));
  return line;
}

std::string KeyOfFile(const std::string& file, const Warn& warn) {
  std::string line = FirstLine(file);
  if (line.ends_with('\r')) line.pop_back();  // written where lines end with two characters
  if (line.empty()) throw std::runtime_error("the first line of " + file + " is empty: no key");
  if (std::string_view(" \t").find(line.back()) != std::string_view::npos) {
    warn("the key in " + file + " ends with blanks, which belong to it");
  }
  return line;
}

// Hexadecimal digits stand for the bytes they spell, as in the tasks file. Throws
// std::runtime_error for no bytes at all.
std::string KeyBytes(const std::string& text, const std::string& origin) {
  std::string bytes = HexKeyToBytes(text);
  if (bytes.empty()) throw std::runtime_error("the key of " + origin + " is empty");
  return bytes;
}

KeychainStorage ReadKeychain(const std::string& file) {
  KeychainStorage keys;
  const ConfigFile content = ReadConfigFile(file, kKeychainKey);
  if (content.fault != ConfigFileFault::kNone) {
    throw std::runtime_error("cannot read the keychain file " + file);
  }
  static_cast<void>(ReadKeys(content.array, &keys));
  for (const auto& [id, key] : keys) {
    if (key.empty()) {
      throw std::runtime_error("key " + std::to_string(id) + " of the keychain file " + file +
                               " is empty");
    }
  }
  return keys;
}

}  // namespace

AuthPolicy ReadPolicy(const KeySources& sources, const Warn& warn) {
  AuthPolicy policy;
  policy.allow_open = sources.allow_open;
  if (sources.password_file) {
    policy.password = KeyBytes(KeyOfFile(*sources.password_file, warn), *sources.password_file);
  } else if (sources.password) {
    policy.password = KeyBytes(*sources.password, "--password");
  }
  if (sources.keychain) policy.keychain = ReadKeychain(*sources.keychain);
  return policy;
}

}  // namespace ipsla::responder
