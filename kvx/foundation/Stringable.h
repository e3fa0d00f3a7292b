#pragma once

/// Two small mix-in interfaces.

#include "kvx/platform/mfc/Afx.h"

/// Something with a text form.
class KVX_API CStringable
{
public:
    virtual ~CStringable() = default;
    virtual CString ToString() const = 0;
    virtual void FromString(CString const & text) = 0;
};

/// Something with an order among its kind; see CSortedTree.
class KVX_API CSortable
{
public:
    virtual ~CSortable() = default;

    /// Negative, zero or positive, as this object sorts before, with or after `other`.
    virtual int Compare(CSortable const * other) const = 0;
};
