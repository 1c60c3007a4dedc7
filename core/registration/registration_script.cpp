#include "core/registration/registration_script.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

namespace marlinda {
namespace {

constexpr std::size_t kMaxKeyName = 255;
constexpr std::size_t kMaxValueName = 16383;

struct Position {
  std::size_t line = 1;
  std::size_t column = 1;
};

[[noreturn]] void Fail(Position at, const std::string& reason) {
  throw RegistryScriptError(at.line, at.column, reason);
}

bool IsSpace(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

bool IsReplacementNameCharacter(wchar_t c) {
  return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') || (c >= L'0' && c <= L'9') ||
         c == L'_';
}

wchar_t ToLower(wchar_t c) {
  return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

struct Token {
  enum class Kind { kEnd, kOpen, kClose, kEquals, kWord };
  Kind kind = Kind::kEnd;
  std::wstring text;
  bool may_be_keyword = false;  // bare and without replacements
  Position at;
};

class Tokenizer {
 public:
  Tokenizer(std::wstring_view text, const RegistryReplacements& replacements)
      : text_(text), replacements_(replacements) {
    constexpr wchar_t kByteOrderMark = 0xFEFF;
    if (text_.starts_with(kByteOrderMark)) text_.remove_prefix(1);
  }

  Token Next() {
    while (!AtEnd() && IsSpace(Peek())) Take();
    Token token;
    token.at = here_;
    if (AtEnd()) return token;
    switch (Peek()) {
      case L'{':
        token.kind = Token::Kind::kOpen;
        Take();
        return token;
      case L'}':
        token.kind = Token::Kind::kClose;
        Take();
        return token;
      case L'=':
        token.kind = Token::Kind::kEquals;
        Take();
        return token;
      case L'\'':
        token.kind = Token::Kind::kWord;
        ReadQuoted(token);
        return token;
      default:
        token.kind = Token::Kind::kWord;
        token.may_be_keyword = true;
        ReadBare(token);
        return token;
    }
  }

 private:
  bool AtEnd() const { return next_ == text_.size(); }
  wchar_t Peek() const { return text_[next_]; }

  wchar_t Take() {
    const wchar_t c = text_[next_++];
    if (c == L'\n') {
      ++here_.line;
      here_.column = 1;
    } else {
      ++here_.column;
    }
    return c;
  }

  void ReadQuoted(Token& token) {
    Take();
    for (;;) {
      if (AtEnd() || Peek() == L'\n') Fail(token.at, "this quoted text does not end on its line");
      if (Peek() != L'\'') {
        ReadCharacter(token);
        continue;
      }
      Take();
      if (AtEnd() || Peek() != L'\'') return;
      token.text += Take();
    }
  }

  void ReadBare(Token& token) {
    while (!AtEnd() && !IsSpace(Peek()) && Peek() != L'{' && Peek() != L'}' && Peek() != L'=') {
      if (Peek() == L'\'') Fail(here_, "a quote inside a bare word");
      ReadCharacter(token);
    }
  }

  // One character of a word, or one replacement.
  void ReadCharacter(Token& token) {
    const Position at = here_;
    const wchar_t c = Take();
    if (c == L'\0') Fail(at, "a NUL character");
    if (c != L'%') {
      token.text += c;
      return;
    }
    token.may_be_keyword = false;
    const std::size_t begin = next_;
    while (!AtEnd() && IsReplacementNameCharacter(Peek())) Take();
    const std::wstring_view name = text_.substr(begin, next_ - begin);
    if (AtEnd() || Peek() != L'%') Fail(at, "a replacement is written %NAME%, a percent sign %%");
    Take();
    if (name.empty()) {
      token.text += L'%';
      return;
    }
    const auto found = replacements_.find(name);
    if (found == replacements_.end()) {
      std::string narrow;
      for (const wchar_t letter : name) narrow += static_cast<char>(letter);
      Fail(at, "unknown replacement %" + narrow + "%");
    }
    if (found->second.find(L'\0') != std::wstring::npos) Fail(at, "a NUL character");
    token.text += found->second;
  }

  std::wstring_view text_;
  const RegistryReplacements& replacements_;
  std::size_t next_ = 0;
  Position here_;
};

class Parser {
 public:
  Parser(std::wstring_view text, const RegistryReplacements& replacements)
      : tokenizer_(text, replacements) {
    Advance();
  }

  RegistryScript ParseScript() {
    RegistryScript script;
    while (token_.kind != Token::Kind::kEnd) {
      RegistryScriptRoot& root = script.emplace_back();
      root.hive = ParseHive();
      if (token_.kind != Token::Kind::kOpen) Fail(token_.at, "{ is expected after the root");
      RegistryScriptKey top;
      ParseBlock(top, 0);
      root.keys = std::move(top.keys);
    }
    return script;
  }

 private:
  void Advance() { token_ = tokenizer_.Next(); }

  bool AtKeyword(std::wstring_view keyword) const {
    return token_.may_be_keyword && std::ranges::equal(token_.text, keyword, {}, ToLower, ToLower);
  }

  bool TakeKeyword(std::wstring_view keyword) {
    if (!AtKeyword(keyword)) return false;
    Advance();
    return true;
  }

  RegistryHive ParseHive() {
    if (TakeKeyword(L"HKCR") || TakeKeyword(L"HKEY_CLASSES_ROOT")) {
      return RegistryHive::kClassesRoot;
    }
    if (TakeKeyword(L"HKCU") || TakeKeyword(L"HKEY_CURRENT_USER")) {
      return RegistryHive::kCurrentUser;
    }
    if (TakeKeyword(L"HKLM") || TakeKeyword(L"HKEY_LOCAL_MACHINE")) {
      return RegistryHive::kLocalMachine;
    }
    Fail(token_.at, "a root is expected: HKCR, HKCU or HKLM");
  }

  // From the opening brace to past the closing one, `depth` keys below the root.
  void ParseBlock(RegistryScriptKey& key, int depth) {
    const Position opened = token_.at;
    Advance();
    while (token_.kind != Token::Kind::kClose) {
      if (token_.kind == Token::Kind::kEnd) Fail(opened, "this brace is not closed");
      ParseEntry(key, depth);
    }
    Advance();
  }

  void ParseEntry(RegistryScriptKey& parent, int depth) {
    const Position at = token_.at;
    const RegistryMark mark = ParseMark();
    if (AtKeyword(L"val")) {
      if (depth == 0) Fail(token_.at, "a value needs a key to stand in");
      if (mark != RegistryMark::kNone && mark != RegistryMark::kNoRemove) {
        Fail(at, "a value takes no mark but NoRemove");
      }
      ParseValue(parent, mark == RegistryMark::kNoRemove);
      return;
    }
    if (depth == kMaxRegistryScriptDepth) Fail(at, "keys are nested too deeply");
    RegistryScriptKey& key = parent.keys.emplace_back();
    key.mark = mark;
    key.name = ParseKeyName();
    if (mark == RegistryMark::kDelete) {
      if (token_.kind == Token::Kind::kEquals || token_.kind == Token::Kind::kOpen) {
        Fail(token_.at, "a key that is deleted has no content");
      }
      return;
    }
    if (token_.kind == Token::Kind::kEquals) key.values.push_back({{}, ParseData(), false});
    if (token_.kind == Token::Kind::kOpen) ParseBlock(key, depth + 1);
  }

  RegistryMark ParseMark() {
    if (TakeKeyword(L"NoRemove")) return RegistryMark::kNoRemove;
    if (TakeKeyword(L"ForceRemove")) return RegistryMark::kForceRemove;
    if (TakeKeyword(L"Delete")) return RegistryMark::kDelete;
    return RegistryMark::kNone;
  }

  std::wstring ParseKeyName() {
    if (token_.kind != Token::Kind::kWord) {
      Fail(token_.at, "the name of a key is expected; one with braces or = goes in quotes");
    }
    if (token_.text.empty()) Fail(token_.at, "the name of a key is empty");
    if (token_.text.size() > kMaxKeyName) Fail(token_.at, "the name of a key is too long");
    if (token_.text.find(L'\\') != std::wstring::npos) {
      Fail(token_.at, "a backslash in the name of a key");
    }
    return TakeText();
  }

  void ParseValue(RegistryScriptKey& key, bool no_remove) {
    Advance();
    if (token_.kind != Token::Kind::kWord) Fail(token_.at, "the name of a value is expected");
    // The default value is written with the key; a nameless val would silently be the same value.
    if (token_.text.empty()) Fail(token_.at, "the name of a value is empty");
    if (token_.text.size() > kMaxValueName) Fail(token_.at, "the name of a value is too long");
    std::wstring name = TakeText();
    if (token_.kind != Token::Kind::kEquals) Fail(token_.at, "= is expected after the value");
    key.values.push_back({std::move(name), ParseData(), no_remove});
  }

  std::variant<std::wstring, std::uint32_t> ParseData() {
    Advance();
    const bool is_number = AtKeyword(L"d");
    if (!is_number && !AtKeyword(L"s")) {
      Fail(token_.at, "the type of a value is expected: s for a text, d for a number");
    }
    Advance();
    if (token_.kind != Token::Kind::kWord) Fail(token_.at, "the data of a value is expected");
    if (!is_number) return TakeText();
    const std::optional<std::uint32_t> number = ToNumber(token_.text);
    if (!number) Fail(token_.at, "a number from 0 to 4294967295, decimal or 0x, is expected");
    Advance();
    return *number;
  }

  static std::optional<std::uint32_t> ToNumber(std::wstring_view digits) {
    std::uint32_t base = 10;
    if (digits.starts_with(L"0x") || digits.starts_with(L"0X")) {
      base = 16;
      digits.remove_prefix(2);
    }
    if (digits.empty()) return std::nullopt;
    std::uint64_t number = 0;
    for (const wchar_t digit : digits) {
      const wchar_t c = ToLower(digit);
      std::uint32_t value = base;
      if (c >= L'0' && c <= L'9') value = static_cast<std::uint32_t>(c - L'0');
      if (c >= L'a' && c <= L'f') value = static_cast<std::uint32_t>(c - L'a' + 10);
      if (value >= base) return std::nullopt;
      number = number * base + value;
      if (number > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    }
    return static_cast<std::uint32_t>(number);
  }

  std::wstring TakeText() {
    std::wstring text = std::move(token_.text);
    Advance();
    return text;
  }

  Tokenizer tokenizer_;
  Token token_;
};

}  // namespace

RegistryScriptError::RegistryScriptError(std::size_t line, std::size_t column,
                                         const std::string& reason)
    : std::runtime_error("line " + std::to_string(line) + ", column " + std::to_string(column) +
                         ": " + reason),
      line_(line),
      column_(column) {}

RegistryScript ParseRegistryScript(std::wstring_view text,
                                   const RegistryReplacements& replacements) {
  return Parser(text, replacements).ParseScript();
}

}  // namespace marlinda
