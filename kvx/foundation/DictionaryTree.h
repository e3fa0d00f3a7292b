#pragma once

/// A tree of dictionaries, addressed by paths of node names.

#include "kvx/foundation/Dictionary.h"

#include <vector>

class CStringTokenizer;

/// Each node owns its children and a dictionary of values. A path is resolved from the node on which the call is made
/// and split at that node's separator; a null or empty path is the node itself. Names are case-sensitive. A child that
/// a path creates has the default separator, and an empty name: its name is its key in the parent. Threads: no lock.
class KVX_API CDictionaryTree : public CObject
{
    DECLARE_SERIAL(CDictionaryTree)

public:
    /// A null separator is the default one, a backslash.
    explicit CDictionaryTree(LPCTSTR separator = nullptr) : CDictionaryTree(nullptr, separator) {}
    CDictionaryTree(LPCTSTR name, LPCTSTR separator);
    CDictionaryTree(CDictionaryTree const & other) : CObject() { Copy(other); }
    ~CDictionaryTree() override { RemoveAll(); }

    CDictionaryTree & operator=(CDictionaryTree const & other)
    {
        Copy(other);
        return *this;
    }
    /// Name, separator, values and children; what was here goes. `other` may stand in this tree, or this node in the
    /// tree of `other`: the copy has what `other` held before.
    void Copy(CDictionaryTree const & other);

    /// Finds or creates each step.
    CDictionaryTree * CreateChild(LPCTSTR path);
    CDictionaryTree * CreateChild(CStringTokenizer & path);
    /// Null if a step is missing.
    CDictionaryTree * FindChild(LPCTSTR path) const;
    CDictionaryTree * FindChild(CStringTokenizer & path) const;
    int GetChildCount() const { return static_cast<int>(m_children.GetCount()); }
    POSITION GetStartChildPosition() const { return m_children.GetStartPosition(); }
    void GetNextChild(POSITION & pos, CString & key) const;
    void GetNextChild(POSITION & pos, CString & key, CDictionaryTree *& child) const;

    /// Empty if the path or the name is missing.
    CStringValue GetValue(LPCTSTR name, LPCTSTR path = nullptr) const;
    /// Creates the path.
    void SetValue(LPCTSTR name, CStringValue const & value, LPCTSTR path = nullptr);
    /// Creates the path.
    CDictionary & GetValues(LPCTSTR path) { return CreateChild(path)->m_values; }
    CDictionary const & GetValues() const { return m_values; }
    /// A missing path leaves `target` as it is.
    void GetValues(CDictionary & target, LPCTSTR path) const;
    /// Creates the path, and replaces the values there.
    void SetValues(CDictionary const & values, LPCTSTR path = nullptr) { CreateChild(path)->m_values = values; }
    operator CDictionary &() { return m_values; }
    operator CDictionary const &() const { return m_values; }
    CDictionary & operator[](LPCTSTR path) { return GetValues(path); }
    CDictionary operator[](LPCTSTR path) const;

    int GetValueCount() const { return m_values.GetValueCount(); }
    POSITION GetStartValuePosition() const { return m_values.GetStartValuePosition(); }
    void GetNextValue(POSITION & pos, CString & name, CString & value) const
    {
        m_values.GetNextValue(pos, name, value);
    }

    CString const & GetName() const { return m_strName; }
    void SetName(LPCTSTR name) { m_strName = name; }

    /// Deletes the children; the node's own values stay.
    void RemoveAll();

    /// Children, values and separator, not the name; loading adds to the values and replaces the children. Errors: the
    /// archive's exceptions, in both directions also for a tree that is deeper than objects of an archive may nest.
    void Serialize(CArchive & archive) override;

private:
    CString m_strName;
    CString m_strSeparator;
    CMapStringToOb m_children{10};
    CDictionary m_values;
    bool m_bTaken = false; // while loading: it has a parent, or is being loaded

    void CopyTree(CDictionaryTree const & other);
    void LoadChild(CArchive & archive);
    void TakeChildren(std::vector<CDictionaryTree *> & nodes);
};
