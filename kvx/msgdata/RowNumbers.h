#pragma once

/// Row positions of row sets and tables: the row's number, from 1; null is none.

#include "kvx/platform/mfc/Afx.h"

#include <limits>

namespace kvx
{
inline POSITION RowPosition(INT_PTR row)
{
    return reinterpret_cast<POSITION>(row);
}

inline bool IsRow(POSITION pos, INT_PTR rowCount)
{
    INT_PTR const row = reinterpret_cast<INT_PTR>(pos);
    return row >= 1 && row <= rowCount;
}

/// A row's index, from 0. Errors: CInvalidArgException * for a position that is no row number.
inline int RowIndex(POSITION pos)
{
    if (!IsRow(pos, std::numeric_limits<int>::max()))
    {
        AfxThrowInvalidArgException();
    }
    return static_cast<int>(reinterpret_cast<INT_PTR>(pos) - 1);
}

/// The next row; the first one from null, null behind the last.
inline POSITION NextRow(POSITION pos, INT_PTR rowCount)
{
    INT_PTR const row = reinterpret_cast<INT_PTR>(pos);
    return row < rowCount ? RowPosition(row + 1) : nullptr;
}
} // namespace kvx
