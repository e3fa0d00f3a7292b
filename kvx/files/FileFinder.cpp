#include "kvx/files/FileFinder.h"

#include "kvx/foundation/Utilities.h"

namespace
{
// The calls behind functions of our own: those of a system's library have no address that a constant could hold.
HANDLE WINAPI FindFirstOfSystem(LPCTSTR path, WIN32_FIND_DATAW * data)
{
    return FindFirstFileW(path, data);
}

BOOL WINAPI FindNextOfSystem(HANDLE search, WIN32_FIND_DATAW * data)
{
    return FindNextFileW(search, data);
}

BOOL WINAPI FindCloseOfSystem(HANDLE search)
{
    return FindClose(search);
}

constinit _tagFILEFINDERFUNCS g_systemFinder{&FindFirstOfSystem, &FindNextOfSystem, &FindCloseOfSystem};

CString FirstFolderOf(CString const & folders)
{
    return folders.SpanExcluding(_T(";"));
}
} // namespace

constinit _tagFILEFINDERFUNCS * CFileFinder::sm_FinderFuncs = &g_systemFinder;

CFileFinder::CFileFinder(CString const & pattern, _FINDEX_SEARCH_OPS option) : m_strPattern(pattern), m_nOption(option)
{
}

int CFileFinder::FindFirst(CString const & pattern)
{
    Close();
    m_strPattern = pattern;
    return Start();
}

int CFileFinder::FindFirst(CString const & pattern, WIN32_FIND_DATAW & data)
{
    int const result = FindFirst(pattern);
    data = m_data;
    return result;
}

int CFileFinder::FindNext()
{
    return m_hSearch == INVALID_HANDLE_VALUE ? Start() : Accept(sm_FinderFuncs->pFindNext(m_hSearch, &m_data));
}

int CFileFinder::FindNext(WIN32_FIND_DATAW & data)
{
    int const result = FindNext();
    data = m_data;
    return result;
}

int CFileFinder::IsDots(WIN32_FIND_DATAW const & data)
{
    CString::View const name(data.cFileName);
    return name == CString::View(_T(".")) || name == CString::View(_T(".."));
}

int CFileFinder::Find(CString const & pattern, WIN32_FIND_DATAW & data)
{
    return CFileFinder().FindFirst(pattern, data);
}

int CFileFinder::FindAllFiles(CString const & name, CStringList & out, CString const & extraPaths)
{
    constexpr DWORD ROOM = 32767;
    CString const windows = CUtilities::GetWindowsDirectoryW();
    CString searchPath;
    DWORD const length = GetEnvironmentVariableW(_T("PATH"), searchPath.GetBuffer(ROOM), ROOM);
    searchPath.ReleaseBuffer(length < ROOM ? static_cast<int>(length) : 0);

    CString const folders[] = {CUtilities::GetLocalDirectory(nullptr),
                               CUtilities::GetCurrentDirectoryW(),
                               windows + _T("\\system32"),
                               windows + _T("\\SysWOW64"),
                               windows + _T("\\system"),
                               windows,
                               FirstFolderOf(searchPath),
                               FirstFolderOf(extraPaths)};
    int count = 0;
    for (CString path : folders)
    {
        if (path.IsEmpty())
        {
            continue;
        }
        CUtilities::AppendBackslash(path);
        path += name;
        if (CFileFinder().FindFirst(path))
        {
            out.AddTail(path);
            ++count;
        }
    }
    return count;
}

void CFileFinder::SetFindFunctions(_tagFILEFINDERFUNCS * functions)
{
    sm_FinderFuncs = functions ? functions : &g_systemFinder;
}

int CFileFinder::Start()
{
    CString path = m_strPattern;
    CUtilities::CheckFixLongFilePathPrefix(path);
    m_hSearch = sm_FinderFuncs->pFindFirst(path, &m_data);
    return Accept(m_hSearch != INVALID_HANDLE_VALUE);
}

/// The entry that was found, or the first behind it that is of the wanted kind.
int CFileFinder::Accept(BOOL found)
{
    while (found && m_nOption == FindExSearchLimitToDirectories && !IsDirectory())
    {
        found = sm_FinderFuncs->pFindNext(m_hSearch, &m_data);
    }
    return found;
}

void CFileFinder::Close()
{
    if (m_hSearch != INVALID_HANDLE_VALUE)
    {
        sm_FinderFuncs->pFindClose(m_hSearch);
        m_hSearch = INVALID_HANDLE_VALUE;
    }
}
