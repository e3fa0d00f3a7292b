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
};
