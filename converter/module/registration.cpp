// The converter has one class and no type library, so its registration is one script.
#include "module/registration.h"

#include <string>

#include "core/class_table.h"
#include "core/com_call.h"
#include "core/module.h"
#include "core/registration/registration_run.h"
#include "core/resource.h"

namespace marlinda {
namespace {

RegistryScript ClassScript() {
  const ClassEntry& entry = ClassTable().front();
  wchar_t class_id[39];
  StringFromGUID2(*entry.clsid, class_id, ARRAYSIZE(class_id));
  return LoadRegistryScript(IDR_CLASS_REGISTRATION,
                            {{L"MODULE", TheModule().Path()},
                             {L"FriendlyName", std::wstring(entry.name) + L" Object"},
                             {L"CLSID", class_id}});
}

template <class Run>
HRESULT ChangeRegistry(const Run& run) noexcept {
  return ComCall([&] {
    const SystemLocale locale;
    const RegistrationScope scope = ChosenScope();
    RegistryTransaction registry;
    run(ClassScript(), scope, registry);
    registry.Commit();
    return S_OK;
  });
}

}  // namespace

HRESULT RegisterModule() noexcept { return ChangeRegistry(RunRegistration); }

HRESULT UnregisterModule() noexcept { return ChangeRegistry(RunUnregistration); }

}  // namespace marlinda
