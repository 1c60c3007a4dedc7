#include "host/diagnosis.h"

#include <converter.h>
#include <marlinda.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

#include "core/handle.h"
#include "host/engine.h"
#include "host/filter_list.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

constexpr const char* kTemporaryKey = R"(HKEY_CURRENT_USER\Software\Brevant\Cutloom\Directories)";
constexpr int kOwnBits = sizeof(void*) == 8 ? 64 : 32;
constexpr std::uint64_t kMinFreeBytes = 64U << 20U;

std::string Chosen(const std::string& text) {
  return text + ", or name another in the registry value \"Temporary\" of " + kTemporaryKey + ".";
}

// Runs one part of the examination and turns its exception into a problem.
template <class Part>
void Try(Diagnosis& diagnosis, const char* subject, Part part) {
  try {
    part();
  } catch (const HostError& error) {
    diagnosis.problems.push_back(error);
  } catch (const HResultError& error) {
    diagnosis.problems.push_back(Explain(error.code(), subject, ExitStatus::kFailure));
  }
}

std::string PathOf(HMODULE module) {
  std::wstring path(32768, L'\0');
  path.resize(GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size())));
  return Narrow(path);
}

// 64 or 32, from the file's header; 0 when it is no module that runs here.
int BitsOf(const std::string& file) {
  std::ifstream stream(std::filesystem::path(Widen(file)), std::ios::binary);
  IMAGE_DOS_HEADER dos = {};
  stream.read(reinterpret_cast<char*>(&dos), sizeof dos);
  struct {
    DWORD signature;
    IMAGE_FILE_HEADER header;
  } nt = {};
  stream.seekg(dos.e_lfanew);
  stream.read(reinterpret_cast<char*>(&nt), sizeof nt);
  if (!stream || dos.e_magic != IMAGE_DOS_SIGNATURE || nt.signature != IMAGE_NT_SIGNATURE) return 0;
  if (nt.header.Machine == IMAGE_FILE_MACHINE_AMD64) return 64;
  return nt.header.Machine == IMAGE_FILE_MACHINE_I386 ? 32 : 0;
}

std::string VersionOf(const std::string& file) {
  const std::wstring path = Widen(file);
  DWORD unused = 0;
  std::vector<char> data(GetFileVersionInfoSizeW(path.c_str(), &unused));
  VS_FIXEDFILEINFO* info = nullptr;
  UINT size = 0;
  if (data.empty() ||
      GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(data.size()), data.data()) == FALSE ||
      VerQueryValueW(data.data(), L"\\", reinterpret_cast<void**>(&info), &size) == FALSE) {
    return "";
  }
  return std::to_string(HIWORD(info->dwFileVersionMS)) + "." +
         std::to_string(LOWORD(info->dwFileVersionMS)) + "." +
         std::to_string(HIWORD(info->dwFileVersionLS));
}

ModuleFile Describe(const std::string& path) { return {path, VersionOf(path), BitsOf(path)}; }

// The module whose code the object runs.
std::string ModuleOf(IUnknown* object) {
  const void* table = *reinterpret_cast<void**>(object);
  HMODULE module = nullptr;
  GetModuleHandleExW(
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
      static_cast<const wchar_t*>(table), &module);
  return PathOf(module);
}

bool IsInManifest(REFCLSID class_id) {
  ACTCTX_SECTION_KEYED_DATA data = {};
  data.cbSize = sizeof data;
  return FindActCtxSectionGuid(0, nullptr, ACTIVATION_CONTEXT_SECTION_COM_SERVER_REDIRECTION,
                               &class_id, &data) != FALSE;
}

// What the registry holds for programs of that bitness.
std::vector<Registration> RegistryEntries(REFCLSID class_id, int bits) {
  std::vector<Registration> found;
  const std::wstring path =
      L"Software\\Classes\\CLSID\\" + Widen(ClassIdText(class_id)) + L"\\InprocServer32";
  const REGSAM view = bits == 64 ? KEY_WOW64_64KEY : KEY_WOW64_32KEY;
  for (const auto& [root, kind] :
       {std::pair(HKEY_CURRENT_USER, "user"), std::pair(HKEY_LOCAL_MACHINE, "machine")}) {
    RegistryKey key;
    std::wstring module(32768, L'\0');
    auto size = static_cast<DWORD>(module.size() * sizeof(wchar_t));
    if (RegOpenKeyExW(root, path.c_str(), 0, KEY_QUERY_VALUE | view, key.Receive()) ==
            ERROR_SUCCESS &&
        RegGetValueW(key.get(), nullptr, nullptr, RRF_RT_REG_SZ, nullptr, module.data(), &size) ==
            ERROR_SUCCESS) {
      found.push_back({kind, Narrow(module.c_str())});
    }
  }
  return found;
}

std::vector<Registration> FindRegistrations(REFCLSID class_id, const std::string& program) {
  std::vector<Registration> found;
  if (IsInManifest(class_id)) {
    const auto folder = std::filesystem::path(Widen(program)).parent_path();
    found.push_back({"manifest", Narrow((folder / L"Tessaly.dll").native())});
  }
  std::ranges::move(RegistryEntries(class_id, kOwnBits), std::back_inserter(found));
  return found;
}

// The registration that led to the module: the first one that names it.
std::string UsedRegistration(const std::vector<Registration>& registrations,
                             const std::string& module) {
  for (const Registration& registration : registrations) {
    std::error_code error;
    if (std::filesystem::equivalent(std::filesystem::path(Widen(registration.module)),
                                    std::filesystem::path(Widen(module)), error)) {
      return registration.kind;
    }
  }
  return "unknown";
}

HRESULT TryToCreate(REFCLSID class_id) {
  ComPtr<IUnknown> object;
  // In this process only: otherwise the system replaces the error of the module by its own.
  return CoCreateInstance(class_id, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                          reinterpret_cast<void**>(object.GetAddressOf()));
}

// Why programs of that bitness cannot load the module at all.
std::optional<HostError> FileProblem(std::string subject, const Registration& registration,
                                     int wanted_bits) {
  subject += " (" + registration.kind + ": " + registration.module + ")";
  const std::filesystem::path file(Widen(registration.module));
  const auto problem = [&](const std::string& reason, const char* remedy) {
    return HostError(ExitStatus::kRegistration, subject, reason, remedy);
  };
  std::error_code error;
  if (!std::filesystem::exists(file, error)) {
    return problem("the file does not exist", kRegistrationRemedy);
  }
  if (std::ifstream stream(file, std::ios::binary); !stream) {
    return problem("the file cannot be read", "Give the user the right to read and run it.");
  }
  const int bits = BitsOf(registration.module);
  if (bits == 0) return problem("the file is no module", "Put a whole Tessaly.dll there.");
  if (bits != wanted_bits) {
    return problem("it is a " + std::to_string(bits) + "-bit module, found by " +
                       std::to_string(wanted_bits) + "-bit programs",
                   "Register the module of the same kind too; both can be registered.");
  }
  return std::nullopt;
}

// The file itself is asked first: some systems say of whatever does not load that access is denied.
HostError ModuleProblem(HRESULT hr, const Diagnosis& diagnosis) {
  const char* const subject = "the engine's module";
  if (!diagnosis.registrations.empty()) {
    const Registration& first = diagnosis.registrations.front();
    if (const auto problem = FileProblem(subject, first, kOwnBits)) return *problem;
    if (hr == E_ACCESSDENIED) {
      return {ExitStatus::kRegistration, subject + (" (" + first.kind + ": " + first.module + ")"),
              "access is denied", "Give the user the right to read and run the file."};
    }
  }
  return Explain(hr, subject, ExitStatus::kRegistration);
}

// The programs of a package lie in x64 and x86, those of a build or a host with their modules.
std::string FindBeside(const std::string& program, int bits) {
  const auto folder = std::filesystem::path(Widen(program)).parent_path();
  for (const auto& place : {folder, folder.parent_path() / (bits == 64 ? L"x64" : L"x86")}) {
    const std::string file = Narrow((place / L"Tessaly.dll").native());
    if (BitsOf(file) == bits) return file;
  }
  return "";
}

// The other bitness concerns other programs: only a registration that leads nowhere is a problem.
void ExamineEngines(Diagnosis& diagnosis) {
  BOOL on_64_bits = FALSE;
  if (kOwnBits == 32) IsWow64Process(GetCurrentProcess(), &on_64_bits);
  for (const int bits : {64, 32}) {
    if (bits != kOwnBits && kOwnBits == 32 && on_64_bits == FALSE) continue;
    Engine engine = {bits, FindBeside(diagnosis.program.path, bits),
                     RegistryEntries(CLSID_CFileFilterMgr, bits)};
    // Some systems have one view for both; the entry belongs to the program's own.
    if (bits != kOwnBits) {
      std::erase_if(engine.registrations, [&](const Registration& registration) {
        return std::ranges::count(diagnosis.registrations, registration) != 0;
      });
    }
    diagnosis.engines.push_back(engine);
    if (bits == kOwnBits) continue;
    for (const Registration& registration : engine.registrations) {
      const auto problem =
          FileProblem("the " + std::to_string(bits) + "-bit engine", registration, bits);
      if (problem) diagnosis.problems.push_back(*problem);
    }
  }
}

void ExamineModule(Diagnosis& diagnosis) {
  ComPtr<IUnknown> manager;
  const HRESULT hr =
      CoCreateInstance(CLSID_CFileFilterMgr, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                       reinterpret_cast<void**>(manager.GetAddressOf()));
  diagnosis.registrations = FindRegistrations(CLSID_CFileFilterMgr, diagnosis.program.path);
  if (SUCCEEDED(hr)) {
    diagnosis.module = Describe(ModuleOf(manager.Get()));
    diagnosis.used = UsedRegistration(diagnosis.registrations, diagnosis.module->path);
    return;
  }
  diagnosis.problems.push_back(ModuleProblem(hr, diagnosis));
}

void ExamineTypeLibrary(Diagnosis& diagnosis) {
  ComPtr<ITypeLib> library;
  const HRESULT hr =
      LoadRegTypeLib(LIBID_MarlindaLib, 1, 0, LOCALE_NEUTRAL, library.GetAddressOf());
  if (FAILED(hr)) {
    const HostError error = Explain(hr, "type library", ExitStatus::kRegistration);
    diagnosis.problems.emplace_back(
        error.status(), error.subject(),
        error.reason() + ", so scripts and calls from other apartments fail", kRegistrationRemedy);
    return;
  }
  Bstr help;
  Bstr path;
  library->GetDocumentation(MEMBERID_NIL, nullptr, help.Receive(), nullptr, nullptr);
  QueryPathOfRegTypeLib(LIBID_MarlindaLib, 1, 0, LOCALE_NEUTRAL, path.Receive());
  diagnosis.type_library = {help.utf8(), path.utf8()};
}

// The classes that the module's own description names.
void ExamineClasses(Diagnosis& diagnosis) {
  ComPtr<ITypeLib> library;
  const HRESULT hr =
      LoadTypeLibEx(Widen(diagnosis.module->path).c_str(), REGKIND_NONE, library.GetAddressOf());
  if (FAILED(hr)) {
    diagnosis.problems.push_back(
        Explain(hr, "the description inside " + diagnosis.module->path, ExitStatus::kRegistration));
    return;
  }
  for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
    ComPtr<ITypeInfo> info;
    TYPEATTR* attributes = nullptr;
    Check(library->GetTypeInfo(i, info.GetAddressOf()));
    Check(info->GetTypeAttr(&attributes));
    const TYPEKIND kind = attributes->typekind;
    const CLSID class_id = attributes->guid;
    info->ReleaseTypeAttr(attributes);
    if (kind != TKIND_COCLASS) continue;
    Bstr name;
    Check(info->GetDocumentation(MEMBERID_NIL, name.Receive(), nullptr, nullptr, nullptr));
    const ClassState state = {name.utf8(), ClassIdText(class_id), TryToCreate(class_id)};
    diagnosis.classes.push_back(state);
    if (!state.Available()) {
      diagnosis.problems.push_back(Explain(state.created, state.name, ExitStatus::kRegistration));
    }
  }
}

void ExamineConverter(Diagnosis& diagnosis) {
  diagnosis.converter = {"converter", ClassIdText(CLSID_CFormatConverter),
                         TryToCreate(CLSID_CFormatConverter)};
  if (diagnosis.converter.Available()) return;
  const HostError error =
      Explain(diagnosis.converter.created, "converter", ExitStatus::kRegistration);
  diagnosis.notes.emplace_back(
      ExitStatus::kSuccess, "converter",
      "it cannot be created (" + error.reason() +
          "), so CAudioConnector passes audio on at its own rate and channels",
      "Where that is not meant: put Converter.dll beside Tessaly.dll and register it.");
}

HostError FilterProblem(const ListedFilterState& filter) {
  const std::string subject = "import filter \"" + filter.value_name + "\" in " + kFilterListKey;
  if (filter.created == CO_E_CLASSSTRING) {
    return {ExitStatus::kRegistration, subject,
            "\"" + filter.class_id + "\" is not a class identifier",
            "Correct or remove the value."};
  }
  return {ExitStatus::kRegistration, subject,
          filter.class_id + ": " + Explain(filter.created, "", ExitStatus::kRegistration).reason(),
          "Register the module of the filter, or remove the value; the engine passes over it."};
}

void ExamineFilters(Diagnosis& diagnosis) {
  const FilterList list = ReadFilterList();
  for (const ListedFilter& entry : list.entries) {
    ListedFilterState state = {entry.value_name, entry.class_id, CO_E_CLASSSTRING};
    CLSID class_id;
    if (SUCCEEDED(CLSIDFromString(Widen(entry.class_id).c_str(), &class_id))) {
      ComPtr<IImportFilter> filter;
      state.created = CreateInstance(class_id, filter);
    }
    if (FAILED(state.created)) diagnosis.problems.push_back(FilterProblem(state));
    diagnosis.filters.push_back(state);
  }
  if (list.cut_short) {
    diagnosis.problems.emplace_back(
        ExitStatus::kRegistration, kFilterListKey,
        "one value is too long to be read, and the filters behind it are not used",
        "Remove the value.");
  } else if (list.entries.empty()) {
    diagnosis.notes.emplace_back(
        ExitStatus::kSuccess, "import filters",
        "none is listed, so hosts that ask CFileFilterMgr find none; marlinda asks the built-in "
        "ones itself",
        "\"marlinda install-filters\", run as an administrator, lists them.");
  }
}

void ExamineDevices(Diagnosis& diagnosis) {
  constexpr AudioFormat kUsual = {44100, 2};
  const bool can_open = diagnosis.module.has_value();
  diagnosis.outputs = OutputDevices();
  diagnosis.inputs = InputDevices();
  Try(diagnosis, "sound output", [&] {
    const auto device = DeviceChoice::OfOutputs(std::nullopt);
    if (can_open) ChooseOutputBits(device, kUsual);
  });
  Try(diagnosis, "sound input", [&] {
    const auto device = DeviceChoice::OfInputs(std::nullopt);
    if (can_open) OpenGrabber(device, kUsual)->CloseDevice();
  });
}

// Chosen as the engine chooses: what does not fit in its buffer, or is no text, does not count.
TemporaryFolder FindTemporaryFolder() {
  char path[MAX_PATH] = "";
  GetTempPathA(MAX_PATH, path);
  TemporaryFolder folder;
  char value[256] = "";
  DWORD size = sizeof value - 1;
  RegistryKey key;
  if (RegOpenKeyExA(HKEY_CURRENT_USER, R"(Software\Brevant\Cutloom\Directories)", 0,
                    KEY_QUERY_VALUE, key.Receive()) == ERROR_SUCCESS &&
      RegQueryValueExA(key.get(), "Temporary", nullptr, nullptr, reinterpret_cast<BYTE*>(value),
                       &size) == ERROR_SUCCESS) {
    folder.chosen = true;
  }
  folder.path = FromAnsi(folder.chosen ? value : path);
  ULARGE_INTEGER free_bytes = {};
  if (GetDiskFreeSpaceExW(Widen(folder.path).c_str(), &free_bytes, nullptr, nullptr) != FALSE) {
    folder.free_bytes = free_bytes.QuadPart;
  }
  return folder;
}

// The result of the engine when it creates its files in the folder.
HRESULT TryTemporaryFiles() {
  ComPtr<IAudioPool> pool;
  const HRESULT hr = CreateInstance(CLSID_CAudioPool, pool);
  if (FAILED(hr)) return S_OK;  // which is no fault of the folder
  return TryPoolFiles(pool.Get());
}

void ExamineTemporaryFolder(Diagnosis& diagnosis) {
  diagnosis.temporary = FindTemporaryFolder();
  const TemporaryFolder& folder = diagnosis.temporary;
  const std::string subject = "temporary folder " + folder.path;
  const auto add = [&](const std::string& reason, const char* remedy) {
    diagnosis.problems.emplace_back(ExitStatus::kOutput, subject, reason, Chosen(remedy));
  };
  const DWORD attributes = GetFileAttributesW(Widen(folder.path).c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    add("the folder does not exist", "Create it");
  } else if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    add("it is a file, not a folder", "Remove the file and create the folder");
  } else if (const HRESULT hr = TryTemporaryFiles(); FAILED(hr)) {
    add("no file can be made there: " + Explain(hr, "", ExitStatus::kOutput).reason(),
        "Allow the user to write there");
  } else if (folder.free_bytes && *folder.free_bytes < kMinFreeBytes) {
    add("only " + std::to_string(*folder.free_bytes >> 20U) +
            " MiB are free, and imported audio needs 8 bytes a stereo frame",
        "Free some space there");
  }
}

}  // namespace

Diagnosis Diagnose() {
  Diagnosis diagnosis;
  diagnosis.program = Describe(PathOf(nullptr));
  const auto examine = [&](const char* subject, void (*part)(Diagnosis&)) {
    Try(diagnosis, subject, [&] { part(diagnosis); });
  };
  examine("module", ExamineModule);
  examine("engines", ExamineEngines);
  if (diagnosis.module) examine("classes", ExamineClasses);
  examine("type library", ExamineTypeLibrary);
  examine("converter", ExamineConverter);
  examine("import filters", ExamineFilters);
  examine("temporary folder", ExamineTemporaryFolder);
  ExamineDevices(diagnosis);
  return diagnosis;
}

}  // namespace marlinda
