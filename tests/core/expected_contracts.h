// The contracts as the tests expect them, written down apart from the IDL: a fault in the IDL, in
// the compiler that turns it into a type library, or in a class cannot hide in both.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

namespace marlinda::testing {

struct ExpectedInterface {
  std::string kind;  // "dual", "custom" (derived from IUnknown) or "events" (a dispinterface)
  std::string name;
  IID iid = {};
  // In vtable order, as declared: "GetFormat([out] long* pnSamplesPerSec, ...)".
  std::vector<std::string> methods;
};

struct ExpectedClass {
  std::string name;
  CLSID clsid = {};
  std::string prog_id;
  std::vector<std::string> interfaces;  // the first is the default one
  std::vector<std::string> events;      // outgoing; the first is the default one
  std::vector<std::string> platform;    // interfaces of the system that it answers as well
};

const std::vector<ExpectedInterface>& ExpectedInterfaces();
const std::vector<ExpectedClass>& ExpectedClasses();

// The identifier of an interface of ours or of the system, by name.
IID IidOf(std::string_view name);

GUID ParseGuid(std::string_view text);

}  // namespace marlinda::testing
