#include "kvx/foundation/Dictionary.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/msgdata/MsgMultipleTables.h"
#include "kvx/xml/ElementProxy.h"

#include <memory>

using tinyxml2::ElementProxy;
using tinyxml2::XMLElement;

namespace
{
// What the classes do alike. S is a table or a row set, M a list of them.
template <class S>
void RowsToXml(S const & source, XMLElement * parent)
{
    ElementProxy rowSet(ElementProxy(parent).AddChild("ROWSET"));
    if (rowSet.IsNULL())
    {
        return;
    }
    if (!source.GetName().IsEmpty())
    {
        rowSet->SetAttribute("name", CUtilities::T2MB(source.GetName(), CP_UTF8).GetString());
    }
    CDictionary row; // every row has every column, so that none is left from the row before
    for (POSITION pos = source.GetFirstRowPosition(); pos; source.GetNextRowPosition(pos))
    {
        source.GetRow(pos, row);
        ElementProxy(rowSet.AddChild("ROW")).SetAttributes(row);
    }
}

template <class S>
int RowsFromXml(S & target, XMLElement const * rowSet)
{
    CString const name = rowSet ? CUtilities::MB2T(rowSet->Attribute("name"), CP_UTF8) : CString();
    if (!name.IsEmpty())
    {
        target.SetName(name);
    }
    for (XMLElement const * at = rowSet ? rowSet->FirstChildElement() : nullptr; at; at = at->NextSiblingElement())
    {
        CDictionary row;
        ElementProxy(const_cast<XMLElement *>(at)).GetAttributes(row);
        POSITION pos = target.AppendRow();
        target.SetRow(pos, row);
    }
    LogInfo(_T("Imported rowset %s (%u)"), target.GetName(), target.GetRowCount());
    return 1;
}

template <class M>
void ListToXml(M const & source, XMLElement * parent)
{
    // An empty list would make itself a first member.
    for (POSITION pos = source.IsEmpty() ? nullptr : source.GetFirstPosition(); pos; source.GetNextPosition(pos))
    {
        source.GetAt(pos)->ToXml(parent);
    }
}

template <class S, class M>
int ListFromXml(M & target, XMLElement const * parent)
{
    for (XMLElement const * at = parent ? parent->FirstChildElement() : nullptr; at; at = at->NextSiblingElement())
    {
        auto rows = std::make_unique<S>(nullptr);
        if (rows->FromXml(at))
        {
            target.Append(rows.release());
        }
    }
    return 1;
}
} // namespace

void CMsgTable::ToXml(XMLElement * parent) const
{
    RowsToXml(*this, parent);
}

int CMsgTable::FromXml(XMLElement const * rowSet)
{
    return RowsFromXml(*this, rowSet);
}

void CMsgRowSet::ToXml(XMLElement * parent) const
{
    RowsToXml(*this, parent);
}

int CMsgRowSet::FromXml(XMLElement const * rowSet)
{
    return RowsFromXml(*this, rowSet);
}

void CMsgMultipleRowSets::ToXml(XMLElement * parent) const
{
    ListToXml(*this, parent);
}

int CMsgMultipleRowSets::FromXml(XMLElement const * parent)
{
    return ListFromXml<CMsgRowSet>(*this, parent);
}

void CMsgMultipleTables::ToXml(XMLElement * parent) const
{
    ListToXml(*this, parent);
}

int CMsgMultipleTables::FromXml(XMLElement const * parent)
{
    return ListFromXml<CMsgTable>(*this, parent);
}
