#pragma once

/// The interface of a set of named text values. Requests, dictionaries, attribute sets and cursors implement
/// it; it owns the one text form in which a whole set is written and read.

#include "kvx/foundation/StringValue.h"

/// A set of named values. A position is valid until the set is changed; it is null behind the last value.
/// Threads: none of its own; a set belongs to one thread at a time.
class KVX_API CValueAccessor
{
public:
    CValueAccessor() = default;
    CValueAccessor(CValueAccessor const &) {} // there is nothing of its own to copy
    virtual ~CValueAccessor() = default;

    virtual int HasValue(CString const & name) const = 0;
    virtual int GetValueCount() const = 0;
    /// The value of that name, created empty if it is missing.
    virtual CStringValue & CreateValue(CString const & name) = 0;
    /// Non-zero if a value was removed.
    virtual int RemoveValue(CString const & name) = 0;
    virtual void RemoveAllValues() = 0;
    virtual POSITION GetStartValuePosition() const = 0;
    virtual void GetNextValue(POSITION & pos, CString & name, CString & value) const = 0;
    /// Moves a value to another name, over a value that is there; 0 if `oldName` is missing.
    virtual int RenameValue(CString const & oldName, CString const & newName);
    /// Replaces all values by those of `source`.
    virtual void CopyValues(CValueAccessor const & source);
    /// Adds the values of `source`; existing names are overwritten, others kept.
    virtual void MergeValues(CValueAccessor const & source);
    /// Writes the whole set to the debugger.
    virtual void ShowDebug();

    /// Creates a missing name, also when it is only read; the const form doesn't.
    CStringValue & operator[](CString const & name) { return CreateValue(name); }
    CStringValue operator[](CString const & name) const { return GetValue(name); }

    /// A copy, empty if the name is missing.
    CStringValue GetValue(CString const & name) const;
    /// 0, with `out` untouched, if the name is missing.
    int GetValue(CString const & name, CString & out) const;
    void SetValue(CString const & name, CStringValue const & value) { CreateValue(name) = value; }
    /// Copies the value of that name from another set, empty if it lacks it.
    void SetValue(CString const & name, CValueAccessor const & source) { CreateValue(name) = source[name]; }

    CValueAccessor & operator=(CValueAccessor const & source)
    {
        CopyValues(source);
        return *this;
    }
    CValueAccessor & operator+=(CValueAccessor const & source)
    {
        MergeValues(source);
        return *this;
    }
    operator CValueAccessor *() { return this; }
    operator CValueAccessor const *() const { return this; }

    /// Writes `name=value` pairs joined by `separator`. A value with a blank, or every value with
    /// `forceQuotes`, stands in double quotes, in which `"` is written `\"`. An empty set leaves `out` alone.
    void ToString(CString & out, int forceQuotes, CString const & separator) const;
    CString ToString(int forceQuotes, CString const & separator) const;

    /// Reads blank-separated `name=value` pairs and adds them to the set; values may stand in double or single
    /// quotes. The narrow form is UTF-8.
    void FromString(CString const & text);
    void FromString(CStringA const & text);

protected:
    CString BuildStringValue(CString const & name, CString const & value, int forceQuotes) const;
};
