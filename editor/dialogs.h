// The editor's dialogs, modal to `owner`. A cancelled dialog returns an empty result.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "core/records.h"
#include "host/messages.h"

namespace marlinda::editor {

std::optional<std::string> AskText(HWND owner, const std::string& title, const std::string& prompt,
                                   const std::string& initial);
std::optional<Tags> AskTags(HWND owner, const Tags& initial);

// Returns existing files, in the dialog's order.
std::vector<std::string> AskFilesToOpen(HWND owner, const std::string& title);
// Asks for confirmation before an existing file is chosen.
std::optional<std::string> AskFileToWrite(HWND owner, const std::string& suggested,
                                          const std::wstring& types);

// Converts the exception that is being handled to a HostError. Call in a catch block.
HostError CurrentFailure();
// Shows the operation that failed (`what`), then the error's subject, reason and remedy.
void ShowFailure(HWND owner, const std::string& what, const HostError& error);

}  // namespace marlinda::editor
