#include "kvx/foundation/Dictionary.h"

#include "kvx/files/ArchiveStreamer.h"
#include "kvx/foundation/Utilities.h"

IMPLEMENT_SERIAL(CDictionary, CObject, 1)

kvx::ValueTable::Entry * CDictionary::ToEntry(POSITION pos)
{
    if (!pos)
    {
        AfxThrowInvalidArgException();
    }
    return reinterpret_cast<kvx::ValueTable::Entry *>(pos);
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
    CStringValue & stored = m_values.FindOrAdd(name).value;
    stored = value;
    return &stored;
}

int CDictionary::RemoveValue(CString const & name)
{
    auto * const entry = m_values.Find(name);
    if (!entry)
    {
        return 0;
    }
    m_values.Remove(entry);
    return 1;
}

void CDictionary::GetNextValue(POSITION & pos, CString & name, CString & value) const
{
    auto const * const entry = ToEntry(pos);
    pos = ToPosition(entry->pNext);
    name = entry->strName;
    value = entry->value;
}

namespace
{
/// Switches packed strings off where an outer object has them on: they don't go with narrow text.
class PlainStrings
{
public:
    explicit PlainStrings(CArchiveStreamer & streamer) : m_streamer(streamer), m_bPacked(streamer.EnablePackedStrings())
    {
        m_streamer.EnablePackedStrings(0);
    }
    PlainStrings(PlainStrings const &) = delete;
    PlainStrings & operator=(PlainStrings const &) = delete;
    ~PlainStrings() { m_streamer.EnablePackedStrings(m_bPacked); }

private:
    CArchiveStreamer & m_streamer;
    int m_bPacked;
};
} // namespace

void CDictionary::Serialize(CArchive & archive)
{
    CArchiveStreamer streamer(archive, 1);
    PlainStrings const plain(streamer);
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

int CAttributeSet::RenameValue(CString const & from, CString const & to)
{
    CString const oldName = from; // either may be the text of the value that moves
    CString const newName = to;
    return CDictionary::RenameValue(oldName, newName);
}

void CAttributeSet::GetNextValue(POSITION & pos, CString & name, CStringValue & value) const
{
    GetNextValue(pos, name, static_cast<CString &>(value));
}

void CAttributeSet::GetPrevValue(POSITION & pos, CString & name, CString & value) const
{
    auto const * const entry = ToEntry(pos);
    pos = ToPosition(m_values.GetPrev(entry));
    name = entry->strName;
    value = entry->value;
}

void CAttributeSet::GetPrevValue(POSITION & pos, CString & name, CStringValue & value) const
{
    GetPrevValue(pos, name, static_cast<CString &>(value));
}
