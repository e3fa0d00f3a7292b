#include "kvx/registry/Registry.h"

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"
#include "kvx/registry/RegistryCharacters.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace
{
using kvx::ToCharacters;
using kvx::ToSize;

constexpr LONG NO_KEY = ERROR_INVALID_HANDLE;
constexpr DWORD LARGEST_LISTED = 4000; // bytes

CRegistryRootKeyLookup const & GetRootKeys()
{
    static CRegistryRootKeyLookup const & s_rootKeys = *new CRegistryRootKeyLookup; // never gone
    return s_rootKeys;
}

/// Passes the code on. One that tells of a registry that can't be used or written is worth a line in the log: few
/// callers show it.
LONG Told(LPCTSTR function, LPCTSTR call, LPCTSTR subject, LONG code)
{
    switch (code)
    {
    case ERROR_BADDB:
    case ERROR_REGISTRY_IO_FAILED:
    case ERROR_WRITE_PROTECT:
    case ERROR_DISK_FULL:
        LogError(_T("CRegistry::%s - %s - %s failure [%d|%s]"), function, subject ? subject : _T(""), call, code,
                 CWinError::GetText(static_cast<DWORD>(code)));
        break;
    case ERROR_ACCESS_DENIED:
        LogWarning(_T("CRegistry::%s - %s - %s failure [%d|%s]"), function, subject ? subject : _T(""), call, code,
                   CWinError::GetText(static_cast<DWORD>(code)));
        break;
    default:
        break;
    }
    return code;
}

/// The data of a value that has `size` bytes.
LONG ReadCharacters(HKEY key, LPCTSTR name, DWORD size, std::vector<WCHAR> & characters)
{
    // A last byte that is no character has to have a place as well, or the value would not fit.
    std::vector<BYTE> data(size);
    LONG const code = RegQueryValueExW(key, name, nullptr, nullptr, data.data(), &size);
    if (code == 0)
    {
        data.resize(std::min<std::size_t>(size, data.size()));
        characters = ToCharacters(data);
    }
    return code;
}
} // namespace

CRegistryRootKeyLookup::CRegistryRootKeyLookup() : CMapStringToPtr(10)
{
    struct
    {
        LPCTSTR pszLong;
        LPCTSTR pszShort;
        HKEY hKey;
    } const rows[] = {
        {_T("HKEY_LOCAL_MACHINE"), _T("HKLM"), HKEY_LOCAL_MACHINE},
        {_T("HKEY_CURRENT_USER"), _T("HKCU"), HKEY_CURRENT_USER},
        {_T("HKEY_CLASSES_ROOT"), _T("HKCR"), HKEY_CLASSES_ROOT},
        {_T("HKEY_CURRENT_CONFIG"), _T("HKCC"), HKEY_CURRENT_CONFIG},
        {_T("HKEY_USERS"), _T("HKUS"), HKEY_USERS},
        {_T("HKEY_PERFORMANCE_DATA"), _T("HKPD"), HKEY_PERFORMANCE_DATA},
        {_T("HKEY_DYN_DATA"), _T("HKDD"), HKEY_DYN_DATA},
    };
    for (auto const & row : rows)
    {
        SetAt(row.pszLong, row.hKey);
        SetAt(row.pszShort, row.hKey);
    }
}

HKEY CRegistryRootKeyLookup::LookupRoot(CString const & text) const
{
    CString upper = text;
    void * found = nullptr;
    Lookup(upper.MakeUpper(), found);
    return static_cast<HKEY>(found);
}

HKEY CRegistryRootKeyLookup::LookupPath(CString const & path, CString & subKey) const
{
    CString root;
    CUtilities::SplitString(path, root, subKey, _T("\\"), 0);
    return LookupRoot(root);
}

CRegistry::TranslationProc CRegistry::sm_pTranslationProc = nullptr;

DWORD CRegistry::GetAccessMask()
{
    // The bits of the two views, where the system doesn't know them.
    static DWORD const s_dwMask = CUtilities::IsWin2000() ? KEY_WOW64_32KEY | KEY_WOW64_64KEY : 0;
    return s_dwMask;
}

HKEY CRegistry::AttachKey(HKEY hKey)
{
    return std::exchange(m_hKey, hKey);
}

LONG CRegistry::CloseKey()
{
    return RegCloseKey(DetachKey());
}

LONG CRegistry::OpenKey(HKEY parent, LPCTSTR subKey, DWORD samDesired, DWORD options)
try
{
    CloseKey();
    CString path(subKey);
    if (sm_pTranslationProc)
    {
        sm_pTranslationProc(parent, path);
    }
    return Told(_T("OpenKey"), _T("RegOpenKeyEx"), path,
                RegOpenKeyExW(parent, path, options, samDesired & ~GetAccessMask(), &m_hKey));
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

LONG CRegistry::OpenKey(LPCTSTR path, DWORD samDesired, DWORD options)
try
{
    CString subKey;
    HKEY const root = GetRootKeys().LookupPath(path, subKey);
    return OpenKey(root, subKey, samDesired, options);
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

LONG CRegistry::CreateKey(HKEY parent, LPCTSTR subKey, DWORD reserved, DWORD samDesired, SECURITY_ATTRIBUTES * security,
                          DWORD * disposition)
try
{
    CloseKey();
    CString path(subKey);
    if (sm_pTranslationProc)
    {
        sm_pTranslationProc(parent, path);
    }
    WCHAR noClass[1] = {};
    return Told(_T("CreateKey"), _T("RegCreateKeyEx"), path,
                RegCreateKeyExW(parent, path, reserved, noClass, REG_OPTION_NON_VOLATILE, samDesired & ~GetAccessMask(),
                                security, &m_hKey, disposition));
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

LONG CRegistry::CreateKey(LPCTSTR path, DWORD reserved, DWORD samDesired, SECURITY_ATTRIBUTES * security,
                          DWORD * disposition)
try
{
    CString subKey;
    HKEY const root = GetRootKeys().LookupPath(path, subKey);
    return CreateKey(root, subKey, reserved, samDesired, security, disposition);
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

LONG CRegistry::DeleteKey(LPCTSTR subKey, int recursive)
{
    LPCTSTR const path = subKey ? subKey : _T("");
    return recursive ? DeleteKey(m_hKey, path)
                     : Told(_T("DeleteKey"), _T("RegDeleteKey"), path, RegDeleteKeyW(m_hKey, path));
}

LONG CRegistry::DeleteKey(HKEY parent, LPCTSTR subKey)
{
    LONG const code = Told(_T("DeleteKey"), _T("SHDeleteKey"), subKey, SHDeleteKeyW(parent, subKey));
    // A key that isn't named but given has been emptied, and is still there.
    return code == 0 && (!subKey || !*subKey)
               ? Told(_T("DeleteKey"), _T("RegDeleteKey"), _T(""), RegDeleteKeyW(parent, _T("")))
               : code;
}

LONG CRegistry::DeleteValue(LPCTSTR name)
{
    return Told(_T("DeleteValue"), _T("RegDeleteValue"), name, RegDeleteValueW(m_hKey, name));
}

HKEY CRegistry::LookupRootKey(CString const & text)
{
    return GetRootKeys().LookupRoot(text);
}

void CRegistry::ParseRootKey(CString const & path, HKEY & root, CString & subKey)
{
    root = GetRootKeys().LookupPath(path, subKey);
}

CRegistry::TranslationProc CRegistry::SetTranslationProc(TranslationProc proc)
{
    return std::exchange(sm_pTranslationProc, proc);
}

int CRegistry::IsExemptRedirectedKey(CString const &)
{
    return 0;
}

LONG CRegistry::QueryType(LPCTSTR name, DWORD & type)
{
    return RegQueryValueExW(m_hKey, name, nullptr, &type, nullptr, nullptr);
}

LONG CRegistry::QueryValue(LPCTSTR name, DWORD & value)
{
    DWORD type = REG_DWORD;
    DWORD size = sizeof(value);
    LONG const code = RegQueryValueExW(m_hKey, name, nullptr, &type, reinterpret_cast<BYTE *>(&value), &size);
    return type == REG_DWORD ? code : ERROR_INVALID_DATA;
}

LONG CRegistry::QueryValue(LPCTSTR name, DWORD & type, void * data, DWORD & size)
{
    return RegQueryValueExW(m_hKey, name, nullptr, &type, static_cast<BYTE *>(data), &size);
}

LONG CRegistry::QueryValue(HKEY key, LPCTSTR name, DWORD * type, DWORD * reserved, void * data, DWORD * size)
{
    if (!type)
    {
        std::swap(type, reserved);
    }
    return SHQueryValueExW(key, name, reserved, type, data, size);
}

LONG CRegistry::QueryValue(LPCTSTR name, CString & value)
try
{
    value.Empty();
    DWORD type = REG_SZ;
    DWORD size = 0;
    LONG code = RegQueryValueExW(m_hKey, name, nullptr, &type, nullptr, &size);
    if (type != REG_SZ && type != REG_EXPAND_SZ)
    {
        return ERROR_INVALID_DATA;
    }
    if (code != 0 || size == 0)
    {
        return code;
    }
    std::vector<WCHAR> characters;
    code = ReadCharacters(m_hKey, name, size, characters);
    if (code != 0)
    {
        return code;
    }
    if (!characters.empty() && characters.back() == 0)
    {
        characters.pop_back();
    }
    value = CString(CString::View(characters.data(), characters.size()));
    return 0;
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

LONG CRegistry::QueryMultistringValue(LPCTSTR name, CStringList & list)
try
{
    list.RemoveAll();
    DWORD type = REG_MULTI_SZ;
    DWORD size = 0;
    LONG code = RegQueryValueExW(m_hKey, name, nullptr, &type, nullptr, &size);
    if (code != 0 || size == 0)
    {
        return code;
    }
    if (type != REG_MULTI_SZ)
    {
        return ERROR_INVALID_DATA;
    }
    std::vector<WCHAR> characters;
    code = ReadCharacters(m_hKey, name, size, characters);
    if (code != 0)
    {
        return code;
    }
    CString::View rest(characters.data(), characters.size());
    if (rest.size() <= 2 && rest.find_first_not_of(WCHAR{0}) == CString::View::npos)
    {
        return 0; // as an empty list is stored
    }
    if (rest.size() >= 2 && rest.ends_with(WCHAR{0}) && rest[rest.size() - 2] == 0)
    {
        rest.remove_suffix(1); // it ends the list, and isn't the end of an empty text
    }
    for (std::size_t end = rest.find(WCHAR{0}); end != CString::View::npos; end = rest.find(WCHAR{0}))
    {
        list.AddTail(CString(rest.substr(0, end)));
        rest.remove_prefix(end + 1);
    }
    return 0;
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

LONG CRegistry::SetValue(LPCTSTR name, CString const & value)
{
    return SetValue(name, REG_SZ, value.GetString(), ToSize(sizeof(WCHAR) * (std::size_t(value.GetLength()) + 1)));
}

LONG CRegistry::SetValue(LPCTSTR name, DWORD value)
{
    return SetValue(name, REG_DWORD, &value, sizeof(value));
}

LONG CRegistry::SetValue(LPCTSTR name, DWORD type, void const * data, DWORD size)
{
    return Told(_T("SetValue"), _T("RegSetValueEx"), name,
                RegSetValueExW(m_hKey, name, 0, type, static_cast<BYTE const *>(data), size));
}

LONG CRegistry::SetValue(HKEY key, LPCTSTR subKey, LPCTSTR name, DWORD type, void const * data, DWORD size)
{
    return Told(_T("SetValue"), _T("SHSetValue"), name, SHSetValueW(key, subKey, name, type, data, size));
}

LONG CRegistry::SetMultistringValue(LPCTSTR name, CStringList const & list)
try
{
    std::vector<WCHAR> characters;
    for (POSITION pos = list.GetHeadPosition(); pos;)
    {
        CString const & text = list.GetNext(pos);
        characters.insert(characters.end(), text.GetString(), text.GetString() + text.GetLength() + 1);
    }
    if (characters.empty())
    {
        characters.push_back(0);
    }
    characters.push_back(0);
    return SetValue(name, REG_MULTI_SZ, characters.data(), ToSize(sizeof(WCHAR) * characters.size()));
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

LONG CRegistry::QueryValues(CValueAccessor & values, int maxCount)
try
{
    // The first value may have a longer name and more data than the others.
    constexpr std::array<DWORD, 2> NAME_ROOM{2047, 1023};
    constexpr std::array<DWORD, 2> DATA_ROOM{8192, 4096};

    if (!m_hKey)
    {
        return NO_KEY;
    }
    DWORD count = 0;
    DWORD longestData = 0;
    DWORD longestName = 0;
    GetLengths(count, longestData, longestName);
    if (count == 0 || longestData > LARGEST_LISTED)
    {
        return 0;
    }
    std::vector<WCHAR> name(NAME_ROOM[0] + 1);
    std::vector<WCHAR> data(DATA_ROOM[0] / sizeof(WCHAR) + 1);
    LONG code = 0;
    for (DWORD index = 0; index < count && maxCount != 0; ++index, maxCount -= maxCount > 0)
    {
        bool const bLater = index > 0;
        DWORD nameLength = NAME_ROOM[bLater];
        DWORD size = DATA_ROOM[bLater];
        DWORD type = REG_NONE;
        std::fill_n(data.begin(), sizeof(DWORD) / sizeof(WCHAR), WCHAR{0});
        code = RegEnumValueW(m_hKey, index, name.data(), &nameLength, nullptr, &type,
                             reinterpret_cast<BYTE *>(data.data()), &size);
        if (code == ERROR_MORE_DATA)
        {
            code = 0;
            continue;
        }
        if (code != 0)
        {
            break;
        }
        CString text;
        if (type == REG_SZ || type == REG_EXPAND_SZ)
        {
            data[size / sizeof(WCHAR)] = 0;
            text = data.data();
        }
        else if (type == REG_DWORD)
        {
            LONG number = 0;
            std::memcpy(&number, data.data(), sizeof(number));
            text.Format(_T("%d"), number);
        }
        values.CreateValue(CString(name.data(), static_cast<int>(nameLength))) = text;
    }
    return code == ERROR_NO_MORE_ITEMS ? 0 : code;
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

LONG CRegistry::SetValues(CValueAccessor const & values)
try
{
    LONG code = 0;
    for (POSITION pos = values.GetStartValuePosition(); pos && code == 0;)
    {
        CString name;
        CString value;
        values.GetNextValue(pos, name, value);
        code = SetValue(name, value);
    }
    return code;
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

/// `next(index, name)` gets the name at an index; 0 for the code to go on with, or the end.
template <class F>
LONG CRegistry::WalkNames(DWORD longest, int maxCount, F const & next)
{
    constexpr DWORD USUAL = 1024; // characters
    if (!m_hKey)
    {
        return NO_KEY;
    }
    std::vector<WCHAR> name(longest != NO_LENGTH && longest > USUAL ? longest + 1 : USUAL);
    LONG code = 0;
    for (DWORD index = 0; maxCount != 0; ++index, maxCount -= maxCount > 0)
    {
        DWORD length = static_cast<DWORD>(name.size());
        code = next(index, name.data(), length);
        if (code != 0 && code != ERROR_MORE_DATA)
        {
            break;
        }
        code = 0;
    }
    return code == ERROR_NO_MORE_ITEMS ? 0 : code;
}

LONG CRegistry::QueryValueNames(CStringList & names, int maxCount)
try
{
    return WalkNames(GetLongestNameLength(), maxCount,
                     [&](DWORD index, LPTSTR name, DWORD length)
                     {
                         LONG const code =
                             RegEnumValueW(m_hKey, index, name, &length, nullptr, nullptr, nullptr, nullptr);
                         if (code == 0)
                         {
                             names.AddTail(CString(name, static_cast<int>(length)));
                         }
                         return code;
                     });
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

LONG CRegistry::QuerySubKeys(CStringList & names, int maxCount)
try
{
    return EnumSubKeys(
        [](CRegistry &, CString const & name, int, void * context)
        {
            static_cast<CStringList *>(context)->AddTail(name);
            return 1;
        },
        &names, maxCount);
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

LONG CRegistry::EnumSubKeys(SubKeyProc callback, void * context, int maxCount)
try
{
    return WalkNames(GetLongestSubkeyNameLength(), maxCount,
                     [&](DWORD index, LPTSTR name, DWORD length) -> LONG
                     {
                         LONG const code =
                             RegEnumKeyExW(m_hKey, index, name, &length, nullptr, nullptr, nullptr, nullptr);
                         if (code != 0)
                         {
                             return code;
                         }
                         CString const text(name, static_cast<int>(length));
                         return callback(*this, text, static_cast<int>(index), context) ? 0 : ERROR_NO_MORE_ITEMS;
                     });
}
catch (...)
{
    return kvx::CodeWithoutMemory();
}

int CRegistry::GetLengths(DWORD & valueCount, DWORD & longestData, DWORD & longestName)
{
    return RegQueryInfoKeyW(m_hKey, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &valueCount, &longestName,
                            &longestData, nullptr, nullptr) == 0;
}

DWORD CRegistry::GetLongestNameLength()
{
    DWORD count = 0;
    DWORD longestData = 0;
    DWORD longestName = 0;
    return GetLengths(count, longestData, longestName) ? longestName + 1 : NO_LENGTH;
}

DWORD CRegistry::GetLongestSubkeyNameLength()
{
    DWORD longest = 0;
    LONG const code = RegQueryInfoKeyW(m_hKey, nullptr, nullptr, nullptr, nullptr, &longest, nullptr, nullptr, nullptr,
                                       nullptr, nullptr, nullptr);
    return code == 0 ? longest + 1 : NO_LENGTH;
}
