#include "core/registration/registry_script.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

namespace marlinda {
namespace {

class Reader {
 public:
  Reader(std::string_view text, const RegistryReplacements& replacements)
      : text_(text), replacements_(replacements) {
    Advance();
  }

  std::vector<RegistryScriptKey> ReadScript() {
    Expect("HKCR");
    Expect("{");
    while (token_ != "}") ReadKey({});
    Advance();
    if (!token_.empty()) throw std::invalid_argument("text after the script");
    return std::move(keys_);
  }

 private:
  void ReadKey(const std::wstring& parent) {
    RegistryScriptKey key;
    key.no_remove = Take("NoRemove");
    key.path = parent + TakeWord();
    if (token_ == "=") key.values.emplace_back(L"", ReadText());
    const std::size_t index = keys_.size();
    keys_.push_back(key);
    if (!Take("{")) return;
    while (!Take("}")) {
      if (Take("val")) {
        std::wstring name = TakeWord();
        keys_[index].values.emplace_back(std::move(name), ReadText());
      } else {
        ReadKey(key.path + L'\\');
      }
    }
  }

  std::wstring ReadText() {
    Expect("=");
    Expect("s");
    return TakeWord();
  }

  bool Take(std::string_view token) {
    if (token_ != token) return false;
    Advance();
    return true;
  }

  void Expect(std::string_view token) {
    if (!Take(token)) throw std::invalid_argument("unexpected text in a registry script");
  }

  // The word with its replacements made.
  std::wstring TakeWord() {
    constexpr std::string_view kNoWords = "{}=";
    if (token_.empty() || kNoWords.find(token_) != std::string_view::npos) {
      throw std::invalid_argument("a registry script lacks a word");
    }
    std::string_view word = token_;
    if (word.front() == '\'') word = word.substr(1, word.size() - 2);
    std::wstring result;
    for (;;) {
      const std::size_t begin = word.find('%');
      const std::string_view plain = word.substr(0, begin);
      result.append(plain.begin(), plain.end());
      if (begin == std::string_view::npos) break;
      const std::size_t end = word.find('%', begin + 1);
      const auto found = replacements_.find(word.substr(begin + 1, end - begin - 1));
      if (end == std::string_view::npos || found == replacements_.end()) {
        throw std::invalid_argument("unknown replacement in a registry script");
      }
      result += found->second;
      word.remove_prefix(end + 1);
    }
    Advance();
    return result;
  }

  // Moves to the next token: a brace, '=', a quoted word with its quotes, a bare word, or nothing
  // at the end.
  void Advance() {
    constexpr std::string_view kBlanks = " \t\r\n";
    text_.remove_prefix(std::min(text_.find_first_not_of(kBlanks), text_.size()));
    std::size_t length = 0;
    if (text_.starts_with('\'')) {
      const std::size_t quote = text_.find('\'', 1);
      if (quote == std::string_view::npos) throw std::invalid_argument("a quote does not end");
      length = quote + 1;
    } else if (!text_.empty()) {
      length =
          std::max<std::size_t>(std::min(text_.find_first_of(" \t\r\n{}=\'"), text_.size()), 1);
    }
    token_ = text_.substr(0, length);
    text_.remove_prefix(length);
  }

  std::string_view text_;
  const RegistryReplacements& replacements_;
  std::string_view token_;
  std::vector<RegistryScriptKey> keys_;
};

}  // namespace

std::vector<RegistryScriptKey> ReadRegistryScript(std::string_view text,
                                                  const RegistryReplacements& replacements) {
  return Reader(text, replacements).ReadScript();
}

}  // namespace marlinda
