#include "kvx/foundation/Dictionary.h"

#include "kvx/files/ArchiveStreamer.h"
#include "kvx/foundation/Utilities.h"

IMPLEMENT_SERIAL(CDictionary, CObject, 1)

CStringValue * CDictionary::FindValue(CString const & name) const
{
    void * value = nullptr;
    m_values.Lookup(name, value);
    return static_cast<CStringValue *>(value);
}

int CDictionary::HasValue(CString const & name) const
{
    return FindValue(name) != nullptr;
}

CStringValue & CDictionary::CreateValue(CString const & name)
{
    CStringValue * const value = FindValue(name);
    return value ? *value : *InsertValue(name, CStringValue());
}

CStringValue * CDictionary::InsertValue(CString const & name, CStringValue const & value)
{
    CStringValue * stored = FindValue(name);
    if (stored)
    {
        *stored = value;
        return stored;
    }
    stored = new CStringValue(value);
    m_values.SetAt(name, stored);
    return stored;
}

int CDictionary::RemoveValue(CString const & name)
{
    CStringValue * const value = FindValue(name);
    if (!value)
    {
        return 0;
    }
    m_values.RemoveKey(name);
    delete value;
    return 1;
}

void CDictionary::DeleteValues()
{
    CString name;
    void * value = nullptr;
    for (POSITION pos = m_values.GetStartPosition(); pos;)
    {
        m_values.GetNextAssoc(pos, name, value);
        delete static_cast<CStringValue *>(value);
    }
    m_values.RemoveAll();
}

void CDictionary::GetNextValue(POSITION & pos, CString & name, CString & value) const
{
    void * stored = nullptr;
    m_values.GetNextAssoc(pos, name, stored);
    value = *static_cast<CStringValue *>(stored);
}

void CDictionary::Serialize(CArchive & archive)
{
    CArchiveStreamer streamer(archive, 1);
    CString name;
    CString value;
    if (archive.IsStoring())
    {
        streamer.Write(static_cast<DWORD>(GetCount()));
        for (POSITION pos = GetStartValuePosition(); pos;)
        {
            GetNextValue(pos, name, value);
            streamer.Write(name);
            streamer.Write(value);
        }
        return;
    }
    unsigned long count = 0;
    for (streamer.Read(count); count > 0; --count)
    {
        streamer.Read(name);
        streamer.Read(value);
        InsertValue(name, value);
    }
}

CStringValue * CAttributeSet::InsertValue(CString const & name, CStringValue const & value)
{
    bool const bMayStand = m_order.GetCount() > GetValueCount(); // names can outlive their values
    bool const bNew = !FindValue(name);
    CStringValue * const stored = CDictionary::InsertValue(name, value);
    if (bNew && !(bMayStand && m_order.Find(name)))
    {
        m_order.AddTail(name);
    }
    return stored;
}

int CAttributeSet::RemoveValue(CString const & key)
{
    CString const name = key; // which may be the text of the value that goes
    if (!CDictionary::RemoveValue(name))
    {
        return 0;
    }
    if (POSITION const pos = m_order.Find(name))
    {
        m_order.RemoveAt(pos);
    }
    return 1;
}

int CAttributeSet::RenameValue(CString const & from, CString const & to)
{
    CString const oldName = from; // either may be the text of the value that moves
    CString const newName = to;
    if (!CDictionary::RenameValue(oldName, newName))
    {
        return 0;
    }
    // The rename has taken the old name out of the order; one that stood there twice follows the value.
    if (POSITION const pos = m_order.Find(oldName); pos && !FindValue(oldName))
    {
        m_order.SetAt(pos, newName);
    }
    return 1;
}

void CAttributeSet::RemoveAll()
{
    RemoveAllValues();
    m_order.RemoveAll();
}

void CAttributeSet::GetNextValue(POSITION & pos, CString & name, CString & value) const
{
    name = m_order.GetNext(pos);
    CStringValue const * const stored = FindValue(name);
    value = stored ? static_cast<CString const &>(*stored) : CString();
}

void CAttributeSet::GetNextValue(POSITION & pos, CString & name, CStringValue & value) const
{
    GetNextValue(pos, name, static_cast<CString &>(value));
}

void CAttributeSet::GetPrevValue(POSITION & pos, CString & name, CString & value) const
{
    name = m_order.GetPrev(pos);
    CStringValue const * const stored = FindValue(name);
    value = stored ? static_cast<CString const &>(*stored) : CString();
}

void CAttributeSet::GetPrevValue(POSITION & pos, CString & name, CStringValue & value) const
{
    GetPrevValue(pos, name, static_cast<CString &>(value));
}
