#include "tests/support/process_counts.h"

#include <windows.h>
// Must follow windows.h.
#include <tlhelp32.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "core/handle.h"
#include "tests/support/com_client.h"

namespace marlinda::testing {
namespace {

// One entry of the system's handle table.
struct HandleEntry {
  USHORT process;  // the lower half of the process identifier
  USHORT others[3];
  void* object;
  ULONG access;
};

}  // namespace

unsigned CountHandles() {
  // The documented functions count no handles under some versions of Wine.
  const auto query = ExportAs<LONG WINAPI(ULONG, void*, ULONG, ULONG*)>(GetModuleHandleW(L"ntdll"),
                                                                        "NtQuerySystemInformation");
  constexpr ULONG kSystemHandleInformation = 16;
  std::vector<char> table(1 << 20);
  while (query(kSystemHandleInformation, table.data(), static_cast<ULONG>(table.size()), nullptr) <
         0) {
    table.resize(2 * table.size());
  }
  ULONG count = 0;
  std::memcpy(&count, table.data(), sizeof count);
  const auto* const entries = reinterpret_cast<const HandleEntry*>(table.data() + sizeof(void*));
  return static_cast<unsigned>(
      std::count_if(entries, entries + count, [](const HandleEntry& entry) {
        return entry.process == static_cast<USHORT>(GetCurrentProcessId());
      }));
}

unsigned CountThreads() {
  const FileHandle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  if (!snapshot) throw HResultError(LastErrorResult());
  THREADENTRY32 entry = {};
  entry.dwSize = sizeof entry;
  unsigned ours = 0;
  for (BOOL more = Thread32First(snapshot.get(), &entry); more != FALSE;
       more = Thread32Next(snapshot.get(), &entry)) {
    ours += entry.th32OwnerProcessID == GetCurrentProcessId() ? 1 : 0;
  }
  return ours;
}

std::size_t CountHeapBlocks() {
  const HANDLE heap = GetProcessHeap();
  PROCESS_HEAP_ENTRY entry = {};
  std::size_t blocks = 0;
  HeapLock(heap);
  while (HeapWalk(heap, &entry) != FALSE) {
    blocks += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 ? 1 : 0;
  }
  HeapUnlock(heap);
  return blocks;
}

void LeakWatch::AwaitAtMost(unsigned more_threads, unsigned more_handles) const {
  while (CountThreads() > threads_ + more_threads || CountHandles() > handles_ + more_handles) {
    // If a leak makes a test wait until CTest's time limit, this line in the report explains it.
    std::printf("waiting: %u threads and %u handles, which were %u and %u\n", CountThreads(),
                CountHandles(), threads_, handles_);
    std::fflush(stdout);
    Sleep(100);
  }
}

}  // namespace marlinda::testing
