/// Where temporary files lie, and names for them that nobody else has.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/files/folders.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/unique_fd.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

using namespace kvx::win32;

DWORD GetTempPathW(DWORD nChars, LPWSTR pszBuffer)
try
{
    char const * const pszFolder = std::getenv("TMPDIR");
    std::u16string strPath = FromHost(pszFolder && *pszFolder == '/' ? pszFolder : "/tmp");
    if (!strPath.ends_with(u'\\'))
    {
        strPath += u'\\';
    }
    return CopyText(strPath, nChars, pszBuffer);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(0);
}

UINT GetTempFileNameW(LPCWSTR pszPath, LPCWSTR pszPrefix, UINT nUnique, LPWSTR pszBuffer)
try
{
    if (!pszPath || !pszBuffer)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    std::string const strFolder = ToHost(pszPath);
    if (strFolder.empty())
    {
        return 0;
    }
    if (!IsFolder(strFolder))
    {
        return Refuse(ERROR_DIRECTORY);
    }
    std::u16string strHead(pszPath);
    if (!strHead.ends_with(u'\\') && !strHead.ends_with(u'/'))
    {
        strHead += u'\\';
    }
    strHead += std::u16string_view(pszPrefix ? pszPrefix : u"").substr(0, 3);
    if (strHead.size() + 9 > MAX_PATH)
    {
        return Refuse(ERROR_BUFFER_OVERFLOW);
    }
    UINT nNumber = nUnique & 0xFFFF;
    if (nUnique == 0)
    {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        nNumber = static_cast<UINT>(now.tv_nsec / 1000 + getpid()) & 0xFFFF;
    }
    for (UINT nTries = 0; nTries <= 0xFFFF; ++nTries, nNumber = (nNumber + 1) & 0xFFFF)
    {
        if (nNumber == 0 && nUnique == 0)
        {
            continue;
        }
        char szNumber[12];
        int const nDigits = std::snprintf(szNumber, sizeof szNumber, "%X.TMP", nNumber);
        std::u16string strName = strHead;
        strName.append(szNumber, szNumber + nDigits);
        if (nUnique == 0)
        {
            std::string strHost = ToHost(strName, LastComponent::AsWritten);
            if (strHost.empty())
            {
                return 0;
            }
            FindInAnyCase(strHost);
            UniqueFd const created(open(strHost.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
            if (!created && errno == EEXIST)
            {
                continue;
            }
            if (!created)
            {
                return static_cast<UINT>(RefuseByErrno());
            }
        }
        CopyText(strName, MAX_PATH, pszBuffer);
        return nUnique ? nUnique : nNumber;
    }
    return Refuse(ERROR_FILE_EXISTS);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<UINT>(0);
}
