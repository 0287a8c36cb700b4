#include "client/usage_fault.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "client/nearest_word.h"

namespace ipsla::client {
namespace {

std::string DidYouMean(const std::string& word) {
  return word.empty() ? "" : "; did you mean '" + word + "'?";
}

/// The word that may be meant for one of the known, and which; both empty when there is none.
std::pair<std::string, std::string> FindSlip(const std::vector<std::string>& words,
                                             const std::vector<std::string>& commands) {
  const std::vector<std::string_view> known(commands.begin(), commands.end());
  for (const std::string& word : words) {
    if (std::string nearest = NearestWord(word, known); !nearest.empty()) {
      return {word, std::move(nearest)};
    }
  }
  return {};
}

std::string Quoted(const std::string& word) {
  return "'" + word + "'";
}

}  // namespace

std::string SurplusText(const std::vector<std::string>& words,
                        const std::vector<std::string>& commands,
                        const std::vector<std::string>& options) {
  const auto option = std::find_if(words.begin(), words.end(), [](const std::string& word) {
    return word.size() > 1 && word.front() == '-';
  });
  if (option != words.end()) {
    const std::vector<std::string_view> known(options.begin(), options.end());
    const std::string nearest = NearestWord(option->substr(0, option->find('=')), known);
    if (option == words.begin() && nearest.empty()) {
      // It may be an option of a command that comes behind it.
      if (const auto& [word, command] = FindSlip(words, commands); !word.empty()) {
        return "unknown command " + Quoted(word) + DidYouMean(command);
      }
    }
    // It may be an option of the command that the word before it should have named.
    if (commands.empty() || option == words.begin() || !nearest.empty()) {
      return "unknown option " + Quoted(*option) + DidYouMean(nearest);
    }
  }
  if (!commands.empty()) {
    const std::vector<std::string_view> known(commands.begin(), commands.end());
    return "unknown command " + Quoted(words.front()) +
           DidYouMean(ClosestWord(words.front(), known));
  }
  std::string text = words.size() == 1 ? "surplus argument" : "surplus arguments";
  for (const std::string& word : words) {
    text += " " + Quoted(word);
  }
  return text;
}

}  // namespace ipsla::client
