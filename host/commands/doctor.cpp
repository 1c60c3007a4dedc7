// "marlinda doctor": examines the engine's installation and reports problems.
#include <converter.h>
#include <marlinda.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "core/handle.h"
#include "host/commands/shared.h"
#include "host/file_name.h"
#include "host/filter_list.h"
#include "host/sound_devices.h"
#include "host/wide_text.h"

namespace marlinda {
namespace {

constexpr int kOwnBits = sizeof(void*) == 8 ? 64 : 32;
constexpr ULONGLONG kMinFreeBytes = 64U << 20U;
constexpr char kDirectoriesKey[] = R"(Software\Brevant\Cutloom\Directories)";

// A registration that the system could use to find a module.
struct Registration {
  std::string kind;  // "manifest", "user" or "machine", in the system's search order
  std::string module;
  bool operator==(const Registration&) const = default;
};
using Registrations = std::vector<Registration>;

Json TextOrNull(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

std::string PathOf(HMODULE module) {
  std::wstring path(32768, L'\0');
  path.resize(GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size())));
  return Narrow(path);
}

// Returns the file of the module that implements the object.
std::string ModuleOf(IUnknown* object) {
  HMODULE module = nullptr;
  GetModuleHandleExW(
      GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
      *reinterpret_cast<const wchar_t**>(object), &module);
  return PathOf(module);
}

// Returns the bitness in a program file's header, 64 or 32, or 0 for any other file.
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

// Returns the version of the file, or an empty text if it has none.
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

std::filesystem::path FolderOf(const std::string& file) {
  return std::filesystem::path(Widen(file)).parent_path();
}

// Returns the registry's entries for 64-bit or 32-bit programs.
Registrations InRegistry(REFCLSID class_id, int bits) {
  Registrations found;
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

Registrations FindRegistrations(REFCLSID class_id, const std::string& program) {
  Registrations found = InRegistry(class_id, kOwnBits);
  ACTCTX_SECTION_KEYED_DATA data = {};
  data.cbSize = sizeof data;
  if (FindActCtxSectionGuid(0, nullptr, ACTIVATION_CONTEXT_SECTION_COM_SERVER_REDIRECTION,
                            &class_id, &data) != FALSE) {
    const std::string module = Narrow((FolderOf(program) / L"Tessaly.dll").native());
    found.insert(found.begin(), {"manifest", module});
  }
  return found;
}

Json ToJson(const Registrations& registrations) {
  Json list = Json::array();
  for (const auto& [kind, module] : registrations) {
    list.push_back({{"kind", kind}, {"module", module}});
  }
  return list;
}

std::string ToText(const Registrations& registrations, const char* none) {
  std::string text;
  for (const auto& [kind, module] : registrations) {
    text.append(text.empty() ? "" : "; ")
        .append(kind == "manifest" ? "manifest beside the program" : "registry, for the " + kind)
        .append(": " + module);
  }
  return text.empty() ? none : text;
}

HRESULT TryToCreate(REFCLSID class_id, ComPtr<IUnknown>& object) {
  // Allows only CLSCTX_INPROC_SERVER. Otherwise the system replaces the module's error by its own.
  return CoCreateInstance(class_id, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                          reinterpret_cast<void**>(object.GetAddressOf()));
}

// The kinds of files for which the program's resources hold a test tone.
constexpr std::array kKinds = {"AIFF", "AU",  "AVI", "FLAC", "MOV", "MP3",
                               "MPG",  "OGG", "WAV", "WMA",  "WMV"};
constexpr DWORD kDecodingSeconds = 30;

// Writes the tone of this kind into `folder` and starts a process that writes the tone's peaks
// there. This needs a separate process, because a system decoder can crash or hang.
KernelHandle StartDecoding(const std::string& program, const std::filesystem::path& folder,
                           const char* kind) {
  const HRSRC tone = FindResourceA(nullptr, kind, "TONE");
  const std::string file = Narrow((folder / kind).native()) + "." + kind;
  WriteWholeFile(file, {static_cast<const char*>(LockResource(LoadResource(nullptr, tone))),
                        SizeofResource(nullptr, tone)});
  std::wstring line = Widen("marlinda peaks \"" + file + "\" \"" + file + ".json\"");
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;  // no streams, so the process prints no messages
  PROCESS_INFORMATION process = {};
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);  // inherited by the process
  if (CreateProcessW(Widen(program).c_str(), line.data(), nullptr, nullptr, FALSE, 0, nullptr,
                     nullptr, &startup, &process) == FALSE) {
    throw HResultError(LastErrorResult());
  }
  CloseHandle(process.hThread);
  return KernelHandle(process.hProcess);
}

// Waits for the process. Returns the reason why decoding failed, or an empty text on success.
std::string DecodingFailure(HANDLE process, const std::filesystem::path& peaks_file,
                            ULONGLONG deadline) {
  const ULONGLONG now = std::min(GetTickCount64(), deadline);
  DWORD status = 0;
  if (WaitForSingleObject(process, static_cast<DWORD>(deadline - now)) != WAIT_OBJECT_0) {
    TerminateProcess(process, 1);
    WaitForSingleObject(process, 1000);  // its files can be deleted only after it has ended
    return "no answer in " + std::to_string(kDecodingSeconds) + " s";
  }
  GetExitCodeProcess(process, &status);
  if (status == static_cast<DWORD>(ExitStatus::kInput)) return "no working decoder";
  if (status > static_cast<DWORD>(ExitStatus::kDevice)) return "the decoder crashed";
  if (status != 0) return "status " + std::to_string(status);
  std::ifstream stream(peaks_file);
  const Json peaks = Json::parse(stream, nullptr, false);
  constexpr int kLoud = 8000;  // about half of the tone's level
  const bool is_loud =
      peaks.is_object() &&
      std::ranges::any_of(peaks["data"], [](const Json& code) { return code > kLoud; });
  return is_loud ? "" : "the sound is wrong";
}

// Runs all checks, but tries the decoders only if there is no problem so far. Opens the default
// sound devices briefly and makes the engine create temporary files. Leaves nothing behind.
class Doctor {
 public:
  Doctor() {
    AddFile("program", program_);
    Examine("module", [&] { ExamineModule(); });
    Examine("engines", [&] { ExamineEngines(); });
    Examine("type library", [&] { ExamineTypeLibrary(); });
    Examine("classes", [&] { ExamineClasses(); });
    ExamineConverter();
    Examine("import filters", [&] { ExamineFilters(); });
    const auto outputs = OutputDevices();
    const auto inputs = InputDevices();
    AddDevices("outputs", outputs);
    AddDevices("inputs", inputs);
    Examine("temporary folder", [&] { ExamineTemporaryFolder(); });
    Examine("decoders", [&] { ExamineDecoders(); });
    constexpr AudioFormat kUsual = {44100, 2};
    Examine("sound output", [&] {
      const auto device = DeviceChoice::OfOutputs(std::nullopt);
      if (!module_.empty()) ChooseOutputBits(device, kUsual);
    });
    Examine("sound input", [&] {
      const auto device = DeviceChoice::OfInputs(std::nullopt);
      if (!module_.empty()) OpenGrabber(device, kUsual)->CloseDevice();
    });
    AddErrors("note", notes_);
    AddErrors("problem", problems_);
    if (problems_.empty()) text_ += "no problems\n";
  }

  std::string Report(bool json) const { return json ? Serialize(report_) : text_; }
  const std::vector<HostError>& problems() const { return problems_; }

 private:
  // Runs one check and turns its exception into a problem.
  template <class Part>
  void Examine(const char* subject, Part part) {
    try {
      part();
    } catch (const HostError& error) {
      problems_.push_back(error);
    } catch (const HResultError& error) {
      problems_.push_back(Explain(error.code(), subject, ExitStatus::kFailure));
    }
  }

  void Line(std::string name, const std::string& value) {
    name.resize(14, ' ');
    text_ += name + value + "\n";
  }

  void AddProblem(HRESULT hr, const std::string& subject) {
    problems_.push_back(Explain(hr, subject, ExitStatus::kRegistration));
  }

  void AddErrors(const std::string& kind, const std::vector<HostError>& errors) {
    Json& list = report_[kind + "s"] = Json::array();
    for (const HostError& error : errors) {
      list.push_back(
          {{"subject", error.subject()}, {"cause", error.reason()}, {"remedy", error.remedy()}});
      if (error.status() != ExitStatus::kSuccess) {
        list.back()["status"] = static_cast<int>(error.status());
      }
      text_ += kind + ": " + error.what() + "\n";
    }
  }

  void AddFile(const char* name, const std::string& path) {
    const std::string version = VersionOf(path);
    const int bits = BitsOf(path);
    report_[name] = {{"path", path},
                     {"version", TextOrNull(version)},
                     {"bits", bits == 0 ? Json(nullptr) : Json(bits)}};
    Line(name, path + ", version " + (version.empty() ? "unknown" : version) + ", " +
                   std::to_string(bits) + "-bit");
  }

  void AddDevices(const char* name, const std::vector<SoundDevice>& devices) {
    Json& list = report_[name] = Json::array();
    std::string text;
    for (const SoundDevice& device : devices) {
      list.push_back(device.name);
      text += (text.empty() ? "" : ", ") + device.name;
    }
    Line(name, text.empty() ? "none" : text);
  }

  static std::string SubjectOf(const std::string& engine, const Registration& registration) {
    return engine + " (" + registration.kind + ": " + registration.module + ")";
  }

  // Returns false and adds a problem if programs of `wanted_bits` bits cannot load the module.
  bool CheckFile(const std::string& engine, const Registration& registration, int wanted_bits) {
    const std::filesystem::path file(Widen(registration.module));
    const int bits = BitsOf(registration.module);
    const auto refuse = [&](const std::string& reason, const char* remedy) {
      problems_.emplace_back(ExitStatus::kRegistration, SubjectOf(engine, registration), reason,
                             remedy);
      return false;
    };
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
      return refuse("the file does not exist", kRegistrationRemedy);
    }
    if (bits == 0) {
      return refuse("the file is no module, or cannot be read",
                    "Replace it by a complete Tessaly.dll that the user may read and run.");
    }
    if (bits == wanted_bits) return true;
    return refuse("it is a " + std::to_string(bits) + "-bit module, found by " +
                      std::to_string(wanted_bits) + "-bit programs",
                  "Also register the module with the same bitness as the programs.");
  }

  // If loading fails, examines the file, because some systems only report "access denied".
  void ExamineModule() {
    constexpr const char* kSubject = "the engine's module";
    ComPtr<IUnknown> manager;
    const HRESULT hr = TryToCreate(CLSID_CFileFilterMgr, manager);
    registrations_ = FindRegistrations(CLSID_CFileFilterMgr, program_);
    report_.update({{"module", nullptr}, {"found_by", nullptr}});
    if (SUCCEEDED(hr)) {
      module_ = ModuleOf(manager.Get());
      AddFile("module", module_);
      const auto used = std::ranges::find_if(registrations_, [&](const auto& registration) {
        std::error_code error;
        return std::filesystem::equivalent(Widen(registration.module), Widen(module_), error);
      });
      report_["found_by"] = used == registrations_.end() ? "unknown" : used->kind;
      Line("found by", report_["found_by"]);
    } else {
      Line("module", "cannot be used");
      if (registrations_.empty()) {
        AddProblem(hr, kSubject);
      } else if (CheckFile(kSubject, registrations_.front(), kOwnBits)) {
        AddProblem(hr, SubjectOf(kSubject, registrations_.front()));
      }
    }
    report_["registrations"] = ToJson(registrations_);
    Line("registered", ToText(registrations_, "nowhere"));
  }

  // Returns the module beside the program or in a package's x64 or x86 folder, else an empty text.
  std::string FindBeside(int bits) const {
    const auto folder = FolderOf(program_);
    for (const auto& place : {folder, folder.parent_path() / (bits == 64 ? L"x64" : L"x86")}) {
      std::string file = Narrow((place / L"Tessaly.dll").native());
      if (BitsOf(file) == bits) return file;
    }
    return "";
  }

  // A missing module of the other bitness is no problem, because only other programs need it.
  void ExamineEngines() {
    report_["engines"] = Json::array();
    for (const int bits : {64, 32}) {
      const std::string file = FindBeside(bits);
      Registrations registrations = InRegistry(CLSID_CFileFilterMgr, bits);
      if (bits != kOwnBits) {
        // Some systems show the same entries to programs of both bitnesses. Ignores the entries
        // that this program also finds, because they belong to its own bitness.
        std::erase_if(registrations, [&](const Registration& registration) {
          return std::ranges::count(registrations_, registration) != 0;
        });
        const std::string subject = "the " + std::to_string(bits) + "-bit engine";
        for (const Registration& each : registrations) CheckFile(subject, each, bits);
      }
      report_["engines"].push_back(
          {{"bits", bits}, {"file", TextOrNull(file)}, {"registrations", ToJson(registrations)}});
      Line(std::to_string(bits) + " bits",
           (file.empty() ? "not here" : file) + "; " + ToText(registrations, "not registered"));
    }
  }

  void ExamineTypeLibrary() {
    report_["type_library"] = nullptr;
    ComPtr<ITypeLib> library;
    const HRESULT hr =
        LoadRegTypeLib(LIBID_MarlindaLib, 1, 0, LOCALE_NEUTRAL, library.GetAddressOf());
    if (FAILED(hr)) {
      Line("type library", "missing");
      const HostError error = Explain(hr, "type library", ExitStatus::kRegistration);
      problems_.emplace_back(error.status(), error.subject(),
                             error.reason() + ", so scripts and calls from other apartments fail",
                             kRegistrationRemedy);
      return;
    }
    Bstr help;
    Bstr path;
    library->GetDocumentation(MEMBERID_NIL, nullptr, help.Receive(), nullptr, nullptr);
    QueryPathOfRegTypeLib(LIBID_MarlindaLib, 1, 0, LOCALE_NEUTRAL, path.Receive());
    report_["type_library"] = {{"name", help.utf8()}, {"path", path.utf8()}};
    Line("type library", help.utf8() + ", " + path.utf8());
  }

  // Creates an object of each class in the module's type library.
  void ExamineClasses() {
    Json& classes = report_["classes"] = Json::array();
    if (module_.empty()) return;
    ComPtr<ITypeLib> library;
    HRESULT hr = LoadTypeLibEx(Widen(module_).c_str(), REGKIND_NONE, library.GetAddressOf());
    if (FAILED(hr)) return AddProblem(hr, "the type library in " + module_);
    int available = 0;
    for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
      TYPEKIND kind = TKIND_MAX;
      Check(library->GetTypeInfoType(i, &kind));
      if (kind != TKIND_COCLASS) continue;
      ComPtr<ITypeInfo> info;
      TYPEATTR* attributes = nullptr;
      Check(library->GetTypeInfo(i, info.GetAddressOf()));
      Check(info->GetTypeAttr(&attributes));
      const CLSID class_id = attributes->guid;
      info->ReleaseTypeAttr(attributes);
      Bstr name;
      Check(info->GetDocumentation(MEMBERID_NIL, name.Receive(), nullptr, nullptr, nullptr));
      ComPtr<IUnknown> object;
      hr = TryToCreate(class_id, object);
      if (FAILED(hr)) AddProblem(hr, name.utf8());
      available += SUCCEEDED(hr) ? 1 : 0;
      classes.push_back({{"class", name.utf8()},
                         {"class_id", ClassIdText(class_id)},
                         {"available", SUCCEEDED(hr)}});
    }
    Line("classes",
         std::to_string(available) + " of " + std::to_string(classes.size()) + " can be created");
  }

  void ExamineConverter() {
    ComPtr<IUnknown> converter;
    const bool available = SUCCEEDED(TryToCreate(CLSID_CFormatConverter, converter));
    report_["converter_available"] = available;
    Line("converter", available ? "can be created" : "missing");
    if (available) return;
    notes_.emplace_back(
        ExitStatus::kSuccess, "converter",
        "it cannot be created, so CAudioConnector passes audio on at its own rate and channels",
        "To convert, put Converter.dll beside Tessaly.dll and register it.");
  }

  // Returns true if the listed filter can be created; otherwise adds a problem.
  bool CheckFilter(const ListedFilter& entry) {
    const std::string subject = "import filter \"" + entry.value_name + "\" in " + kFilterListKey;
    CLSID class_id;
    if (FAILED(CLSIDFromString(Widen(entry.class_id).c_str(), &class_id))) {
      problems_.emplace_back(ExitStatus::kRegistration, subject,
                             "\"" + entry.class_id + "\" is not a class identifier",
                             "Correct or remove the value.");
      return false;
    }
    ComPtr<IImportFilter> filter;
    const HRESULT hr = CreateInstance(class_id, filter);
    if (SUCCEEDED(hr)) return true;
    problems_.emplace_back(
        ExitStatus::kRegistration, subject,
        entry.class_id + ": " + Explain(hr, "", ExitStatus::kRegistration).reason(),
        "Register the module of the filter, or remove the value; the engine ignores it.");
    return false;
  }

  void ExamineFilters() {
    Json& filters = report_["filters"] = Json::array();
    const FilterList list = ReadFilterList();
    std::string text;
    for (const ListedFilter& entry : list.entries) {
      const bool available = CheckFilter(entry);
      filters.push_back({{"listed_as", entry.value_name},
                         {"class_id", entry.class_id},
                         {"available", available}});
      text +=
          (text.empty() ? "" : ", ") + entry.value_name + (available ? "" : " (cannot be created)");
    }
    Line("filters", text.empty() ? "none listed" : text);
    if (list.cut_short) {
      problems_.emplace_back(
          ExitStatus::kRegistration, kFilterListKey,
          "one value is too long, so the engine ignores it and the filters after it",
          "Remove the value.");
    } else if (list.entries.empty()) {
      notes_.emplace_back(ExitStatus::kSuccess, "import filters",
                          "none is listed, so CFileFilterMgr finds none; marlinda uses the "
                          "built-in filters directly",
                          "\"marlinda install-filters\", run as an administrator, lists them.");
    }
  }

  // Chooses the folder like the engine, which ignores a registry value longer than its buffer.
  void ExamineTemporaryFolder() {
    char chosen[256] = "";
    DWORD size = sizeof chosen - 1;
    RegistryKey key;
    const bool is_chosen =
        RegOpenKeyExA(HKEY_CURRENT_USER, kDirectoriesKey, 0, KEY_QUERY_VALUE, key.Receive()) ==
            ERROR_SUCCESS &&
        RegQueryValueExA(key.get(), "Temporary", nullptr, nullptr, reinterpret_cast<BYTE*>(chosen),
                         &size) == ERROR_SUCCESS;
    char standard[MAX_PATH] = "";
    GetTempPathA(MAX_PATH, standard);
    const std::string folder = FromAnsi(is_chosen ? chosen : standard);
    std::optional<ULONGLONG> free_bytes;
    ULARGE_INTEGER free = {};
    if (GetDiskFreeSpaceExW(Widen(folder).c_str(), &free, nullptr, nullptr) != FALSE) {
      free_bytes = free.QuadPart;
    }
    const std::string free_text = std::to_string(free_bytes.value_or(0) >> 20U) + " MiB";
    report_["temporary_folder"] = {
        {"path", folder}, {"chosen", is_chosen}, {"free_bytes", OrNull(free_bytes)}};
    Line("temporary", folder + (is_chosen ? ", chosen in the registry" : ", the system's") +
                          (free_bytes ? ", " + free_text + " free" : ""));

    const auto add = [&](const std::string& reason, const std::string& remedy) {
      problems_.emplace_back(ExitStatus::kOutput, "temporary folder " + folder, reason,
                             remedy + ", or name another in the registry value \"Temporary\" of " +
                                 "HKEY_CURRENT_USER\\" + kDirectoriesKey + ".");
    };
    const DWORD attributes = GetFileAttributesW(Widen(folder).c_str());
    ComPtr<IAudioPool> pool;
    CreateInstance(CLSID_CAudioPool, pool);
    if (attributes == INVALID_FILE_ATTRIBUTES) {
      add("the folder does not exist", "Create it");
    } else if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      add("it is a file, not a folder", "Remove the file and create the folder");
    } else if (const HRESULT hr = pool ? TryPoolFiles(pool.Get()) : S_OK; FAILED(hr)) {
      add("no file can be made there: " + Explain(hr, "", ExitStatus::kOutput).reason(),
          "Allow the user to write there");
    } else if (free_bytes && *free_bytes < kMinFreeBytes) {
      add("only " + free_text + " are free, and imported audio needs 8 bytes per stereo frame",
          "Free some space there");
    }
  }

  // Tries no decoder if an earlier check found a problem, because the problem could make every kind
  // of file fail.
  void ExamineDecoders() {
    Json& decoding = report_["decoding"] = nullptr;
    if (!problems_.empty()) return Line("decodes", "not tried because of the problems below");
    std::error_code ignored;
    const auto folder = std::filesystem::temp_directory_path(ignored) /
                        ("marlinda-" + std::to_string(GetCurrentProcessId()));
    std::filesystem::create_directory(folder, ignored);
    const ULONGLONG deadline = GetTickCount64() + 1000ULL * kDecodingSeconds;
    std::vector<std::pair<std::string, KernelHandle>> trials;
    trials.reserve(std::size(kKinds));
    for (const char* kind : kKinds)
      trials.emplace_back(kind, StartDecoding(program_, folder, kind));
    std::string text;
    for (const auto& [kind, process] : trials) {
      auto report = folder / kind;
      report.concat(".").concat(kind).concat(".json");
      const std::string failure = DecodingFailure(process.get(), report, deadline);
      decoding.push_back({{"kind", kind}, {"failure", TextOrNull(failure)}});
      text.append(text.empty() ? "" : ", ")
          .append(kind)
          .append(failure.empty() ? " yes" : " no (" + failure + ")");
    }
    Line("decodes", text);
    std::filesystem::remove_all(folder, ignored);
  }

  Json report_;
  std::string text_;
  std::vector<HostError> problems_;
  std::vector<HostError> notes_;  // unusual states that may be intended
  std::string program_ = PathOf(nullptr);
  std::string module_;  // empty if it cannot be loaded
  Registrations registrations_;
};

ExitStatus Gravest(const std::vector<HostError>& problems) {
  constexpr std::array kOrder = {ExitStatus::kFailure, ExitStatus::kRegistration,
                                 ExitStatus::kOutput, ExitStatus::kDevice};
  return *std::ranges::find_if(kOrder, [&](ExitStatus status) {
    return std::ranges::count(problems, status, &HostError::status) != 0;
  });
}

// Prints the report. If there are problems, throws with the status of the most serious one.
void PrintReport(bool json, const Console& console) {
  const Doctor doctor;
  console.Print(doctor.Report(json));
  const std::size_t count = doctor.problems().size();
  if (count == 0) return;
  static_cast<void>(std::fflush(stdout));  // print the report before the message on standard error
  throw HostError(
      Gravest(doctor.problems()), "",
      count == 1 ? "there is 1 problem" : "there are " + std::to_string(count) + " problems");
}

}  // namespace

void AddDoctor(CLI::App& app, Console& console) {
  const auto json = std::make_shared<bool>();
  AddJson(AddCommand(app, "doctor", "Check the installation and name a remedy for each problem",
                     "Example: marlinda doctor", [json, &console] { PrintReport(*json, console); }),
          *json);
}

}  // namespace marlinda
