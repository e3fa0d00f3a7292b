#pragma once

/// A position in a list of row sets: how callers read and build rows. As a CValueAccessor it is the set of the current
/// row's values, by column name.
///
///     CMsgCursor rows(request.GetResponse());
///     while (rows.NextRow())
///         Print(rows[_T("name")]);

#include "kvx/msgdata/MsgMultipleRowSets.h"

class CMsgRequest;
class CMsgResponse;

/// A new cursor stands before the first row of the first row set. The row sets are shared, by one reference.
///
/// Reading a value of a name that doesn't exist adds the column, and reading without a current row begins the first
/// one: a fresh cursor on an empty response is ready to be written to. A column POSITION is the ordinal plus 1.
///
/// Errors: 0 or null, as told at each operation; CInvalidArgException * for a bad ordinal.
/// Threads: one at a time.
class KVX_API CMsgCursor : public CObject, public CValueAccessor
{
public:
    CMsgCursor();
    /// Null leaves the cursor without row sets until it is assigned some.
    CMsgCursor(CMsgMultipleRowSets * rowSets);
    CMsgCursor(CMsgResponse & response);
    CMsgCursor(CMsgRowSet * rowSet);
    /// One new row set of that name.
    CMsgCursor(CString const & name);
    CMsgCursor(CMsgCursor const & other);
    ~CMsgCursor() override;

    CMsgCursor & operator=(CMsgCursor const & other);
    CMsgCursor & operator=(CMsgMultipleRowSets * rowSets);
    CMsgCursor & operator=(CMsgRequest * request);
    CMsgCursor & operator=(CMsgResponse * response);
    CMsgCursor & operator=(CMsgRowSet * rowSet);
    operator CMsgMultipleRowSets *() const { return GetRowSets(); }

    /// Replace the row sets; holders of the old ones keep them.
    virtual void AssignRowSet(CMsgRowSet * rowSet);
    virtual void AssignRowSets(CMsgMultipleRowSets * rowSets);
    /// Empties the list. RestartCurrentRowSet comes before the next use of the cursor.
    virtual void RemoveAllRowSets();
    virtual CMsgMultipleRowSets * GetRowSets() const { return m_pRowSets; }

    // Row sets. All but RemoveAllRowSets leave no current row.
    /// Never null: an empty list gets a row set without a name.
    CMsgRowSet * CurrentRowSet() const;
    CMsgRowSet * FirstRowSet();
    /// Null behind the last.
    CMsgRowSet * NextRowSet();
    CMsgRowSet * SelectRowSet(POSITION pos);
    /// Ignores case; null if there is none.
    CMsgRowSet * SelectRowSet(LPCTSTR name);
    /// 0 if it isn't in the list, and then nothing has changed.
    int SelectRowSet(CMsgRowSet * rowSet);
    CMsgRowSet * AppendRowSet() { return AppendRowSet(LPCTSTR{}); }
    CMsgRowSet * AppendRowSet(LPCTSTR name);
    int AppendRowSet(CMsgRowSet * rowSet);
    void AppendRowSets(CMsgMultipleRowSets * rowSets);
    int RemoveRowSet(CMsgRowSet * rowSet);
    int RemoveRowSet(LPCTSTR name);
    int GetRowSetCount() const { return GetRowSets()->GetRowSetCount(); }
    CString GetRowSetName() const { return CurrentRowSet()->GetName(); }
    void SetRowSetName(CString const & name) { CurrentRowSet()->SetName(name); }
    void RestartCurrentRowSet();

    // Rows of the current row set.
    int FirstRow();
    /// From no row, the first one; 0 behind the last, which leaves no row.
    int NextRow();
    int SelectRow(POSITION pos);
    void RestartCurrentRow() { m_row = nullptr; }
    POSITION GetCurrentRow() const { return m_row; }
    POSITION AppendRow();
    POSITION AppendRow(CValueAccessor const & values);
    /// Appends all rows of the source's current row set, column by name.
    int AppendRows(CMsgCursor & source);
    int GetRowCount() const { return static_cast<int>(CurrentRowSet()->GetRowCount()); }
    /// Takes the columns with it.
    void RemoveAllRows() { CurrentRowSet()->RemoveAll(); }
    void GetRowData(CValueAccessor & target) { CurrentRowSet()->GetRow(m_row, target); }
    void SetRowData(CValueAccessor const & source) { CurrentRowSet()->SetRow(m_row, source); }
    /// Whether the column exists.
    int HasRowData(LPCTSTR column) const { return CurrentRowSet()->HasData(column); }

    // Columns and values.
    int AddColumn(LPCTSTR name) { return CurrentRowSet()->AddColumn(name); }
    int GetColumnCount() const { return CurrentRowSet()->GetColumnCount(); }
    CString GetColumnName(int ordinal) const { return CurrentRowSet()->GetColumnName(ordinal); }
    int RenameColumn(LPCTSTR oldName, LPCTSTR newName) { return CurrentRowSet()->RenameColumn(oldName, newName); }
    CStringValue & operator[](int ordinal) { return CurrentRowSet()->GetData(m_row, ordinal); }
    CStringValue & operator[](CString const & name) { return CreateValue(name); }
    CStringValue operator[](CString const & name) const { return GetValue(name); }
    CStringValue & operator[](LPCTSTR name) { return CreateValue(name); }
    POSITION GetStartColumnPosition() const;
    void GetNextColumnValue(POSITION & pos, CString & name, CString & value) const;

    CStringValue & CreateValue(CString const & name) override { return CurrentRowSet()->GetData(m_row, name); }
    int HasValue(CString const & name) const override { return HasRowData(name); }
    int GetValueCount() const override { return GetColumnCount(); }
    POSITION GetStartValuePosition() const override;
    void GetNextValue(POSITION & pos, CString & name, CString & value) const override;
    /// Remove or rename the column, for all rows.
    int RemoveValue(CString const & name) override { return CurrentRowSet()->RemoveColumn(name); }
    int RenameValue(CString const & oldName, CString const & newName) override
    {
        return RenameColumn(oldName, newName);
    }
    /// Does nothing: a generic clearing of values must not empty a result.
    void RemoveAllValues() override {}

protected:
    void ReleaseRowSets();

private:
    // Walking and looking move a cursor also where the interface of value sets says const.
    mutable POSITION m_row = nullptr;
    mutable POSITION m_rowSet = nullptr;
    CMsgMultipleRowSets * m_pRowSets = nullptr; // one reference, or null where GetRowSets is overridden
};
