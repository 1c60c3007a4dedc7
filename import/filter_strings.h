// The filter string of a host's "open" dialog, put together from what the import filters offer.
#pragma once

#include <string>
#include <string_view>

namespace marlinda {

class FilterStrings {
 public:
  // Adds one filter: its dialog fragment ("Wave Audio Files (*.wav)|*.wav|") and its patterns
  // ("*.wav;*.wave"). A filter without patterns adds its fragment alone.
  void Add(std::string_view fragment, std::string_view patterns);

  // The patterns of all filters, joined by ";".
  const std::string& patterns() const noexcept { return patterns_; }

  // The whole string: the entry for all known types first, the one for all files last.
  std::string Compose(std::string_view known_types_entry, std::string_view all_files_entry) const;

 private:
  std::string fragments_;
  std::string patterns_;
};

}  // namespace marlinda
