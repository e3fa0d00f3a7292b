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
};
