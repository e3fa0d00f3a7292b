#include "HostFilesProvider.h"

#include "HostParams.h"

#include "kvx/messaging/MsgMap.h"
#include "kvx/msgdata/MsgRowSet.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace
{
struct Entry
{
    CString strName;
    ULONGLONG nSize;
    FILETIME modified;
    DWORD nAttributes;
};

LPCTSTR KindOf(DWORD attributes)
{
    return attributes & FILE_ATTRIBUTE_REPARSE_POINT ? _T("link")
           : attributes & FILE_ATTRIBUTE_DIRECTORY   ? _T("directory")
           : attributes & FILE_ATTRIBUTE_DEVICE      ? _T("other")
                                                     : _T("file");
}

CString ToLocalText(FILETIME const & time)
{
    SYSTEMTIME fields{};
    try
    {
        if (!CTime(time).GetAsSystemTime(fields))
        {
            return CString();
        }
    }
    catch (CInvalidArgException * failure)
    {
        // Before 1970: with the difference to UTC that holds now.
        failure->Delete();
        FILETIME local{};
        if (!FileTimeToLocalFileTime(&time, &local) || !FileTimeToSystemTime(&local, &fields))
        {
            return CString();
        }
    }
    CString text;
    text.Format(_T("%04d-%02d-%02d %02d:%02d:%02d"), fields.wYear, fields.wMonth, fields.wDay, fields.wHour,
                fields.wMinute, fields.wSecond);
    return text;
}

/// Appends what matches. False with the thread's last error.
bool ListFolder(CString const & folder, CString const & pattern, std::vector<Entry> & entries)
{
    WCHAR const last = folder[folder.GetLength() - 1];
    CString const search = (last == '/' || last == '\\' ? folder : folder + _T("\\")) + pattern;
    WIN32_FIND_DATAW found{};
    HANDLE const handle = FindFirstFileW(search, &found);
    if (handle == INVALID_HANDLE_VALUE)
    {
        DWORD const error = GetLastError();
        DWORD const attributes = GetFileAttributesW(folder);
        bool const isFile = attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
        SetLastError(isFile ? ERROR_DIRECTORY : error); // which not all hosts call it
        return error == ERROR_FILE_NOT_FOUND;           // the folder is there, and nothing in it matches
    }
    do
    {
        CString const name = found.cFileName;
        if (name != _T(".") && name != _T(".."))
        {
            entries.push_back({name, ULONGLONG{found.nFileSizeHigh} << 32 | found.nFileSizeLow, found.ftLastWriteTime,
                               found.dwFileAttributes});
        }
    } while (FindNextFileW(handle, &found));
    DWORD const error = GetLastError();
    FindClose(handle);
    SetLastError(error);
    return error == ERROR_NO_MORE_FILES;
}
} // namespace

void CHostFilesProvider::RegisterProviderMap()
{
    CMsgProvider::RegisterProviderMap();
    AddProvider(_T("files.list"), new _MsgMapEntry<CHostFilesProvider>(this, &CHostFilesProvider::OnList));
}

void CHostFilesProvider::OnList(CMsgRequest & request)
{
    auto const & params = static_cast<CValueAccessor const &>(request);
    CString const path = params.GetValue(_T("path"));
    CString pattern = params.GetValue(_T("pattern"));
    if (path.IsEmpty())
    {
        request.SetResponseError(ERROR_INVALID_PARAMETER, _T("The parameter '%s' is missing"), _T("path"));
        return;
    }
    if (pattern.IsEmpty())
    {
        pattern = _T("*");
    }
    if (pattern.FindOneOf(_T("/\\:")) >= 0)
    {
        request.SetResponseError(ERROR_INVALID_PARAMETER, _T("The parameter 'pattern' must match names, not paths"));
        return;
    }
    auto const limit = ReadNumber(request, _T("limit"), 0, 0, std::numeric_limits<LONGLONG>::max());
    if (!limit)
    {
        return;
    }
    std::vector<Entry> entries;
    if (!ListFolder(path, pattern, entries))
    {
        request.GetResponse().SyncLastError();
        return;
    }
    std::ranges::sort(entries, [](Entry const & a, Entry const & b) { return a.strName.Compare(b.strName) < 0; });
    if (*limit > 0 && static_cast<ULONGLONG>(*limit) < entries.size())
    {
        entries.resize(static_cast<std::size_t>(*limit));
    }
    kvx::RefPtr<CMsgRowSet> const rows(new CMsgRowSet(_T("files")));
    for (LPCTSTR const column : {_T("name"), _T("size"), _T("modified"), _T("kind")})
    {
        rows->AddColumn(column);
    }
    for (Entry const & entry : entries)
    {
        POSITION row = rows->AppendRow();
        rows->GetData(row, 0) = entry.strName;
        rows->GetData(row, 1) = entry.nSize;
        rows->GetData(row, 2) = ToLocalText(entry.modified);
        rows->GetData(row, 3) = KindOf(entry.nAttributes);
    }
    request.GetResponse().AssignRowSet(rows.Get());
}
