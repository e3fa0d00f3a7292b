#pragma once

/// Sets of named values: CDictionary, CAttributeSet (which remembers the order of insertion), and the mix-in
/// CPropertyOwner. Names are case-sensitive.

#include "kvx/foundation/ValueAccessor.h"
#include "kvx/foundation/ValueTable.h"

class KVX_API CDictionary : public CObject, public CValueAccessor
{
    DECLARE_SERIAL(CDictionary)

public:
    CDictionary() = default;
    CDictionary(CDictionary const & other) : CDictionary(static_cast<CValueAccessor const &>(other)) {}
    CDictionary(CValueAccessor const & source) { CDictionary::Merge(source); }

    CDictionary & operator=(CDictionary const & other)
    {
        CopyValues(other);
        return *this;
    }
    CDictionary & operator=(CValueAccessor const & source)
    {
        CopyValues(source);
        return *this;
    }
    operator CDictionary *() { return this; }
    operator CDictionary const *() const { return this; }

    int HasValue(CString const & name) const override;
    int GetValueCount() const override { return GetCount(); }
    CStringValue & CreateValue(CString const & name) override;
    int RemoveValue(CString const & name) override;
    void RemoveAllValues() override { m_values.RemoveAll(); }
    POSITION GetStartValuePosition() const override { return ToPosition(m_values.GetFirst()); }
    void GetNextValue(POSITION & pos, CString & name, CString & value) const override;

    int GetCount() const { return m_values.GetCount(); }
    int IsEmpty() const { return GetCount() == 0; }
    POSITION GetStartPosition() const { return GetStartValuePosition(); }
    void RemoveAll() { RemoveAllValues(); }
    void Copy(CDictionary const & other) { CopyValues(other); }
    void Merge(CValueAccessor const & source) { MergeValues(source); }
    /// SetValue without a copy of the text.
    void TakeValue(CString const & name, CString && value) { m_values.FindOrAdd(name).value = std::move(value); }
    /// Room for that many values, to be asked for while there are none; in a pool, if one is given.
    void Reserve(int count, kvx::ObjectPieces * pool = nullptr) { m_values.Reserve(count, pool); }

    /// A count, then each name and value as a byte length and bytes of the ANSI code page. Loading adds to what is
    /// there. Errors: the archive's exceptions.
    void Serialize(CArchive & archive) override;

protected:
    /// Assigns to the name, which is created if it is missing; the stored value, owned by the dictionary.
    virtual CStringValue * InsertValue(CString const & name, CStringValue const & value);

    CStringValue * FindValue(CString const & name) const
    {
        auto * const entry = m_values.Find(name);
        return entry ? &entry->value : nullptr;
    }

private:
    friend class CAttributeSet;

    kvx::ValueTable m_values;

    static POSITION ToPosition(kvx::ValueTable::Entry * entry) { return reinterpret_cast<POSITION>(entry); }
    static kvx::ValueTable::Entry * ToEntry(POSITION pos);
};

/// A dictionary that walks in the order of first insertion. RemoveAllValues empties the values alone: the names stay
/// in the order, and walking gives them with empty texts; RemoveAll forgets both.
class KVX_API CAttributeSet : public CDictionary
{
public:
    CAttributeSet() = default;
    CAttributeSet(CAttributeSet const & other) : CDictionary()
    {
        if (other.GetCount() > 0)
        {
            Reserve(other.GetCount());
        }
        MergeValues(other);
    }

    CAttributeSet & operator=(CAttributeSet const & other)
    {
        CopyValues(other);
        return *this;
    }
    CAttributeSet & operator=(CDictionary const & other)
    {
        CopyValues(other);
        return *this;
    }

    void RemoveAllValues() override { m_values.RemoveValues(); }
    int RenameValue(CString const & oldName, CString const & newName) override;
    using CDictionary::GetNextValue;

    virtual void RemoveAll() { m_values.RemoveAll(); }
    virtual void GetNextValue(POSITION & pos, CString & name, CStringValue & value) const;

    /// Backwards from the last name.
    POSITION GetEndValuePosition() const { return ToPosition(m_values.GetLast()); }
    void GetPrevValue(POSITION & pos, CString & name, CString & value) const;
    void GetPrevValue(POSITION & pos, CString & name, CStringValue & value) const;
};

/// Gives a class a dictionary of named properties.
class KVX_API CPropertyOwner
{
public:
    CPropertyOwner() = default;
    CPropertyOwner(CPropertyOwner const &) = default;
    virtual ~CPropertyOwner() = default;
    CPropertyOwner & operator=(CPropertyOwner const &) = default;

    /// Creates a missing property; the const form gives a copy, empty if it is missing.
    CStringValue & Property(LPCTSTR name) { return m_properties.CreateValue(name); }
    CStringValue Property(LPCTSTR name) const { return m_properties.GetValue(name); }
    CStringValue GetProperty(LPCTSTR name) const { return m_properties.GetValue(name); }
    int HasProperty(LPCTSTR name) const { return m_properties.HasValue(name); }
    int RemoveProperty(LPCTSTR name) { return m_properties.RemoveValue(name); }
    int RenameProperty(LPCTSTR oldName, LPCTSTR newName) { return m_properties.RenameValue(oldName, newName); }
    void SetProperty(LPCTSTR name, CStringValue const & value) { m_properties.CreateValue(name) = value; }
    /// Both replace what the target held.
    void SetProperties(CDictionary const & source) { m_properties.CopyValues(source); }
    void GetProperties(CDictionary & target) const { target.CopyValues(m_properties); }
    void RemoveAllProperties() { m_properties.RemoveAllValues(); }

private:
    CDictionary m_properties;
};
