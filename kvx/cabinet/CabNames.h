#pragma once

/// Names as the cabinet classes hold them: bytes, whose separators and drives are those of CFilePath. They are divided
/// here without a change of encoding, which would lose what isn't in the code page.

#include "kvx/platform/mfc/Text.h"

#include <algorithm>

namespace kvx::cabinet
{
/// Where the file name begins: behind the last separator, or the drive.
inline int FileNameIndex(CStringA const & path)
{
    int const drive = path.GetLength() > 1 && path[1] == ':' ? 1 : -1;
    return std::max({path.ReverseFind('\\'), path.ReverseFind('/'), drive}) + 1;
}

/// Where the extension begins, with its dot; the end if there is none.
inline int ExtensionIndex(CStringA const & path)
{
    int const dot = path.ReverseFind('.');
    return dot >= FileNameIndex(path) ? dot : path.GetLength();
}

inline void CloseDirectory(CStringA & directory)
{
    int const length = directory.GetLength();
    if (length != 0 && directory[length - 1] != '\\')
    {
        directory += '\\';
    }
}
} // namespace kvx::cabinet
