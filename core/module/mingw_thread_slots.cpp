// For modules that mingw links alone. The threads library inside such a module takes one of the
// process's 1,088 slots for thread data at its first use and never gives it back. A host that loads
// and unloads a module again and again runs out of them, and the library then aborts the process.
// So the module's requests for slots come through here, and its end gives them back.
#include <windows.h>

#include <atomic>

namespace {

constexpr LONG kMostSlots = 8;
std::atomic<LONG> taken_count{0};
DWORD taken[kMostSlots] = {};

DWORD WINAPI TakeSlot() {
  static_assert(sizeof(FARPROC) == sizeof(decltype(&TlsAlloc)));
  const auto system = reinterpret_cast<decltype(&TlsAlloc)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "TlsAlloc")));
  const DWORD slot = system();
  if (slot == TLS_OUT_OF_INDEXES) return slot;
  const LONG number = taken_count++;
  if (number < kMostSlots) taken[number] = slot;
  return slot;
}

// The lowest priority that is no compiler's own: after everything else that ends with the module.
__attribute__((destructor(101))) void GiveSlotsBack() {
  for (LONG i = 0; i < taken_count && i < kMostSlots; ++i) TlsFree(taken[i]);
}

}  // namespace

// Stands where the linker would put the import of TlsAlloc, under the name that it looks for.
#if defined(__i386__)
#define TESSALY_TLS_ALLOC_IMPORT "__imp__TlsAlloc@0"
#else
#define TESSALY_TLS_ALLOC_IMPORT "__imp_TlsAlloc"
#endif
extern "C" {
extern decltype(&TlsAlloc) tls_alloc_import __asm__(TESSALY_TLS_ALLOC_IMPORT);
decltype(&TlsAlloc) tls_alloc_import = TakeSlot;
}
