#include "ctl/watch_keys.h"

#include <algorithm>
#include <array>
#include <optional>

namespace ipsla::ctl {
namespace {

struct KeySequence {
  std::string_view bytes;
  Key key;
};

constexpr std::array kSequences{
    KeySequence{"\x1b[A", Key::kUp},     KeySequence{"\x1bOA", Key::kUp},
    KeySequence{"k", Key::kUp},          KeySequence{"\x1b[B", Key::kDown},
    KeySequence{"\x1bOB", Key::kDown},   KeySequence{"j", Key::kDown},
    KeySequence{"\n", Key::kDown},       KeySequence{"\x1b[5~", Key::kPageUp},
    KeySequence{"b", Key::kPageUp},      KeySequence{"\x1b[6~", Key::kPageDown},
    KeySequence{" ", Key::kPageDown},    KeySequence{"\x1b[H", Key::kFirst},
    KeySequence{"\x1bOH", Key::kFirst},  KeySequence{"\x1b[1~", Key::kFirst},
    KeySequence{"\x1b[7~", Key::kFirst}, KeySequence{"g", Key::kFirst},
    KeySequence{"\x1b[F", Key::kLast},   KeySequence{"\x1bOF", Key::kLast},
    KeySequence{"\x1b[4~", Key::kLast},  KeySequence{"\x1b[8~", Key::kLast},
    KeySequence{"G", Key::kLast},        KeySequence{"q", Key::kQuit},
    KeySequence{"Q", Key::kQuit}};

/// Bytes of a sequence that is none of ours: up to its final letter, or one byte. 0: it goes on.
std::size_t ForeignBytes(std::string_view text) {
  const bool is_sequence =
      text.front() == '\x1b' && (text.size() == 1 || text[1] == '[' || text[1] == 'O');
  if (!is_sequence) {
    return 1;
  }
  for (std::size_t index = 2; index < text.size(); ++index) {
    if (text[index] >= '@' && text[index] <= '~') {
      return index + 1;
    }
    if (text[index] < ' ') {
      return index;  // a new one begins
    }
  }
  return 0;
}

}  // namespace

std::vector<Key> KeyReader::Feed(std::string_view bytes) {
  rest_ += bytes;
  std::vector<Key> keys;
  std::string_view left = rest_;
  while (!left.empty()) {
    const auto* const known =
        std::find_if(kSequences.begin(), kSequences.end(),
                     [left](const KeySequence& one) { return left.starts_with(one.bytes); });
    const std::size_t size = known != kSequences.end() ? known->bytes.size() : ForeignBytes(left);
    if (size == 0) {
      break;
    }
    if (known != kSequences.end()) {
      keys.push_back(known->key);
    }
    left.remove_prefix(size);
  }
  rest_ = std::string(left);
  return keys;
}

}  // namespace ipsla::ctl
