#pragma once

#include "kvx/platform/win32/types.h"

#include <string>

namespace kvx::win32
{

/// The name of the file that stands for a local pipe's path; empty with last error for anything else.
std::string FileOfPipe(LPCWSTR pszPath);

} // namespace kvx::win32
