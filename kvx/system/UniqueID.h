#pragma once

#include "kvx/foundation/Stringable.h"

/// A GUID. The one of zeros is the invalid one.
class KVX_API CUniqueID : public CObject, public CStringable
{
public:
    /// Invalid.
    CUniqueID() = default;
    CUniqueID(GUID const & guid) : m_guid(guid) {}
    CUniqueID(CUniqueID const & other) = default;
    CUniqueID(ULONG data1, USHORT data2, USHORT data3, BYTE b0, BYTE b1, BYTE b2, BYTE b3, BYTE b4, BYTE b5, BYTE b6,
              BYTE b7)
        : m_guid{data1, data2, data3, {b0, b1, b2, b3, b4, b5, b6, b7}}
    {
    }
    /// As FromString.
    explicit CUniqueID(CString const & text) { CUniqueID::FromString(text); }
    explicit CUniqueID(LPCTSTR text) { CUniqueID::FromString(text); }
    CUniqueID & operator=(CUniqueID const & other) = default;

    /// Becomes an identifier that nobody has yet; 0, and invalid, if the system has none.
    int Create();
    static CUniqueID CreateGuid();

    void Invalidate() { m_guid = GUID{}; }
    int IsValid() const { return !IsEmpty(); }
    int IsNotValid() const { return IsEmpty(); }
    int IsEmpty() const;

    /// "6ba7b810-9dad-11d1-80b4-00c04fd430c8", if wanted in capitals and in braces.
    CString ToString(int upperCase, int braces) const;
    CString ToString() const override { return ToString(0, 0); }
    /// Reads that form, in any case; braces on either side don't count. Any other text leaves the object invalid.
    void FromString(CString const & text) override;

    /// The 32 digits of the 16 bytes as they lie in memory, the lower half of each byte first.
    CString ToMSIComponentID() const;
    /// The inverse; 0, with the object as it was, for anything but 32 digits.
    int FromMSIComponentID(CString const & text);

    /// By the four numbers in turn, without signs: -1, 0 or 1.
    virtual int Compare(CUniqueID const & other) const;
    bool operator<(CUniqueID const & other) const { return Compare(other) < 0; }
    bool operator==(CUniqueID const & other) const { return Compare(other) == 0; }

    /// The 16 bytes.
    void Serialize(CArchive & archive) override;

    operator GUID() const { return m_guid; }
    operator CString() const { return ToString(); }

private:
    GUID m_guid{};
};
