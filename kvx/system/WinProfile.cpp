#include "kvx/system/WinProfile.h"

#include "kvx/foundation/ValueAccessor.h"

namespace
{
constexpr DWORD BUFFER = 8192;                 // characters: the longest value, and where lists begin
constexpr DWORD BUFFER_MAX = 64 * 1024 * 1024; // a list of names that is longer is no INI file's
} // namespace

int CWinProfile::GetInt(LPCTSTR key, int defaultValue, LPCTSTR section) const
{
    return static_cast<int>(GetPrivateProfileIntW(SectionOf(section), key, defaultValue, m_strPath));
}

CString CWinProfile::GetString(LPCTSTR key, LPCTSTR defaultValue, LPCTSTR section) const
{
    CString value;
    LPTSTR const buffer = value.GetBuffer(BUFFER);
    DWORD const length = GetPrivateProfileStringW(SectionOf(section), key, defaultValue ? defaultValue : _T(""), buffer,
                                                  BUFFER, m_strPath);
    value.ReleaseBuffer(static_cast<int>(length));
    return value;
}

int CWinProfile::SetString(LPCTSTR key, LPCTSTR value, LPCTSTR section)
{
    return WritePrivateProfileStringW(SectionOf(section), key, value, m_strPath);
}

int CWinProfile::SetInt(LPCTSTR key, int value, LPCTSTR section)
{
    CString text;
    text.Format(_T("%d"), value);
    return SetString(key, text, section);
}

/// The names that stand for a null key, or for a null section, each with a closing zero.
CString CWinProfile::QueryStrings(LPCTSTR section) const
{
    CString list;
    for (DWORD size = BUFFER; size <= BUFFER_MAX; size *= 2)
    {
        LPTSTR const buffer = list.GetBuffer(static_cast<int>(size));
        DWORD const length = GetPrivateProfileStringW(section, nullptr, _T(""), buffer, size, m_strPath);
        list.ReleaseBuffer(static_cast<int>(length));
        if (length < size - 2)
        {
            break;
        }
    }
    return list;
}

int CWinProfile::ParseStrings(CString const & list, CStringArray & strings)
{
    strings.RemoveAll();
    CString::View rest = list;
    while (!rest.empty() && rest.front())
    {
        CString::View const text = rest.substr(0, rest.find(WCHAR{0}));
        strings.Add(CString(text));
        rest.remove_prefix(std::min(rest.size(), text.size() + 1));
    }
    return static_cast<int>(strings.GetSize());
}

int CWinProfile::GetKeys(CStringArray & keys, LPCTSTR section) const
{
    return ParseStrings(QueryStrings(SectionOf(section)), keys);
}

int CWinProfile::GetSections(CStringArray & sections) const
{
    return ParseStrings(QueryStrings(nullptr), sections);
}

void CWinProfile::GetValues(CValueAccessor & values, LPCTSTR section) const
{
    CStringArray keys;
    GetKeys(keys, section);
    for (INT_PTR i = 0; i < keys.GetSize(); ++i)
    {
        values.SetValue(keys[i], GetString(keys[i], nullptr, section));
    }
}

int CWinProfile::SetValues(CValueAccessor const & values, LPCTSTR section)
{
    int bDone = 1;
    CString name;
    CString value;
    for (POSITION pos = values.GetStartValuePosition(); pos;)
    {
        values.GetNextValue(pos, name, value);
        bDone &= SetString(name, value, section) != 0;
    }
    return bDone;
}
