// File names between the user (any Unicode name) and the engine (the system's ANSI code page).
#pragma once

#include <string>
#include <vector>

namespace marlinda {

// Opens the file for a moment. Throws a HostError with the reason when it cannot be read, or is a
// folder or a device.
void RequireReadable(const std::string& file);

// Opens the file for a moment to write, without touching what it holds; one that does not exist is
// not left behind. Throws a HostError with the reason when that is impossible.
void RequireWritable(const std::string& file);

// Throws a HostError when the output can be no file: its folder does not exist, it is a folder, a
// device such as CON, or one of the inputs.
void RequireWritablePlace(const std::string& output, const std::vector<std::string>& inputs);

// Writes a file whole; an existing one is replaced. Throws a HostError that names the file, and
// then leaves no half of one.
void WriteWholeFile(const std::string& file, const std::string& content);

// Extension without its dot, ASCII letters in lower case.
std::string ExtensionOf(const std::string& file);

// A name for the same file that the engine's code page can hold: the name itself, or the short name
// that the system keeps beside it. Throws a HostError when there is neither.
std::wstring EngineNameOfInput(const std::string& file);
// The same for a file to be written. A file that has only a short name to offer is made first,
// empty.
std::wstring EngineNameOfOutput(const std::string& file);

}  // namespace marlinda
