// Takes lines as what import filters and Vorbis comments say, whatever that is.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "import/filter_strings.h"
#include "import/vorbis_comments.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

bool Holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view left(reinterpret_cast<const char*>(data), size);
  marlinda::FilterStrings filters;
  marlinda::MetaData texts;
  std::string fragments;
  std::string patterns;
  std::string_view before;
  while (!left.empty()) {
    const std::size_t end = left.find('\n');
    const std::string_view line = left.substr(0, end);
    left.remove_prefix(end == std::string_view::npos ? left.size() : end + 1);

    marlinda::ApplyVorbisComment(line, texts);
    Require(texts.year.size() <= 4);
    const std::size_t equals = line.find('=');
    if (equals == 5 && line.starts_with("title")) Require(texts.title == line.substr(6));

    // Every line is a fragment, with the line before as its patterns.
    filters.Add(line, before);
    fragments += line;
    if (!before.empty()) patterns.append(patterns.empty() ? "" : ";").append(before);
    before = line;
  }
  Require(filters.patterns() == patterns);
  const std::string composed = filters.Compose("known", "all");
  Require(Holds(composed, fragments) && composed.ends_with("all"));
  return 0;
}
