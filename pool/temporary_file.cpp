#include "pool/temporary_file.h"

#include "core/com_call.h"

namespace marlinda {

HRESULT TemporaryFile::Create(const std::string& directory, const char* prefix) noexcept {
  char name[MAX_PATH] = "";
  if (GetTempFileNameA(directory.c_str(), prefix, 0, name) == 0) return LastErrorResult();
  // A number came back, which does not prove that the file was made: the handle does.
  handle_.Reset(CreateFileA(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  if (handle_) return S_OK;
  const HRESULT hr = LastErrorResult();
  // It may have got its name and then not been opened.
  DeleteFileA(name);
  return hr;
}

}  // namespace marlinda
