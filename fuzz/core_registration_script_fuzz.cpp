// Feeds arbitrary bytes to the reader of registry scripts, as characters of one byte each.
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/registration/registration_script.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const marlinda::RegistryReplacements replacements = {{L"A", L"'{}=%A%"}, {L"B", L""}};
  try {
    marlinda::ParseRegistryScript(std::wstring(data, data + size), replacements);
  } catch (const marlinda::RegistryScriptError&) {
    // The only way in which a script may be refused.
  }
  return 0;
}
