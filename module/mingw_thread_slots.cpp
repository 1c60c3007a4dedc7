// For modules that mingw links alone. The threads library inside such a module takes one of the
// process's 1,088 slots for thread data at its first use and never gives it back. A host that loads
// and unloads a module again and again runs out of them, and the library then aborts the process.
// So the module's requests for slots come through here, and its end gives back what it still has.
#include <windows.h>

#include <atomic>

namespace {

constexpr LONG kMostSlots = 8;
std::atomic<LONG> taken_count{0};
DWORD taken[kMostSlots] = {};

template <class Function>
Function System(const char* name) {
  static_assert(sizeof(FARPROC) == sizeof(Function));
  return reinterpret_cast<Function>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), name)));
}

DWORD WINAPI TakeSlot() {
  const DWORD slot = System<decltype(&TlsAlloc)>("TlsAlloc")();
  if (slot == TLS_OUT_OF_INDEXES) return slot;
  const LONG number = taken_count++;
  if (number < kMostSlots) taken[number] = slot;
  return slot;
}

// What the module gives back by itself may be another's by the time the module ends.
BOOL WINAPI GiveSlot(DWORD slot) {
  for (LONG i = 0; i < taken_count && i < kMostSlots; ++i) {
    if (taken[i] == slot) taken[i] = TLS_OUT_OF_INDEXES;
  }
  return System<decltype(&TlsFree)>("TlsFree")(slot);
}

// The lowest priority that is no compiler's own: after everything else that ends with the module.
__attribute__((destructor(101))) void GiveSlotsBack() {
  for (LONG i = 0; i < taken_count && i < kMostSlots; ++i) {
    if (taken[i] != TLS_OUT_OF_INDEXES) TlsFree(taken[i]);
  }
}

}  // namespace

// They stand where the linker would put the imports, under the names that it looks for.
#if defined(__i386__)
#define TESSALY_TLS_ALLOC_IMPORT "__imp__TlsAlloc@0"
#define TESSALY_TLS_FREE_IMPORT "__imp__TlsFree@4"
#else
#define TESSALY_TLS_ALLOC_IMPORT "__imp_TlsAlloc"
#define TESSALY_TLS_FREE_IMPORT "__imp_TlsFree"
#endif
extern "C" {
extern decltype(&TlsAlloc) tls_alloc_import __asm__(TESSALY_TLS_ALLOC_IMPORT);
decltype(&TlsAlloc) tls_alloc_import = TakeSlot;
extern decltype(&TlsFree) tls_free_import __asm__(TESSALY_TLS_FREE_IMPORT);
decltype(&TlsFree) tls_free_import = GiveSlot;
}
