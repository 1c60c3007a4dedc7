// Checks file names, and finds names that the engine's ANSI code page can represent.
#pragma once

#include <string>
#include <vector>

namespace marlinda {

// Throws a HostError with the reason if the file cannot be opened for reading, or is a folder or a
// device.
void RequireReadable(const std::string& file);

// Throws a HostError with the reason if the file cannot be opened for writing. Does not change the
// file's contents and leaves no new file behind.
void RequireWritable(const std::string& file);

// Throws a HostError if the output cannot be a file, because its folder does not exist, or because
// the output is a folder, a device such as CON, or one of the inputs.
void RequireWritablePlace(const std::string& output, const std::vector<std::string>& inputs);

// Writes a file, or replaces an existing one. On failure, removes the incomplete file and throws a
// HostError that names it.
void WriteWholeFile(const std::string& file, const std::string& content);

// Returns the extension without its dot, ASCII letters in lower case.
std::string ExtensionOf(const std::string& file);

// Returns a name that the engine's code page can represent: the name itself or the system's short
// name. Throws a HostError if the code page can represent neither.
std::wstring EngineNameOfInput(const std::string& file);
// Does the same for an output. If the code page cannot represent the name, creates the file to get
// a short name.
std::wstring EngineNameOfOutput(const std::string& file);

}  // namespace marlinda
