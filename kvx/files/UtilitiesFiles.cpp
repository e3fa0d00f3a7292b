#include "kvx/foundation/Utilities.h"

int CUtilities::CheckFixLongFilePathPrefix(CString & path)
{
    constexpr LPCTSTR PREFIX = _T("\\\\?\\");
    if (path.GetLength() < MAX_PATH || path.Left(4) == PREFIX)
    {
        return 0;
    }
    path = PREFIX + path;
    return 1;
}
