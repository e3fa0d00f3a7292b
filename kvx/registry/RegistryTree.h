#pragma once

/// What the backups as XML on both kinds of documents do alike: ELEMENT is that of one of them.

#include "kvx/registry/Registry.h"

/// Opens the key, and fills the element with the one value or with what the key holds.
template <class ELEMENT>
int CRegistry::SaveOpened(ELEMENT * element, CString const & keyPath, int oneValue, CString const & valueName,
                          int recursive, DWORD maxValueSize, DWORD accessFlags)
{
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
    SaveValuesToXML(element, opened, names, maxValueSize);
    if (!oneValue && recursive)
    {
        SaveSubKeysToXML(element, opened, maxValueSize, 0);
    }
    return 1;
}

/// `add(name)` makes the element of a subkey. As deep as keys nest, which the system bounds.
template <class ADD>
void CRegistry::SaveEachSubKey(CRegistry & key, DWORD maxValueSize, DWORD accessFlags, ADD const & add)
{
    CStringList names;
    key.QuerySubKeys(names, -1);
    for (POSITION pos = names.GetHeadPosition(); pos;)
    {
        CString const & name = names.GetNext(pos);
        auto * const child = add(name);
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

/// With the attributes of the key at the top.
template <class ELEMENT>
int CRegistry::RestoreTop(ELEMENT const * element, CString const & name, CString const & wow64, DWORD accessFlags)
{
    DWORD const flags = wow64 == WOW64_64 ? DWORD{KEY_WOW64_64KEY} : accessFlags;
    CRegistry created;
    if (created.CreateKey(name, 0, flags | RESTORE_ACCESS, nullptr, nullptr) != 0)
    {
        return 0;
    }
    return RestoreSubkeyFromXML(element, created, 0);
}

/// `nameOf(element)` is the attribute. As deep as keys nest: a key that can't be made isn't gone into.
template <class ELEMENT, class NAME>
int CRegistry::RestoreChild(ELEMENT const * child, CString const & tag, CRegistry & key, DWORD accessFlags,
                            NAME const & nameOf)
{
    if (tag.CompareNoCase(_T("VALUE")) == 0)
    {
        return RestoreValueFromXML(child, key);
    }
    if (tag.CompareNoCase(_T("KEY")) != 0)
    {
        return 1;
    }
    CRegistry subKey;
    LONG const code = subKey.CreateKey(key, nameOf(*child), 0, accessFlags | RESTORE_ACCESS, nullptr, nullptr);
    return code == 0 ? RestoreSubkeyFromXML(child, subKey, accessFlags) : 0;
}
