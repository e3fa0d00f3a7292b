// The backup of keys as XML, on the library's own documents. By contract it does less than the one on tinyxml2's: no
// values are saved, and only plain texts are restored.

#include "kvx/registry/Registry.h"
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
    CRegistry opened;
    if (opened.OpenKey(keyPath, accessFlags | KEY_READ, 0) != 0)
    {
        return 0;
    }
    CStringList names;
    if (oneValue)
    {
        names.AddTail(valueName);
    }
    else
    {
        opened.QueryValueNames(names, -1);
    }
    SaveValuesToXML(key, opened, names, maxValueSize);
    if (!oneValue && recursive)
    {
        SaveSubKeysToXML(key, opened, maxValueSize, 0);
    }
    return 1;
}

void CRegistry::SaveSubKeysToXML(CXmlElement * element, CRegistry & key, DWORD maxValueSize, DWORD accessFlags)
{
    if (!element)
    {
        return;
    }
    CStringList names;
    key.QuerySubKeys(names, -1);
    for (POSITION pos = names.GetHeadPosition(); pos;)
    {
        CString const & name = names.GetNext(pos);
        CXmlElement * const child = element->CreateChild(_T("KEY"));
        child->SetAttribute(_T("name"), name);
        CRegistry subKey;
        if (subKey.OpenKey(key, name, accessFlags | KEY_READ, 0) == 0)
        {
            CStringList values;
            subKey.QueryValueNames(values, -1);
            SaveValuesToXML(child, subKey, values, maxValueSize);
            SaveSubKeysToXML(child, subKey, maxValueSize, accessFlags);
        }
    }
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
    if (!key)
    {
        return 1;
    }
    if (key->HasValue(WOW64) && key->GetAttribute(WOW64) == WOW64_64)
    {
        accessFlags = KEY_WOW64_64KEY;
    }
    CRegistry created;
    if (created.CreateKey(key->GetAttribute(_T("name")), 0, accessFlags | RESTORE_ACCESS, nullptr, nullptr) != 0)
    {
        return 0;
    }
    return RestoreSubkeyFromXML(key, created, 0);
}

int CRegistry::RestoreSubkeyFromXML(CXmlElement const * element, CRegistry & key, DWORD accessFlags)
{
    int result = 1;
    for (CXmlElement const * child = element ? element->GetChild() : nullptr; child; child = child->GetNext())
    {
        if (child->GetTag().CompareNoCase(_T("VALUE")) == 0)
        {
            result &= RestoreValueFromXML(child, key);
        }
        else if (child->GetTag().CompareNoCase(_T("KEY")) == 0)
        {
            CRegistry subKey;
            LONG const code = subKey.CreateKey(key, child->GetAttribute(_T("name")), 0, accessFlags | RESTORE_ACCESS,
                                               nullptr, nullptr);
            result &= code == 0 ? RestoreSubkeyFromXML(child, subKey, accessFlags) : 0;
        }
    }
    return result;
}

int CRegistry::RestoreValueFromXML(CXmlElement const * element, CRegistry & key)
{
    return element ? RestorePlainValue(key, element->GetAttribute(_T("name")),
                                       GetRegistryTypeFromName(element->GetAttribute(_T("type"))), element->GetData())
                   : 0;
}
