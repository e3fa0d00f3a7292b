// The backup of keys as XML, on the library's own documents. By contract it does less than the one on tinyxml2's: no
// values are saved, and only plain texts are restored.

#include "kvx/registry/RegistryTree.h"
#include "kvx/registry/RegistryValueText.h"
#include "kvx/xml/XmlDocument.h"

int CRegistry::SaveKeyToXML(CXmlDocument & document, CString const & keyPath, int oneValue, CString const & valueName,
                            int recursive, DWORD maxValueSize, DWORD accessFlags)
{
    if (!document.GetRoot())
    {
        document.SetRoot(new CXmlElement(nullptr)); // after a load that failed there is none
    }
    CXmlElement * const key = document.SetRoot(_T("REGISTRY"))->CreateChild(_T("KEY"));
    key->SetAttribute(_T("name"), keyPath);
    if ((accessFlags & KEY_WOW64_64KEY) != 0)
    {
        key->SetAttribute(WOW64, WOW64_64);
    }
    return SaveOpened(key, keyPath, oneValue, valueName, recursive, maxValueSize, accessFlags);
}

void CRegistry::SaveSubKeysToXML(CXmlElement * element, CRegistry & key, DWORD maxValueSize, DWORD accessFlags)
{
    if (!element)
    {
        return;
    }
    auto const add = [&](CString const & name)
    {
        CXmlElement * const child = element->CreateChild(_T("KEY"));
        child->SetAttribute(_T("name"), name);
        return child;
    };
    SaveEachSubKey(key, maxValueSize, accessFlags, add);
}

// The values are read, and what fails is logged, as for a document that gets them.
void CRegistry::SaveValuesToXML(CXmlElement * element, CRegistry & key, CStringList const & names, DWORD maxValueSize)
{
    for (POSITION pos = element ? names.GetHeadPosition() : nullptr; pos;)
    {
        kvx::RegistryValueText value;
        value.Read(key, names.GetNext(pos), maxValueSize);
    }
}

int CRegistry::RestoreFromXML(CXmlDocument const & document, DWORD accessFlags)
{
    CXmlElement const * const root = document.GetRoot();
    CXmlElement const * const key = root ? root->GetChild() : nullptr;
    return key ? RestoreTop(key, key->GetAttribute(_T("name")), key->GetAttribute(WOW64), accessFlags) : 1;
}

int CRegistry::RestoreSubkeyFromXML(CXmlElement const * element, CRegistry & key, DWORD accessFlags)
{
    int result = 1;
    auto const nameOf = [](CXmlElement const & named) { return named.GetAttribute(_T("name")); };
    for (CXmlElement const * child = element ? element->GetChild() : nullptr; child; child = child->GetNext())
    {
        result &= RestoreChild(child, child->GetTag(), key, accessFlags, nameOf);
    }
    return result;
}

int CRegistry::RestoreValueFromXML(CXmlElement const * element, CRegistry & key)
{
    return element ? RestorePlainValue(key, element->GetAttribute(_T("name")),
                                       GetRegistryTypeFromName(element->GetAttribute(_T("type"))), element->GetData())
                   : 0;
}
