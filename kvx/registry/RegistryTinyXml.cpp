// The backup of keys as XML, on tinyxml2's documents.

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"
#include "kvx/registry/RegistryTree.h"
#include "kvx/registry/RegistryValueText.h"
#include "kvx/xml/XMLDocumentKVX.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

using tinyxml2::ElementProxy;
using tinyxml2::XMLElement;

namespace
{
CStringA ToUtf8(CString const & text)
{
    return CUtilities::T2MB(text, CP_UTF8);
}

CString GetText(char const * utf8)
{
    return utf8 ? CUtilities::MB2T(utf8, CP_UTF8) : CString();
}

CString GetAttribute(XMLElement const & element, char const * name)
{
    return GetText(element.Attribute(name));
}

int GetNumber(XMLElement const & element, char const * name)
{
    char const * const digits = element.Attribute(name);
    unsigned long const number = digits ? std::strtoul(digits, nullptr, 10) : 0;
    return number > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(number);
}

CString ErrorText(DWORD code)
{
    return CWinError::GetText(code);
}
} // namespace

int CRegistry::SaveKeyToXML(tinyxml2::XMLDocument & document, CString const & keyPath, int oneValue,
                            CString const & valueName, int recursive, DWORD maxValueSize, DWORD accessFlags)
{
    document.Clear();
    XMLElement * const registry = document.NewElement("REGISTRY");
    document.InsertFirstChild(registry);
    XMLElement * const key = document.NewElement("KEY");
    key->SetAttribute("name", ToUtf8(keyPath));
    if ((accessFlags & KEY_WOW64_64KEY) != 0)
    {
        key->SetAttribute(ToUtf8(WOW64), ToUtf8(WOW64_64));
    }
    registry->InsertEndChild(key);
    return SaveOpened(key, keyPath, oneValue, valueName, recursive, maxValueSize, accessFlags);
}

void CRegistry::SaveSubKeysToXML(XMLElement * element, CRegistry & key, DWORD maxValueSize, DWORD accessFlags)
{
    if (!element || !element->GetDocument())
    {
        return;
    }
    auto const add = [&](CString const & name)
    {
        XMLElement * const child = element->GetDocument()->NewElement("KEY");
        child->SetAttribute("name", ToUtf8(name));
        element->InsertEndChild(child);
        return child;
    };
    SaveEachSubKey(key, maxValueSize, accessFlags, add);
}

void CRegistry::SaveValuesToXML(XMLElement * element, CRegistry & key, CStringList const & names, DWORD maxValueSize)
{
    if (!element || !element->GetDocument())
    {
        return;
    }
    for (POSITION pos = names.GetHeadPosition(); pos;)
    {
        CString const & name = names.GetNext(pos);
        kvx::RegistryValueText value;
        if (!value.Read(key, name, maxValueSize))
        {
            continue;
        }
        ElementProxy proxy(element);
        if (XMLElement * const child =
                proxy.AddChild("VALUE", value.strText.IsEmpty() ? nullptr : value.strText.GetString()))
        {
            child->SetAttribute("name", ToUtf8(name));
            child->SetAttribute("type", ToUtf8(GetRegistryTypeName(value.nType)));
            child->SetAttribute("original-size", static_cast<unsigned int>(value.nSize));
            child->SetAttribute("encoded-size", value.strText.GetLength());
        }
    }
}

int CRegistry::RestoreFromXML(tinyxml2::XMLDocument const & document, DWORD accessFlags)
{
    XMLElement const * const registry = document.FirstChildElement("REGISTRY");
    XMLElement const * const key = registry ? registry->FirstChildElement("KEY") : nullptr;
    return key ? RestoreTop(key, GetAttribute(*key, "name"), GetAttribute(*key, ToUtf8(WOW64)), accessFlags) : 1;
}

int CRegistry::RestoreSubkeyFromXML(XMLElement const * element, CRegistry & key, DWORD accessFlags)
{
    if (!element)
    {
        return 0;
    }
    int result = 1;
    auto const nameOf = [](XMLElement const & named) { return GetAttribute(named, "name"); };
    for (XMLElement const * child = element->FirstChildElement(); child; child = child->NextSiblingElement())
    {
        result &= RestoreChild(child, GetText(child->Name()), key, accessFlags, nameOf);
    }
    return result;
}

int CRegistry::RestoreValueFromXML(XMLElement const * element, CRegistry & key)
{
    if (!element)
    {
        return 0;
    }
    CString const name = GetAttribute(*element, "name");
    LPCTSTR const shown = name;
    DWORD const type = GetRegistryTypeFromName(GetAttribute(*element, "type"));
    char const * const text = element->GetText() ? element->GetText() : "";
    if (!element->Attribute("original-size"))
    {
        return RestorePlainValue(key, name, type, GetText(text));
    }
    int const encodedSize = GetNumber(*element, "encoded-size");
    if (encodedSize == 0)
    {
        return 1;
    }
    // The size is the document's word: no more room is wanted than there is text.
    int size = std::min(encodedSize, static_cast<int>(std::min<std::size_t>(std::strlen(text), 0x7FFFFFFF)));
    std::unique_ptr<void, decltype(&std::free)> const data(std::malloc(static_cast<std::size_t>(size) + 1), &std::free);
    if (!data)
    {
        LogError(_T("CRegistry::RestoreValueFromXML - %s - malloc(%d) failure"), shown, encodedSize);
        return 0;
    }
    auto * const bytes = static_cast<unsigned char *>(data.get());
    if (!CUtilities::Base64Decode(text, size, bytes, &size))
    {
        DWORD const code = GetLastError();
        LogError(_T("CRegistry::RestoreValueFromXML - %s - Base64Decode failure [%d|%s]"), shown, code,
                 ErrorText(code));
        return 0;
    }
    LONG const code = key.SetValue(name, type, bytes, static_cast<DWORD>(size));
    if (code != 0)
    {
        LogError(_T("CRegistry::RestoreValueFromXML - %s - SetValue failure [%d|%s]"), shown, code,
                 ErrorText(static_cast<DWORD>(code)));
    }
    return code == 0;
}
