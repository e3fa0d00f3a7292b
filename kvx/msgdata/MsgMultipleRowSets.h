#pragma once

#include "kvx/msgdata/MsgMultiple.h"
#include "kvx/msgdata/MsgRowSet.h"

/// The ordered list of row sets that a response or a request's extended parameters are.
class KVX_API CMsgMultipleRowSets : public CMsgMultiple<CMsgMultipleRowSets, CMsgRowSet>
{
public:
    operator CMsgMultipleRowSets *() { return this; }
    operator CMsgMultipleRowSets const *() const { return this; }

    int GetRowSetCount() const { return GetCount(); }

    /// A ROWSET below the element for each; FromXml appends one for each child element, whatever its name, and gives 1.
    void ToXml(tinyxml2::XMLElement * parent) const;
    int FromXml(tinyxml2::XMLElement const * parent);
    void ToXml(CXmlElement * parent) const;
    int FromXml(CXmlElement const * parent);
};
