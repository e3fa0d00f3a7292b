#pragma once

#include "kvx/msgdata/MsgMultiple.h"
#include "kvx/msgdata/MsgTable.h"

/// The same list for tables, for applications.
class KVX_API CMsgMultipleTables : public CMsgMultiple<CMsgMultipleTables, CMsgTable>
{
public:
    operator CMsgMultipleTables *() { return this; }
    operator CMsgMultipleTables const *() const { return this; }

    int GetTableCount() const { return GetCount(); }

    /// A ROWSET below the element for each; FromXml appends one for each child element, whatever its name, and gives 1.
    void ToXml(tinyxml2::XMLElement * parent) const;
    int FromXml(tinyxml2::XMLElement const * parent);
    void ToXml(CXmlElement * parent) const;
    int FromXml(CXmlElement const * parent);
};
