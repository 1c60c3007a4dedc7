#include "pool/temporary_file.h"

#include "core/com_call.h"

namespace marlinda {

TemporaryFile::~TemporaryFile() {
  handle_.Reset();
  if (name_[0] != '\0') DeleteFileA(name_);
}

HRESULT TemporaryFile::Create(const std::string& directory, const char* prefix) noexcept {
  if (GetTempFileNameA(directory.c_str(), prefix, 0, name_) == 0) {
    const HRESULT hr = LastErrorResult();
    name_[0] = '\0';
    return hr;
  }
  // A number came back, which does not prove that the file was made: the handle does.
  handle_.Reset(CreateFileA(name_, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  return handle_ ? S_OK : LastErrorResult();
}

}  // namespace marlinda
