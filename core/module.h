// The module object: counts objects and locks, reports its path and loads string resources.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>

namespace marlinda {

class CMarlindaModule {
 public:
  void Attach(HINSTANCE instance) noexcept { instance_ = instance; }
  HINSTANCE Instance() const noexcept { return instance_; }

  // Full path of the module's file.
  std::wstring Path() const;

  void AddObject() noexcept { ++objects_; }
  void RemoveObject() noexcept { --objects_; }
  void Lock() noexcept { ++locks_; }
  // Removes one lock. Returns false if there is none.
  bool Unlock() noexcept;
  bool CanUnload() const noexcept { return objects_ == 0 && locks_ == 0; }

  // Returns string resource `id` in the system's ANSI code page, or an empty string on failure.
  std::string LoadText(UINT id) const;

 private:
  HINSTANCE instance_ = nullptr;
  std::atomic<long> objects_{0};
  std::atomic<long> locks_{0};
};

CMarlindaModule& TheModule() noexcept;

// Counts one object of the module during its lifetime.
class ModuleObjectCount {
 public:
  ModuleObjectCount() noexcept { TheModule().AddObject(); }
  ~ModuleObjectCount() { TheModule().RemoveObject(); }
  ModuleObjectCount(const ModuleObjectCount&) = delete;
  ModuleObjectCount& operator=(const ModuleObjectCount&) = delete;
};

}  // namespace marlinda
