#pragma once

#include <string>

namespace kvx::win32
{

bool IsFolder(std::string const & strHost);

/// SetLastErrorForPath for what must be a folder: ERROR_DIRECTORY if something else is there.
void SetLastErrorForFolder(int nErrno, std::string const & strHost);

} // namespace kvx::win32
