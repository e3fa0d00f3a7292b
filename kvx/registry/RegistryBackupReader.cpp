#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/registry/RegistryBackupParts.h"
#include "kvx/xml/XMLDocumentKVX.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

using kvx::RegistryValue;
using tinyxml2::XMLElement;
using namespace kvx::backup;

namespace
{
constexpr std::size_t BATCH_VALUES = 10000; // that are set in one transaction
constexpr std::size_t BATCH_KEYS = 500;     // that are held open for it
constexpr std::size_t BATCH_BYTES = std::size_t{8} << 20;

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
} // namespace

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
