#pragma once

/// Names of files as they come from the command line and the host: any bytes, mostly UTF-8.

#include "kvx/platform/mfc/Text.h"

#include <filesystem>
#include <string>
#include <string_view>

/// The name of a file as it came, whatever its bytes are: those that aren't UTF-8 are the units that the platform's
/// file names have in their place.
CString ToFileName(std::string_view name);

/// The host's path of such a name; and the name of a path, with slashes.
std::filesystem::path ToPath(std::string_view name);
std::string FromPath(std::filesystem::path const & path);

/// For the lines on stdout: a terminal gets nothing that gives it commands or deceives its reader.
std::string ShowName(std::string const & text);

/// Whether the bytes are UTF-8.
bool IsUtf8(std::string_view text);

/// Whether a name matches a pattern in which `*` stands for any characters and `?` for one; upper and lower case
/// differ.
bool MatchesPattern(std::string_view name, std::string_view pattern);
