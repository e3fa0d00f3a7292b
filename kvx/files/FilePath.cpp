#include "kvx/files/FilePath.h"

#include "kvx/foundation/Utilities.h"

#include <algorithm>
#include <iterator>

namespace
{
/// What a path may have, with the NUL.
constexpr int LONGEST_PATH = 32767;

/// Whether a name is left that could be a short one: the system gave back what it was given.
bool IsUnexpanded(CString const & found, CString const & given)
{
    return found.Find(_T('~')) > 0 && found.CompareNoCase(given) == 0;
}
} // namespace

void CFilePath::FromString(CString const & path)
{
    CString const whole = path; // may be one of the parts
    CString::View const view = whole;
    std::size_t const drive = view.size() >= 2 && view[1] == ':' ? 2 : 0;
    std::size_t const separator = view.find_last_of(_T("\\/"));
    std::size_t const name = separator == view.npos || separator < drive ? drive : separator + 1;
    std::size_t const dot = view.rfind('.');
    std::size_t const extension = dot == view.npos || dot < name ? view.size() : dot;
    m_strDrive = CString(view.substr(0, drive));
    m_strDirectory = CString(view.substr(drive, name - drive));
    m_strFile = CString(view.substr(name, extension - name));
    m_strExtension = CString(view.substr(extension));
}

CString CFilePath::ToString() const
{
    CString path;
    path.Preallocate(m_strDrive.GetLength() + m_strDirectory.GetLength() + m_strFile.GetLength() +
                     m_strExtension.GetLength());
    path += m_strDrive;
    path += m_strDirectory;
    path += m_strFile;
    path += m_strExtension;
    return path;
}

void CFilePath::Empty()
{
    *this = CFilePath();
}

CString CFilePath::GetCompactPath(unsigned int width) const
{
    WCHAR buffer[MAX_PATH] = {};
    UINT const room = std::min<UINT>(width, MAX_PATH);
    return room > 0 && PathCompactPathExW(buffer, ToString(), room, 0) ? CString(buffer) : CString();
}

CString CFilePath::GetCompactPath(HDC context, unsigned int pixels) const
{
    // The call works in place, in a buffer of this size.
    CString text = GetCompactPath(MAX_PATH);
    WCHAR buffer[MAX_PATH] = {};
    std::copy_n(text.GetString(), text.GetLength(), buffer);
    PathCompactPathW(context, buffer, pixels);
    return buffer;
}

CString CFilePath::GetShortPathNameW(LPCTSTR path)
{
    WCHAR buffer[MAX_PATH];
    DWORD const length = path ? ::GetShortPathNameW(path, buffer, MAX_PATH) : 0;
    if (length >= MAX_PATH)
    {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return {};
    }
    return CString(buffer, static_cast<int>(length));
}

CString CFilePath::GetLongPathNameImpl(CString const & path)
{
    if (path.Find(_T('~')) < 0 || path.GetLength() >= LONGEST_PATH)
    {
        return path;
    }
    CString found;
    DWORD const length = ::GetLongPathNameW(path, found.GetBuffer(LONGEST_PATH - 1), LONGEST_PATH);
    found.ReleaseBuffer(length < LONGEST_PATH ? static_cast<int>(length) : 0);
    if (found.IsEmpty() && GetLastError() == ERROR_CALL_NOT_IMPLEMENTED)
    {
        found = Emulate_GetLongPathName(path);
    }
    return found.IsEmpty() ? path : found;
}

/// From a search for each component that may be a short name. Empty if there is no such file.
CString CFilePath::Emulate_GetLongPathName(CString const & path)
{
    CString::View const view = path;
    CString found;
    for (std::size_t begin = 0; begin < view.size();)
    {
        std::size_t const end = std::min(view.find_first_of(_T("\\/"), begin), view.size());
        CString::View const name = view.substr(begin, end - begin);
        WIN32_FIND_DATAW data;
        if (name.find('~') != name.npos)
        {
            HANDLE const search = FindFirstFileW(CString(view.substr(0, end)), &data);
            if (search == INVALID_HANDLE_VALUE)
            {
                return {};
            }
            FindClose(search);
            found += data.cFileName;
        }
        else
        {
            found.Append(name);
        }
        begin = end;
        if (begin < view.size())
        {
            found += view[begin++];
        }
    }
    return found;
}

CString CFilePath::GetLongPathNameW(LPCTSTR path)
{
    CString const given(path);
    CString found = GetLongPathNameImpl(given);
    if (IsUnexpanded(found, given))
    {
        // The longest part of the way that does exist. No file lies behind the longest path that the system takes.
        CString head = given.Left(LONGEST_PATH - 1);
        for (int cut = head.ReverseFind('\\'); cut > 0; cut = head.ReverseFind('\\'))
        {
            head.Truncate(cut);
            CString const part = GetLongPathNameImpl(head);
            if (!IsUnexpanded(part, head))
            {
                found = part + given.Mid(cut);
                break;
            }
        }
    }
    CUtilities::StripLongFilePathPrefix(found);
    return found;
}
