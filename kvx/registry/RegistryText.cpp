/// The text forms of values, and the names of their types.

#include "kvx/registry/Registry.h"
#include "kvx/registry/RegistryCharacters.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

namespace
{
using kvx::ToCharacters;
using kvx::ToSize;

struct TypeName
{
    DWORD nType;
    LPCTSTR pszName;
};

// The first row of a name is the type that the name stands for.
constexpr std::array TYPE_NAMES{
    TypeName{REG_SZ, _T("REG_SZ")},
    TypeName{REG_EXPAND_SZ, _T("REG_EXPAND_SZ")},
    TypeName{REG_BINARY, _T("REG_BINARY")},
    TypeName{REG_DWORD, _T("REG_DWORD")},
    TypeName{REG_MULTI_SZ, _T("REG_MULTI_SZ")},
    TypeName{REG_RESOURCE_LIST, _T("REG_RESOURCE_LIST")},
    TypeName{REG_RESOURCE_REQUIREMENTS_LIST, _T("REG_RESOURCE_REQUIREMENTS_LIST")},
    TypeName{REG_QWORD, _T("REG_QWORD")},
    TypeName{REG_NONE, _T("REG_SZ")},
    TypeName{REG_LINK, _T("REG_SZ")},
    TypeName{REG_DWORD_BIG_ENDIAN, _T("REG_DWORD")},
};

unsigned HexDigit(WCHAR c)
{
    WCHAR const lower = static_cast<WCHAR>(c | 0x20);
    return c >= '0' && c <= '9' ? c - '0' : lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : 0;
}

/// The byte of two digits at an index; what is behind the text's end counts as 0.
BYTE HexByte(CString::View text, std::size_t index)
{
    auto const digit = [&](std::size_t at) { return at < text.size() ? HexDigit(text[at]) : 0; };
    return static_cast<BYTE>(digit(index) << 4 | digit(index + 1));
}

/// "0x" and the bytes from the last one to the first; missing ones are 0.
CString ToHexNumber(std::span<BYTE const> bytes, std::size_t count)
{
    CString text(_T("0x"));
    for (std::size_t i = count; i-- > 0;)
    {
        text.AppendFormat(_T("%02x"), i < bytes.size() ? bytes[i] : 0);
    }
    return text;
}

CString ToHexBytes(std::span<BYTE const> bytes)
{
    constexpr LPCTSTR HEX = _T("0123456789abcdef");
    CString text;
    text.Preallocate(static_cast<int>(std::min<std::size_t>(3 * bytes.size(), 0x7FFFFFFF)));
    for (BYTE const byte : bytes)
    {
        if (!text.IsEmpty())
        {
            text.AppendChar(' ');
        }
        text.AppendChar(HEX[byte >> 4]);
        text.AppendChar(HEX[byte & 15]);
    }
    return text;
}

CString ToLines(std::vector<WCHAR> characters)
{
    std::size_t const size = characters.size();
    if (size >= 2 && characters[size - 1] == 0 && characters[size - 2] == 0)
    {
        characters.pop_back();
    }
    CString text;
    for (auto rest = CString::View(characters.data(), characters.size()); !rest.empty();)
    {
        std::size_t const end = std::min(rest.find(WCHAR{0}), rest.size());
        text.Append(rest.substr(0, end));
        if (end < rest.size())
        {
            text.Append(_T("\r\n"));
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return text;
}

void * Allocate(std::size_t bytes)
{
    void * const block = std::calloc(std::max<std::size_t>(bytes, 1), 1);
    if (!block)
    {
        AfxThrowMemoryException();
    }
    return block;
}

/// The characters that a multi-string has for the lines of a text.
std::vector<WCHAR> FromLines(CString::View text)
{
    std::vector<WCHAR> characters;
    for (WCHAR const c : text.substr(0, text.find(WCHAR{0})))
    {
        if (c != '\r')
        {
            characters.push_back(c == '\n' ? WCHAR{0} : c);
        }
    }
    return characters;
}
} // namespace

CString CRegistry::ConvertToString(DWORD type, void const * data, DWORD size)
{
    if (size == 0 || !data)
    {
        return {};
    }
    std::span<BYTE const> const bytes(static_cast<BYTE const *>(data), size);
    switch (type)
    {
    case REG_BINARY:
    case REG_RESOURCE_LIST:
    case REG_RESOURCE_REQUIREMENTS_LIST:
        return ToHexBytes(bytes);
    case REG_DWORD:
    case REG_DWORD_BIG_ENDIAN:
    {
        LONG number = 0;
        std::memcpy(&number, data, std::min<std::size_t>(size, sizeof(number)));
        CString text = ToHexNumber(bytes, sizeof(number));
        text.AppendFormat(_T(" (%d)"), number);
        return text;
    }
    case REG_QWORD:
        return ToHexNumber(bytes, sizeof(ULONGLONG));
    case REG_MULTI_SZ:
        return ToLines(ToCharacters(bytes));
    default:
    {
        std::vector<WCHAR> const characters = ToCharacters(bytes);
        CString::View const text(characters.data(), characters.size());
        return CString(text.substr(0, text.find(WCHAR{0})));
    }
    }
}

void CRegistry::ConvertFromString(CString const & text, DWORD type, void ** data, DWORD * size)
{
    if (!data || !size)
    {
        return;
    }
    *data = nullptr;
    *size = 0;
    CString::View const view = text;
    auto const give = [&](std::size_t allocated, std::size_t used)
    {
        *data = Allocate(allocated);
        *size = ToSize(used);
        return static_cast<BYTE *>(*data);
    };
    switch (type)
    {
    case REG_SZ:
    case REG_EXPAND_SZ:
    {
        std::size_t const bytes = sizeof(WCHAR) * (view.size() + 1);
        std::memcpy(give(bytes, bytes), text.GetString(), bytes);
        break;
    }
    case REG_BINARY:
    case REG_RESOURCE_LIST:
    case REG_RESOURCE_REQUIREMENTS_LIST:
    {
        std::size_t const count = view.empty() ? 1 : (view.size() + 1) / 3;
        BYTE * const bytes = give(count, count);
        for (std::size_t i = 0; i < count; ++i)
        {
            bytes[i] = HexByte(view, 3 * i);
        }
        break;
    }
    case REG_DWORD:
    case REG_QWORD:
    {
        std::size_t const count = type == REG_DWORD ? sizeof(DWORD) : sizeof(ULONGLONG);
        BYTE * const bytes = give(count, count);
        for (std::size_t i = 0; i < count; ++i)
        {
            bytes[count - 1 - i] = HexByte(view, 2 + 2 * i);
        }
        break;
    }
    case REG_LINK:
        give(sizeof(WCHAR) * (view.size() + 1), sizeof(WCHAR) * (view.size() + 1));
        break;
    case REG_MULTI_SZ:
    {
        std::vector<WCHAR> const characters = FromLines(view);
        std::size_t const bytes = sizeof(WCHAR) * (view.empty() ? 1 : characters.size() + 2);
        std::copy(characters.begin(), characters.end(), reinterpret_cast<WCHAR *>(give(bytes, bytes)));
        break;
    }
    default:
        break;
    }
}

CString CRegistry::GetRegistryTypeName(DWORD type)
{
    auto const found = std::ranges::find(TYPE_NAMES, type, &TypeName::nType);
    return found != TYPE_NAMES.end() ? found->pszName : _T("");
}

DWORD CRegistry::GetRegistryTypeFromName(CString const & name)
{
    auto const found =
        std::ranges::find_if(TYPE_NAMES, [&](TypeName const & row) { return name.CompareNoCase(row.pszName) == 0; });
    return found != TYPE_NAMES.end() ? found->nType : REG_SZ;
}

int CRegistry::RestorePlainValue(CRegistry & key, CString const & name, DWORD type, CString const & text)
{
    void * data = nullptr;
    DWORD size = 0;
    ConvertFromString(text, type, &data, &size);
    LONG const code = key.SetValue(name, type, data, size);
    std::free(data);
    return code == 0;
}
