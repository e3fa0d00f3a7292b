#include "kvx/foundation/Utilities.h"
#include "kvx/registry/RegistryBackupParts.h"

#include <charconv>
#include <string>
#include <string_view>

using kvx::RegistryValue;
using namespace kvx::backup;

namespace
{
bool IsWellFormed(View name)
{
    return name.empty() || WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, name.data(),
                                               static_cast<int>(name.size()), nullptr, 0, nullptr, nullptr) > 0;
}
} // namespace

/// Writes a tree, straight from the registry. It looks through all of the tree before anything goes to the file, unless
/// all of it fits in memory.
class CRegistryBackup::Writer
{
public:
    Writer(CRegistryBackup & owner, CRegistry & top, CString const & topPath, CFile & file)
        : m_owner(owner), m_top(top), m_strTopPath(topPath), m_file(file)
    {
    }

    LONG Write(bool wow64)
    {
        m_text = "<REGISTRY>\n";
        LONG const code = WriteKey(m_top, m_strTopPath, m_strTopPath, wow64, 1);
        m_text += "</REGISTRY>\n";
        if (code == 0)
        {
            Flush();
        }
        return code;
    }

private:
    static constexpr std::size_t GATHERED = std::size_t{16} << 20; // bytes, before anything is written
    static constexpr std::size_t PIECE = 65536;                    // afterwards

    CRegistryBackup & m_owner;
    CRegistry & m_top;
    CString const m_strTopPath;
    CFile & m_file;
    bool m_bChecked = false;
    std::string m_text;    // not yet written
    std::string m_encoded; // of the present value
    std::string m_strType; // the attributes of m_nType, once there is one
    DWORD m_nType = REG_NONE;

    void Flush()
    {
        m_file.Write(m_text.data(), static_cast<UINT>(m_text.size()));
        m_text.clear();
    }
    LONG Spill();
    LONG CheckKey(CString const & path, int depth);
    LONG CheckValue(CString const & path, View name);
    LONG CheckTree(CRegistry & key, CString const & path, int depth);
    LONG WriteKey(CRegistry & key, CString const & path, CString const & name, bool wow64, int depth);
    template <class WORK>
    LONG ForEachSubKey(CRegistry & key, CString const & path, WORK work);
    void Indent(int depth) { m_text.append(static_cast<std::size_t>(depth), ' '); }
    void AddAttribute(std::string_view name, View value);
    void AddAttribute(std::string_view name, ULONGLONG value);
    std::string_view GetTypeAttributes(DWORD type);
    void AddValue(RegistryValue const & value, int depth);
};

// Calls `work(subKey, path, name)` with each one open.
template <class WORK>
LONG CRegistryBackup::Writer::ForEachSubKey(CRegistry & key, CString const & path, WORK work)
{
    CStringList names;
    LONG code = m_owner.Fail(key.QuerySubKeys(names), path);
    for (POSITION pos = names.GetHeadPosition(); pos && code == 0;)
    {
        CString const & name = names.GetNext(pos);
        CString const subPath = Join(path, name);
        CRegistry subKey;
        code = subKey.OpenKey(key, name, KEY_READ);
        if (code == ERROR_FILE_NOT_FOUND)
        {
            code = 0; // deleted just now
        }
        else
        {
            code = code != 0 ? m_owner.Fail(code, subPath) : work(subKey, subPath, name);
        }
    }
    return code;
}

LONG CRegistryBackup::Writer::CheckKey(CString const & path, int depth)
{
    if (depth > KEY_DEPTH_MAX)
    {
        return m_owner.Fail(ERROR_FILENAME_EXCED_RANGE, path, _T("nested too deep for the format"));
    }
    return IsWellFormed(path) ? 0 : m_owner.Fail(ERROR_NO_UNICODE_TRANSLATION, path);
}

LONG CRegistryBackup::Writer::CheckValue(CString const & path, View name)
{
    return IsWellFormed(name) ? 0 : m_owner.Fail(ERROR_NO_UNICODE_TRANSLATION, PlaceOf(path, name));
}

LONG CRegistryBackup::Writer::CheckTree(CRegistry & key, CString const & path, int depth)
{
    LONG code = CheckKey(path, depth);
    if (code == 0)
    {
        code = ForEachValue(key, true, [&](RegistryValue const & value) { return CheckValue(path, value.strName); });
        m_owner.Fail(code, path);
    }
    return code != 0 ? code
                     : ForEachSubKey(key, path,
                                     [&](CRegistry & subKey, CString const & subPath, CString const &)
                                     { return CheckTree(subKey, subPath, depth + 1); });
}

// Writes what has been gathered, if it is enough.
LONG CRegistryBackup::Writer::Spill()
{
    if (m_text.size() < (m_bChecked ? PIECE : GATHERED))
    {
        return 0;
    }
    LONG const code = m_bChecked ? 0 : CheckTree(m_top, m_strTopPath, 1);
    m_bChecked = true;
    if (code == 0)
    {
        Flush();
    }
    return code;
}

void CRegistryBackup::Writer::AddAttribute(std::string_view name, View value)
{
    m_text.append(" ").append(name).append("=\"");
    std::string const bytes = kvx::ToUtf8(value);
    for (std::size_t i = 0; i < bytes.size(); ++i)
    {
        auto const c = static_cast<unsigned char>(bytes[i]);
        // A backslash before the closing quote would quote that for some readers.
        if (c < 0x20 || c == 0x7F || (c == '\\' && i + 1 == bytes.size()))
        {
            m_text.append("&#").append(std::to_string(c)).append(";");
            continue;
        }
        char const * const entity = c == '&'   ? "&amp;"
                                    : c == '<' ? "&lt;"
                                    : c == '>' ? "&gt;"
                                    : c == '"' ? "&quot;"
                                               : nullptr;
        entity ? m_text.append(entity) : m_text.append(1, bytes[i]);
    }
    m_text += '"';
}

void CRegistryBackup::Writer::AddAttribute(std::string_view name, ULONGLONG value)
{
    char digits[24];
    char * const end = std::to_chars(digits, digits + sizeof(digits), value).ptr;
    m_text.append(" ").append(name).append("=\"").append(digits, end).append("\"");
}

// The attributes that tell a type; values of one type follow each other often.
std::string_view CRegistryBackup::Writer::GetTypeAttributes(DWORD type)
{
    if (m_strType.empty() || type != m_nType)
    {
        std::size_t const end = m_text.size();
        CString const name = CRegistry::GetRegistryTypeName(type);
        AddAttribute("type", name.IsEmpty() ? View(_T("REG_BINARY")) : View(name));
        if (name.IsEmpty() || CRegistry::GetRegistryTypeFromName(name) != type)
        {
            AddAttribute("type-number", type);
        }
        m_strType = m_text.substr(end);
        m_text.resize(end);
        m_nType = type;
    }
    return m_strType;
}

void CRegistryBackup::Writer::AddValue(RegistryValue const & value, int depth)
{
    int const size = static_cast<int>(value.data.size());
    int length = size > 0 ? CUtilities::Base64EncodeGetRequiredLength(size, 0) : 0;
    Indent(depth);
    m_text += "<VALUE";
    AddAttribute("name", value.strName);
    m_text += GetTypeAttributes(value.nType);
    AddAttribute("original-size", value.data.size());
    m_encoded.resize(static_cast<std::size_t>(length));
    if (size > 0 && !CUtilities::Base64Encode(value.data.data(), size, m_encoded.data(), &length, 0))
    {
        AfxThrowMemoryException(); // it is the only thing that it could lack
    }
    std::string_view const encoded(m_encoded.data(), static_cast<std::size_t>(length));
    AddAttribute("encoded-size", encoded.size());
    if (encoded.empty())
    {
        m_text += "/>\n";
    }
    else
    {
        m_text.append(">").append(encoded).append("</VALUE>\n");
    }
}

LONG CRegistryBackup::Writer::WriteKey(CRegistry & key, CString const & path, CString const & name, bool wow64,
                                       int depth)
{
    LONG code = CheckKey(path, depth);
    if (code != 0)
    {
        return code;
    }
    Indent(depth);
    m_text += "<KEY";
    AddAttribute("name", name);
    if (wow64)
    {
        AddAttribute("WOW64", View(CRegistry::WOW64_64));
    }
    m_text += ">\n";
    ++m_owner.m_nKeys;
    auto const write = [&](RegistryValue const & value)
    {
        LONG const checked = CheckValue(path, value.strName);
        if (checked == 0)
        {
            AddValue(value, depth + 1);
            ++m_owner.m_nValues;
        }
        return checked != 0 ? checked : Spill();
    };
    code = m_owner.Fail(ForEachValue(key, false, write), path);
    if (code == 0)
    {
        code = ForEachSubKey(key, path,
                             [&](CRegistry & subKey, CString const & subPath, CString const & subName)
                             { return WriteKey(subKey, subPath, subName, false, depth + 1); });
    }
    Indent(depth);
    m_text += "</KEY>\n";
    return code != 0 ? code : Spill();
}

LONG CRegistryBackup::Export(CString const & keyPath, CFile & file, DWORD accessFlags)
{
    Start();
    file.RequireBytes();
    LONG const code = Guarded(
        [&]
        {
            CRegistry key;
            LONG const opened = Fail(key.OpenKey(keyPath, accessFlags | KEY_READ), keyPath);
            bool const b64 = (accessFlags & KEY_WOW64_64KEY) != 0;
            return opened != 0 ? opened : Writer(*this, key, keyPath, file).Write(b64);
        });
    return Fail(code, CString());
}
