// The module's contracts as its type library tells them: every class, the interfaces that it lists,
// their methods and parameters. What the library gains, the tests that run over this gain too.
#pragma once

#include <windows.h>
// After windows.h.
#include <oleauto.h>

#include <string>
#include <vector>

namespace marlinda::testing {

enum class Kind { kInteger, kReal, kText, kObject, kArray, kOut };

struct Parameter {
  std::string name;
  Kind kind;
  // Of the value, or of what an out-parameter points to: VT_UNKNOWN stands for every interface.
  VARTYPE type;
  // Of an interface.
  IID iid;
};

struct Method {
  std::string interface_name;
  std::string name;
  IID iid;
  ULONG_PTR vtable_offset;
  std::vector<Parameter> parameters;

  std::string FullName() const { return interface_name + "::" + name; }
};

struct Class {
  std::string name;
  CLSID clsid;
  // All of its interfaces, in their order.
  std::vector<Method> methods;
};

// Read out of the module under test.
std::vector<Class> ClassesOfTheModule();

}  // namespace marlinda::testing
