#include "kvx/logging/LogManager.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/msgdata/MsgMultipleTables.h"
#include "kvx/xml/XmlElement.h"

#include <memory>

namespace
{
// What the classes do alike. S is a table or a row set, M a list of them.
template <class S>
void RowsToElement(S const & source, CXmlElement * parent)
{
    if (!parent)
    {
        return;
    }
    CXmlElement * const rowSet = parent->CreateChild(_T("ROWSET"));
    if (!source.GetName().IsEmpty())
    {
        rowSet->SetAttribute(_T("name"), source.GetName());
    }
    CDictionary row; // every row has every column, so that none is left from the row before
    for (POSITION pos = source.GetFirstRowPosition(); pos; source.GetNextRowPosition(pos))
    {
        source.GetRow(pos, row);
        rowSet->CreateChild(_T("ROW"))->SetAttributes(row);
    }
}

template <class S>
int RowsFromElement(S & target, CXmlElement const * rowSet)
{
    CString const name = rowSet ? rowSet->GetAttribute(_T("name")) : CStringValue();
    if (!name.IsEmpty())
    {
        target.SetName(name);
    }
    for (CXmlElement const * at = rowSet ? rowSet->GetChild(0) : nullptr; at; at = at->GetNext(0))
    {
        CAttributeSet row; // in whose order columns come into being
        at->GetAttributes(row);
        POSITION pos = target.AppendRow();
        target.SetRow(pos, row);
    }
    LogInfo(_T("Imported rowset %s (%u)"), target.GetName(), target.GetRowCount());
    return 1;
}

template <class M>
void ListToElement(M const & source, CXmlElement * parent)
{
    // An empty list would make itself a first member.
    for (POSITION pos = source.IsEmpty() ? nullptr : source.GetFirstPosition(); pos; source.GetNextPosition(pos))
    {
        source.GetAt(pos)->ToXml(parent);
    }
}

template <class S, class M>
int ListFromElement(M & target, CXmlElement const * parent)
{
    for (CXmlElement const * at = parent ? parent->GetChild(0) : nullptr; at; at = at->GetNext(0))
    {
        auto item = std::make_unique<S>(nullptr);
        if (item->FromXml(at))
        {
            target.Append(item.release());
        }
    }
    return 1;
}
} // namespace

void CMsgTable::ToXml(CXmlElement * parent) const
{
    RowsToElement(*this, parent);
}

int CMsgTable::FromXml(CXmlElement const * rowSet)
{
    return RowsFromElement(*this, rowSet);
}

void CMsgRowSet::ToXml(CXmlElement * parent) const
{
    RowsToElement(*this, parent);
}

int CMsgRowSet::FromXml(CXmlElement const * rowSet)
{
    return RowsFromElement(*this, rowSet);
}

void CMsgMultipleTables::ToXml(CXmlElement * parent) const
{
    ListToElement(*this, parent);
}

int CMsgMultipleTables::FromXml(CXmlElement const * parent)
{
    return ListFromElement<CMsgTable>(*this, parent);
}

void CMsgMultipleRowSets::ToXml(CXmlElement * parent) const
{
    ListToElement(*this, parent);
}

int CMsgMultipleRowSets::FromXml(CXmlElement const * parent)
{
    return ListFromElement<CMsgRowSet>(*this, parent);
}
