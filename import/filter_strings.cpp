#include "import/filter_strings.h"

namespace marlinda {

void FilterStrings::Add(std::string_view fragment, std::string_view patterns) {
  fragments_ += fragment;
  if (!patterns.empty() && !patterns_.empty()) patterns_ += ';';
  patterns_ += patterns;
}

std::string FilterStrings::Compose(std::string_view known_types_entry,
                                   std::string_view all_files_entry) const {
  std::string result(known_types_entry);
  result += fragments_;
  result += all_files_entry;
  return result;
}

}  // namespace marlinda
