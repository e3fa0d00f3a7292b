#include "kvx/registry/RegistryBackup.h"

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/platform/RegistryValues.h"
#include "kvx/registry/Registry.h"
#include "kvx/xml/XMLDocumentKVX.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

using kvx::RegistryValue;
using tinyxml2::XMLElement;

namespace
{
using View = CString::View;

constexpr DWORD LONGEST_NAME = 16384;       // characters of a value's name, with the NUL
constexpr std::size_t BATCH_VALUES = 10000; // that are set in one transaction
constexpr std::size_t BATCH_KEYS = 500;     // that are held open for it
constexpr std::size_t BATCH_BYTES = std::size_t{8} << 20;

CString Join(CString const & path, CString const & name)
{
    return path + _T("\\") + name;
}

CString PlaceOf(CString const & key, View value)
{
    return key + _T(", value \"") + CString(value) + _T("\"");
}

// Calls `work(value)` for each value of the key, until that gives something else than 0.
template <class WORK>
LONG ForEachValue(HKEY key, bool namesOnly, WORK work)
{
    kvx::RegistryValueReader reader(key, namesOnly);
    std::vector<RegistryValue> values;
    LONG code = 0;
    do
    {
        code = reader.Read(values);
        for (auto value = values.begin(); value != values.end() && code == 0; ++value)
        {
            code = work(*value);
        }
    } while (code == 0 && !values.empty());
    return code;
}

bool IsWellFormed(View name)
{
    return name.empty() || WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, name.data(),
                                               static_cast<int>(name.size()), nullptr, 0, nullptr, nullptr) > 0;
}

std::string ReadAll(CFile & file)
{
    constexpr UINT PIECE = 1 << 20;
    file.RequireBytes();
    std::string all;
    for (UINT got = PIECE; got > 0;)
    {
        std::size_t const before = all.size();
        all.resize(before + PIECE);
        got = file.Read(all.data() + before, PIECE);
        all.resize(before + got);
    }
    return all;
}

// Runs the work, and gives the code of a file or of memory that failed in it.
template <class WORK>
LONG Guarded(WORK work)
{
    try
    {
        return work();
    }
    catch (CFileException * failure)
    {
        LONG const code = failure->m_lOsError > 0 ? failure->m_lOsError : ERROR_WRITE_FAULT;
        failure->Delete();
        return code;
    }
    catch (CMemoryException * failure)
    {
        failure->Delete();
    }
    catch (std::bad_alloc const &)
    {
    }
    return ERROR_NOT_ENOUGH_MEMORY;
}
} // namespace

LONG CRegistryBackup::Fail(LONG code, CString const & place, CString const & text)
{
    if (code != 0 && m_strError.IsEmpty())
    {
        m_strError = place + (place.IsEmpty() ? _T("") : _T(": ")) +
                     (text.IsEmpty() ? CWinError::GetText(static_cast<DWORD>(code)) : text);
    }
    return code;
}

void CRegistryBackup::Start()
{
    m_nKeys = m_nValues = m_nWithoutData = 0;
    m_strError.Empty();
}

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

/// A backup that has been read, and the ways through it. tinyxml2 has seen to it that it isn't deep.
class CRegistryBackup::Reader
{
public:
    explicit Reader(CRegistryBackup & owner) : m_owner(owner) {}

    /// Reads and checks all.
    LONG Open(CFile & file, CString const & keyPath);
    /// `work(element, path, flags)` for each key at the top.
    template <class WORK>
    LONG ForEachTop(DWORD accessFlags, WORK work);
    LONG Restore(XMLElement const & element, std::shared_ptr<CRegistry> const & key, CString const & path);
    /// Sets what Restore has gathered.
    LONG SetBatch();
    LONG Compare(XMLElement const & element, CRegistry * key, CString const & path,
                 std::function<void(Difference const &)> const & tell);

private:
    enum class Form
    {
        Whole,
        WithoutData,
        Faulty
    };

    struct Attributes
    {
        std::string_view name;
        std::string_view type;
        std::string_view typeNumber;
        std::string_view originalSize;
        bool bHasSize = false;
    };

    CRegistryBackup & m_owner;
    tinyxml2::XMLDocumentKVX m_document;
    std::string m_strType{"REG_SZ"}; // the last that was looked up
    DWORD m_nType = REG_SZ;
    CString m_strTarget;
    std::vector<RegistryValue> m_batch; // not yet set, with the keys that they are for
    std::vector<std::pair<std::shared_ptr<CRegistry>, CString>> m_batchKeys; // open, with their paths
    std::size_t m_nBatchBytes = 0;

    static CString TextOf(char const * utf8) { return utf8 ? CUtilities::MB2T(utf8, CP_UTF8) : CString(); }
    static CString NameOf(XMLElement const & element) { return TextOf(element.Attribute("name")); }
    static bool Is(XMLElement const & element, char const * tag) { return std::strcmp(element.Name(), tag) == 0; }

    LONG Refuse(XMLElement const & element, LPCTSTR text);
    LONG Check(XMLElement const & element);
    Form Take(XMLElement const & element, RegistryValue & value);
    bool TakeType(Attributes const & given, DWORD & type);
    template <class NUMBER>
    static bool TakeNumber(std::string_view text, NUMBER & number);
    static Attributes AttributesOf(XMLElement const & element);
    void CompareValues(XMLElement const & element, CRegistry * key, CString const & path,
                       std::function<void(Difference const &)> const & tell);
    static CString Show(RegistryValue const & value);
};

LONG CRegistryBackup::Reader::Refuse(XMLElement const & element, LPCTSTR text)
{
    CString place;
    place.Format(_T("line %d"), element.GetLineNum());
    return m_owner.Fail(ERROR_INVALID_DATA, place, text);
}

template <class NUMBER>
bool CRegistryBackup::Reader::TakeNumber(std::string_view text, NUMBER & number)
{
    auto const [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && stop == text.data() + text.size();
}

bool CRegistryBackup::Reader::TakeType(Attributes const & given, DWORD & type)
{
    if (!given.typeNumber.empty())
    {
        return TakeNumber(given.typeNumber, type);
    }
    if (given.type != m_strType)
    {
        CString const name(kvx::FromUtf8(std::string(given.type)));
        DWORD const number = CRegistry::GetRegistryTypeFromName(name);
        if (number == REG_SZ && name.CompareNoCase(_T("REG_SZ")) != 0)
        {
            return false;
        }
        m_strType = given.type;
        m_nType = number;
    }
    type = m_nType;
    return true;
}

CRegistryBackup::Reader::Attributes CRegistryBackup::Reader::AttributesOf(XMLElement const & element)
{
    Attributes given;
    for (auto const * at = element.FirstAttribute(); at; at = at->Next())
    {
        std::string_view const name = at->Name();
        if (name == "name")
        {
            given.name = at->Value();
        }
        else if (name == "type")
        {
            given.type = at->Value();
        }
        else if (name == "original-size")
        {
            given.originalSize = at->Value();
            given.bHasSize = true;
        }
        else if (name == "type-number")
        {
            given.typeNumber = at->Value();
        }
    }
    return given;
}

CRegistryBackup::Reader::Form CRegistryBackup::Reader::Take(XMLElement const & element, RegistryValue & value)
{
    Attributes const given = AttributesOf(element);
    value.strName = kvx::FromUtf8(std::string(given.name));
    if (!TakeType(given, value.nType))
    {
        return Form::Faulty;
    }
    char const * const text = element.GetText() ? element.GetText() : "";
    std::size_t const length = std::strlen(text);
    if (!given.bHasSize)
    {
        void * data = nullptr;
        DWORD size = 0;
        CRegistry::ConvertFromString(TextOf(text), value.nType, &data, &size);
        value.data.assign(static_cast<BYTE *>(data), static_cast<BYTE *>(data) + size);
        std::free(data);
        return Form::Whole;
    }
    DWORD size = 0;
    if (!TakeNumber(given.originalSize, size))
    {
        return Form::Faulty;
    }
    if (length == 0)
    {
        value.data.clear();
        return size == 0 ? Form::Whole : Form::WithoutData;
    }
    // No more room than there is text for.
    if (size == 0 || size / 3 > length / 4 + 1 || length > 0x7FFFFFFF)
    {
        return Form::Faulty;
    }
    value.data.resize(size);
    int decoded = static_cast<int>(size);
    bool const bDecoded = CUtilities::Base64Decode(text, static_cast<int>(length), value.data.data(), &decoded);
    return bDecoded && static_cast<DWORD>(decoded) == size ? Form::Whole : Form::Faulty;
}

LONG CRegistryBackup::Reader::Check(XMLElement const & element)
{
    RegistryValue value;
    for (XMLElement const * child = element.FirstChildElement(); child; child = child->NextSiblingElement())
    {
        bool const bValue = Is(*child, "VALUE");
        if (!bValue && !Is(*child, "KEY"))
        {
            return Refuse(*child, _T("neither a KEY nor a VALUE"));
        }
        if (bValue && Take(*child, value) == Form::Faulty)
        {
            return Refuse(*child, _T("a VALUE whose type isn't known, or whose data don't have the size that is told"));
        }
        if (LONG const code = bValue ? 0 : Check(*child); code != 0)
        {
            return code;
        }
    }
    return 0;
}

LONG CRegistryBackup::Reader::Open(CFile & file, CString const & keyPath)
{
    m_strTarget = keyPath;
    std::string const text = ReadAll(file);
    if (m_document.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS)
    {
        CString place;
        place.Format(_T("line %d"), m_document.ErrorLineNum());
        return m_owner.Fail(ERROR_INVALID_DATA, place, tinyxml2::ErrorName(m_document.ErrorID()));
    }
    XMLElement const * const registry = m_document.RootElement();
    if (!registry || !Is(*registry, "REGISTRY") || !registry->FirstChildElement("KEY"))
    {
        return m_owner.Fail(ERROR_INVALID_DATA, CString(), _T("no REGISTRY with a KEY"));
    }
    if (!keyPath.IsEmpty() && registry->FirstChildElement("KEY")->NextSiblingElement("KEY"))
    {
        return m_owner.Fail(ERROR_INVALID_DATA, CString(), _T("more than one KEY for one path"));
    }
    if (registry->FirstChildElement("VALUE"))
    {
        return Refuse(*registry->FirstChildElement("VALUE"), _T("a VALUE outside a KEY"));
    }
    return Check(*registry);
}

template <class WORK>
LONG CRegistryBackup::Reader::ForEachTop(DWORD accessFlags, WORK work)
{
    LONG code = 0;
    XMLElement const * key = m_document.RootElement()->FirstChildElement("KEY");
    for (; key && code == 0; key = key->NextSiblingElement("KEY"))
    {
        CString const path = m_strTarget.IsEmpty() ? NameOf(*key) : m_strTarget;
        bool const b64 = TextOf(key->Attribute("WOW64")) == CRegistry::WOW64_64;
        code = work(*key, path, b64 ? KEY_WOW64_64KEY : accessFlags);
    }
    return code;
}

// In one transaction; if that fails, one by one, which tells where.
LONG CRegistryBackup::Reader::SetBatch()
{
    std::vector<RegistryValue> const batch = std::exchange(m_batch, {});
    auto const keys = std::exchange(m_batchKeys, {});
    m_nBatchBytes = 0;
    if (kvx::SetRegistryValues(batch) == 0)
    {
        m_owner.m_nValues += batch.size();
        return 0;
    }
    for (RegistryValue const & value : batch)
    {
        if (LONG const code = kvx::SetRegistryValues({&value, 1}); code != 0)
        {
            auto const key = std::ranges::find_if(keys, [&](auto const & one) { return *one.first == value.key; });
            return m_owner.Fail(code, PlaceOf(key->second, value.strName));
        }
        ++m_owner.m_nValues;
    }
    return 0;
}

LONG CRegistryBackup::Reader::Restore(XMLElement const & element, std::shared_ptr<CRegistry> const & key,
                                      CString const & path)
{
    ++m_owner.m_nKeys;
    LONG code = 0;
    m_batchKeys.emplace_back(key, path);
    for (auto const * child = element.FirstChildElement("VALUE"); child && code == 0;
         child = child->NextSiblingElement("VALUE"))
    {
        RegistryValue value;
        if (Take(*child, value) == Form::WithoutData)
        {
            ++m_owner.m_nWithoutData;
            continue;
        }
        value.key = *key;
        m_nBatchBytes += value.data.size();
        m_batch.push_back(std::move(value));
        if (m_batch.size() >= BATCH_VALUES || m_nBatchBytes >= BATCH_BYTES)
        {
            code = SetBatch();
            m_batchKeys.emplace_back(key, path);
        }
    }
    if (code == 0 && m_batchKeys.size() >= BATCH_KEYS)
    {
        code = SetBatch();
    }
    for (auto const * child = element.FirstChildElement("KEY"); child && code == 0;
         child = child->NextSiblingElement("KEY"))
    {
        CString const name = NameOf(*child);
        auto const subKey = std::make_shared<CRegistry>();
        code = m_owner.Fail(subKey->CreateKey(*key, name, 0, CRegistry::RESTORE_ACCESS), Join(path, name));
        code = code != 0 ? code : Restore(*child, subKey, Join(path, name));
    }
    return code;
}

CString CRegistryBackup::Reader::Show(RegistryValue const & value)
{
    CString type = CRegistry::GetRegistryTypeName(value.nType);
    if (type.IsEmpty() || CRegistry::GetRegistryTypeFromName(type) != value.nType)
    {
        type.Format(_T("%u"), value.nType);
    }
    return type + _T(" ") +
           CRegistry::ConvertToString(value.nType, value.data.data(), static_cast<DWORD>(value.data.size()));
}

void CRegistryBackup::Reader::CompareValues(XMLElement const & element, CRegistry * key, CString const & path,
                                            std::function<void(Difference const &)> const & tell)
{
    std::unordered_map<std::basic_string<WCHAR>, RegistryValue> inRegistry; // by the name in lower case
    std::vector<std::basic_string<WCHAR>> order;
    auto const fold = [](View name)
    {
        CString folded(name);
        folded.MakeLower();
        return std::basic_string<WCHAR>(View(folded));
    };
    if (key)
    {
        ForEachValue(*key, false,
                     [&](RegistryValue & value) -> LONG
                     {
                         order.push_back(fold(value.strName));
                         inRegistry.emplace(order.back(), std::move(value));
                         return 0;
                     });
    }
    for (auto const * child = element.FirstChildElement("VALUE"); child; child = child->NextSiblingElement("VALUE"))
    {
        RegistryValue value;
        Form const form = Take(*child, value);
        auto const found = inRegistry.find(fold(value.strName));
        ++m_owner.m_nValues;
        m_owner.m_nWithoutData += form == Form::WithoutData;
        if (found == inRegistry.end())
        {
            tell({Difference::onlyInFile, path, true, CString(value.strName), CString(), Show(value)});
            continue;
        }
        if (form == Form::Whole && (found->second.nType != value.nType || found->second.data != value.data))
        {
            tell({Difference::differs, path, true, CString(value.strName), Show(found->second), Show(value)});
        }
        inRegistry.erase(found);
    }
    for (auto const & name : order)
    {
        if (auto const left = inRegistry.find(name); left != inRegistry.end())
        {
            tell(
                {Difference::onlyInRegistry, path, true, CString(left->second.strName), Show(left->second), CString()});
        }
    }
}

// Without a key all of the element is in the file alone, of which its top is told.
LONG CRegistryBackup::Reader::Compare(XMLElement const & element, CRegistry * key, CString const & path,
                                      std::function<void(Difference const &)> const & tell)
{
    ++m_owner.m_nKeys;
    if (!key)
    {
        tell({Difference::onlyInFile, path, false, CString(), CString(), CString()});
        return 0;
    }
    CompareValues(element, key, path, tell);
    CStringList names;
    LONG code = m_owner.Fail(key->QuerySubKeys(names), path);
    std::unordered_map<std::basic_string<WCHAR>, bool> inFile;
    for (auto const * child = element.FirstChildElement("KEY"); child && code == 0;
         child = child->NextSiblingElement("KEY"))
    {
        CString name = NameOf(*child);
        CString const subPath = Join(path, name);
        CRegistry subKey;
        LONG const opened = subKey.OpenKey(*key, name, KEY_READ);
        bool const bMissing = opened == ERROR_FILE_NOT_FOUND;
        code = bMissing ? 0 : m_owner.Fail(opened, subPath);
        code = code != 0 ? code : Compare(*child, bMissing ? nullptr : &subKey, subPath, tell);
        inFile[std::basic_string<WCHAR>(View(name.MakeLower()))] = true;
    }
    for (POSITION pos = names.GetHeadPosition(); pos && code == 0;)
    {
        CString const & name = names.GetNext(pos);
        if (!inFile.contains(std::basic_string<WCHAR>(View(CString(name).MakeLower()))))
        {
            tell({Difference::onlyInRegistry, Join(path, name), false, CString(), CString(), CString()});
        }
    }
    return code;
}

LONG CRegistryBackup::Import(CFile & file, CString const & keyPath, DWORD accessFlags)
{
    Start();
    LONG const code = Guarded(
        [&]
        {
            Reader reader(*this);
            LONG const opened = reader.Open(file, keyPath);
            auto const restore = [&](XMLElement const & element, CString const & path, DWORD flags)
            {
                auto const key = std::make_shared<CRegistry>();
                LONG const made = Fail(key->CreateKey(path, 0, flags | CRegistry::RESTORE_ACCESS), path);
                return made != 0 ? made : reader.Restore(element, key, path);
            };
            LONG const restored = opened != 0 ? opened : reader.ForEachTop(accessFlags, restore);
            return restored != 0 ? restored : reader.SetBatch();
        });
    return Fail(code, CString());
}

LONG CRegistryBackup::Compare(CFile & file, CString const & keyPath,
                              std::function<void(Difference const &)> const & tell, DWORD accessFlags)
{
    Start();
    LONG const code = Guarded(
        [&]
        {
            Reader reader(*this);
            LONG const opened = reader.Open(file, keyPath);
            auto const compare = [&](XMLElement const & element, CString const & path, DWORD flags)
            {
                CRegistry key;
                LONG const found = key.OpenKey(path, flags | KEY_READ);
                bool const bMissing = found == ERROR_FILE_NOT_FOUND;
                LONG const result = bMissing ? 0 : Fail(found, path);
                return result != 0 ? result : reader.Compare(element, bMissing ? nullptr : &key, path, tell);
            };
            return opened != 0 ? opened : reader.ForEachTop(accessFlags, compare);
        });
    return Fail(code, CString());
}
