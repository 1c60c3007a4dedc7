#include "tests/support/process_counts.h"

#include <windows.h>
// After windows.h.
#include <tlhelp32.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "core/com_call.h"
#include "core/handle.h"

namespace marlinda::testing {
namespace {

// One entry of the system's table of all handles. Where process identifiers are wider, the table
// keeps the lower half.
struct HandleEntry {
  USHORT process;
  USHORT reserved;
  UCHAR type;
  UCHAR flags;
  USHORT handle;
  void* object;
  ULONG access;
};

// The system's table of all handles: their count, then the entries.
std::vector<char> HandleTable() {
  constexpr ULONG kSystemHandleInformation = 16;
  constexpr LONG kLengthMismatch = static_cast<LONG>(0xC0000004);
  using Query = LONG(WINAPI*)(ULONG, void*, ULONG, ULONG*);
  const auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"ntdll"), "NtQuerySystemInformation")));
  if (query == nullptr) throw HResultError(E_NOTIMPL);
  std::vector<char> table(1 << 20);
  LONG status = 0;
  while ((status = query(kSystemHandleInformation, table.data(), static_cast<ULONG>(table.size()),
                         nullptr)) == kLengthMismatch) {
    table.resize(2 * table.size());
  }
  if (status < 0) throw HResultError(E_FAIL);
  return table;
}

}  // namespace

unsigned CountHandles() {
  // The documented way always gives 0 under some versions of Wine.
  DWORD documented = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &documented) != FALSE && documented > 0) {
    return documented;
  }
  const std::vector<char> table = HandleTable();
  ULONG count = 0;
  std::memcpy(&count, table.data(), sizeof count);
  const auto process = static_cast<USHORT>(GetCurrentProcessId());
  unsigned ours = 0;
  for (ULONG i = 0; i < count; ++i) {
    HandleEntry entry;
    std::memcpy(&entry, table.data() + sizeof(void*) + i * sizeof entry, sizeof entry);
    if (entry.process == process) ++ours;
  }
  return ours;
}

unsigned CountThreads() {
  const FileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  if (!snapshot) throw HResultError(LastErrorResult());
  THREADENTRY32 entry = {};
  entry.dwSize = sizeof entry;
  unsigned ours = 0;
  for (BOOL more = Thread32First(snapshot.get(), &entry); more != FALSE;
       more = Thread32Next(snapshot.get(), &entry)) {
    if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++ours;
  }
  return ours;
}

void AwaitAtMost(unsigned (*count)(), unsigned most, const char* what) {
  for (unsigned now = count(); now > most; now = count()) {
    std::printf("waiting: %u %s instead of %u\n", now, what, most);
    std::fflush(stdout);
    Sleep(500);
  }
}

std::size_t CountHeapBlocks() {
  const HANDLE heap = GetProcessHeap();
  PROCESS_HEAP_ENTRY entry = {};
  std::size_t blocks = 0;
  HeapLock(heap);
  while (HeapWalk(heap, &entry) != FALSE) {
    if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0) ++blocks;
  }
  HeapUnlock(heap);
  return blocks;
}

std::size_t CountPrivateBytes() {
  std::size_t bytes = 0;
  MEMORY_BASIC_INFORMATION region = {};
  const char* address = nullptr;
  while (VirtualQuery(address, &region, sizeof region) != 0) {
    if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) bytes += region.RegionSize;
    address = static_cast<const char*>(region.BaseAddress) + region.RegionSize;
  }
  return bytes;
}

}  // namespace marlinda::testing
