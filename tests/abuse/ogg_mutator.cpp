#include "tests/abuse/ogg_mutator.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>

namespace marlinda::testing {
namespace {

constexpr std::size_t kHeader = 27;
constexpr std::size_t kChecksumAt = 22;

std::uint32_t Checksum(const OggBytes& page) {
  std::uint32_t sum = 0;
  for (const unsigned char byte : page) {
    sum ^= static_cast<std::uint32_t>(byte) << 24;
    for (int bit = 0; bit < 8; ++bit) sum = (sum << 1) ^ ((sum >> 31) != 0 ? 0x04C11DB7U : 0U);
  }
  return sum;
}

void MakeChecksumRight(OggBytes& page) {
  if (page.size() < kHeader) return;
  std::fill_n(page.begin() + kChecksumAt, 4, 0);
  const std::uint32_t sum = Checksum(page);
  for (std::size_t i = 0; i < 4; ++i) {
    page[kChecksumAt + i] = static_cast<unsigned char>(sum >> (8 * i));
  }
}

std::vector<OggBytes> Pages(const OggBytes& file) {
  std::vector<OggBytes> pages;
  for (std::size_t begin = 0; begin + kHeader <= file.size();) {
    const std::size_t segments = file[begin + kHeader - 1];
    std::size_t end = begin + kHeader + segments;
    for (std::size_t i = 0; i < segments && begin + kHeader + i < file.size(); ++i) {
      end += file[begin + kHeader + i];
    }
    end = std::min(end, file.size());
    pages.emplace_back(file.begin() + static_cast<std::ptrdiff_t>(begin),
                       file.begin() + static_cast<std::ptrdiff_t>(end));
    begin = end;
  }
  return pages;
}

OggBytes Joined(const std::vector<OggBytes>& pages) {
  OggBytes file;
  for (const OggBytes& page : pages) file.insert(file.end(), page.begin(), page.end());
  return file;
}

}  // namespace

DamagedOgg Damage(const std::vector<OggBytes>& seeds, std::uint32_t number) {
  std::mt19937 random(number);
  const auto draw = [&](std::size_t below) { return below == 0 ? 0 : random() % below; };
  const std::size_t seed = number % seeds.size();
  OggBytes file = seeds[seed];
  std::vector<OggBytes> pages = Pages(file);
  std::string what = "seed " + std::to_string(seed) + ", damage " + std::to_string(number) + ": ";
  // The first pages are headers, which decide most.
  const std::size_t page =
      random() % 2 == 0 ? draw(std::min<std::size_t>(3, pages.size())) : draw(pages.size());
  switch (random() % 10) {
    case 0:
      for (std::size_t n = 1 + draw(8); n > 0; --n) file[draw(file.size())] ^= 1U << draw(8);
      return {what + "bits flipped", file};
    case 1: {
      const std::size_t begin = draw(file.size());
      const std::size_t end = std::min(file.size(), begin + draw(600));
      std::fill(file.begin() + static_cast<std::ptrdiff_t>(begin),
                file.begin() + static_cast<std::ptrdiff_t>(end),
                static_cast<unsigned char>(random() % 2 == 0 ? 0 : 0xFF));
      return {what + "a run overwritten", file};
    }
    case 2:
      file.resize(draw(file.size()));
      return {what + "cut short", file};
    case 3:
    case 4: {
      // Version, flags, position, stream number, sequence number, and the table of segments.
      OggBytes& target = pages[page];
      const std::size_t at = 4 + draw(std::min<std::size_t>(target.size(), 60) - 4);
      static constexpr unsigned char kOdd[] = {0, 1, 2, 4, 5, 0x7F, 0x80, 0xFE, 0xFF};
      for (std::size_t n = 1 + draw(8); n > 0 && at + n < target.size(); --n) {
        target[at + n] = kOdd[draw(sizeof kOdd)];
      }
      MakeChecksumRight(target);
      return {what + "a page header changed", Joined(pages)};
    }
    case 5:
    case 6: {
      OggBytes& target = pages[page];
      for (std::size_t n = 1 + draw(20); n > 0 && target.size() > kHeader; --n) {
        target[kHeader + draw(target.size() - kHeader)] = static_cast<unsigned char>(random());
      }
      MakeChecksumRight(target);
      return {what + "packets changed under a right checksum", Joined(pages)};
    }
    case 7:
      std::swap(pages[page], pages[draw(pages.size())]);
      return {what + "pages swapped", Joined(pages)};
    case 8:
      pages.insert(pages.begin() + static_cast<std::ptrdiff_t>(draw(pages.size())), pages[page]);
      return {what + "a page doubled", Joined(pages)};
    default: {
      const OggBytes& other = seeds[draw(seeds.size())];
      file.resize(draw(file.size()));
      file.insert(file.end(), other.begin(), other.end());
      return {what + "another file in the middle", file};
    }
  }
}

}  // namespace marlinda::testing
