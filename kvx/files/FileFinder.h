#pragma once

/// A search for files.

#include "kvx/platform/mfc/Afx.h"

/// What a search is done with; the parts are those of FindFirstFile, FindNextFile and FindClose.
struct _tagFILEFINDERFUNCS
{
    HANDLE(WINAPI * pFindFirst)(LPCTSTR path, WIN32_FIND_DATAW * data);
    BOOL(WINAPI * pFindNext)(HANDLE search, WIN32_FIND_DATAW * data);
    BOOL(WINAPI * pFindClose)(HANDLE search);
};

/// Goes through what matches a pattern:
///
///     CFileFinder finder(folder + _T("\\*.txt"), FindExSearchNameMatch);
///     while (finder.FindNext())
///         Use(finder.GetFileName());
///
/// Both kinds of Find give 0 with the last error: ERROR_NO_MORE_FILES behind the last entry. With
/// FindExSearchLimitToDirectories only folders are given. Paths may have any length, see
/// CUtilities::CheckFixLongFilePathPrefix. Threads: a finder belongs to one.
class KVX_API CFileFinder : public CObject
{
public:
    /// Nothing is searched yet.
    CFileFinder(CString const & pattern, _FINDEX_SEARCH_OPS option = FindExSearchNameMatch);
    explicit CFileFinder(_FINDEX_SEARCH_OPS option = FindExSearchNameMatch) : CFileFinder(CString(), option) {}
    CFileFinder(CFileFinder const &) = delete;
    CFileFinder & operator=(CFileFinder const &) = delete;
    ~CFileFinder() override { Close(); }

    /// Ends a search in progress and starts one.
    int FindFirst(CString const & pattern);
    int FindFirst(CString const & pattern, WIN32_FIND_DATAW & data);
    /// Starts the search if none is open.
    int FindNext();
    int FindNext(WIN32_FIND_DATAW & data);

    // The entry found last.
    CString GetFileName() const { return GetFileName(m_data); }
    int IsDirectory() const { return IsDirectory(m_data); }
    int IsDots() const { return IsDots(m_data); }
    int IsFile() const { return IsFile(m_data); }
    int IsEmptyFile() const { return IsEmptyFile(m_data); }
    WIN32_FIND_DATAW const * operator->() const { return &m_data; }

    static CString GetFileName(WIN32_FIND_DATAW const & data) { return data.cFileName; }
    static int IsDirectory(WIN32_FIND_DATAW const & data)
    {
        return (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    }
    /// "." or "..".
    static int IsDots(WIN32_FIND_DATAW const & data);
    static int IsFile(WIN32_FIND_DATAW const & data) { return !IsDirectory(data); }
    /// By its size alone: folders too.
    static int IsEmptyFile(WIN32_FIND_DATAW const & data) { return data.nFileSizeLow == 0 && data.nFileSizeHigh == 0; }

    /// The first entry that matches.
    static int Find(CString const & pattern, WIN32_FIND_DATAW & data);

    /// Adds the paths at which there is such a file or folder: in the program's folder, the current one, the system's
    /// ("system32", "SysWOW64", "system" and Windows' own), and, by contract, the first folder of the variable PATH and
    /// the first of `extraPaths` (folders with semicolons between them). Some may be the same. How many were found.
    static int FindAllFiles(CString const & name, CStringList & out, CString const & extraPaths);

    /// The host's functions in place of the system's, for all searches from now on; null is the system's. The table
    /// isn't copied. Set it before any other thread runs.
    static void SetFindFunctions(_tagFILEFINDERFUNCS * functions);

private:
    static _tagFILEFINDERFUNCS * sm_FinderFuncs;

    HANDLE m_hSearch = INVALID_HANDLE_VALUE;
    CString m_strPattern;
    WIN32_FIND_DATAW m_data{};
    _FINDEX_SEARCH_OPS m_nOption;

    int Start();
    int Accept(BOOL found);
    void Close();
};
