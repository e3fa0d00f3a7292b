#pragma once

/// A named table of text cells, row by row in memory: the row set's face and wire form (MsgRowSet.h) over another
/// storage.

#include "kvx/foundation/AutoDelete.h"
#include "kvx/foundation/RefCounter.h"
#include "kvx/foundation/ValueAccessor.h"
#include "kvx/msgdata/MsgColumns.h"

class CMsgStream;
class CMsgTable;
class CXmlElement;

namespace tinyxml2
{
class XMLElement;
}

/// A column's name and place.
class KVX_API CMsgTableColumn : public CObject
{
public:
    CMsgTableColumn(CMsgTable * table, int ordinal, LPCTSTR name)
        : m_strName(name), m_nOrdinal(ordinal), m_pTable(table)
    {
    }

    CString const & GetName() const { return m_strName; }
    void SetName(CString const & name) { m_strName = name; }
    int GetOrdinal() const { return m_nOrdinal; }
    void SetOrdinal(int ordinal) { m_nOrdinal = ordinal; }
    CMsgTable * GetTable() const { return m_pTable; }

private:
    CString m_strName;
    int m_nOrdinal;
    CMsgTable * m_pTable;
};

/// A row POSITION is the row's number, from 1; null is none. Rows are never removed singly, so positions stay valid.
///
/// Ordinals after RemoveAll go on counting from where they were, and CopyRows gives columns without names of their own:
/// a table is filled once, by hand, by Read or by CopyRows.
///
/// Errors: CInvalidArgException * for a row or an ordinal out of range. Names that don't exist give 0 or -1.
/// Threads: one at a time; the reference count may be used by several.
class KVX_API CMsgTable : public CRefObject, public CAutoDelete
{
public:
    explicit CMsgTable(LPCTSTR name = nullptr);
    CMsgTable(CMsgTable const & other);
    CMsgTable & operator=(CMsgTable const &) = delete;
    ~CMsgTable() override;
    operator CMsgTable *() { return this; }
    operator CMsgTable const *() const { return this; }

    CString const & GetName() const { return m_strName; }
    void SetName(LPCTSTR name) { m_strName = name; }
    DWORD GetRowCount() const { return m_nRows; }
    int GetColumnCount() const { return m_columns.GetCount(); }
    CString GetColumnName(int ordinal) const { return m_columns.At(ordinal).GetName(); }
    /// -1 if there is no such column.
    int GetColumnOrdinal(LPCTSTR name) const;

    /// The column count, not the ordinal; an existing column stays as it is.
    int AddColumn(LPCTSTR name);
    int RemoveColumn(LPCTSTR name);
    /// Over a column that has the new name: that one stays in its place, without a name to reach it by.
    int RenameColumn(LPCTSTR oldName, LPCTSTR newName);
    void RemoveAllColumns() { RemoveAll(); }
    void RemoveAll();

    POSITION AppendRow();
    POSITION GetFirstRowPosition() const;
    /// The next row; the first one from null, null behind the last.
    void GetNextRowPosition(POSITION & pos) const;
    int IsValidRowPosition(POSITION pos) const;

    /// The cell, created if it is missing; null is replaced by the first row. By name, an unknown column is added.
    CStringValue & GetData(POSITION & pos, int ordinal);
    CStringValue & GetData(POSITION & pos, CString const & column);
    /// The cell, or the shared empty value.
    CStringValue const & GetData(POSITION pos, int ordinal) const;
    void SetData(POSITION pos, int ordinal, CStringValue const & value) { GetData(pos, ordinal) = value; }
    void SetData(POSITION pos, LPCTSTR column, CStringValue const & value) { GetData(pos, CString(column)) = value; }
    /// Whether that cell exists; a null position is an error here.
    int HasData(POSITION pos, int ordinal) const;
    int HasData(POSITION pos, LPCTSTR column) const;
    /// Whether the column exists.
    int HasData(LPCTSTR column) const { return m_columns.Find(column) != nullptr; }
    void GetRow(POSITION & pos, CValueAccessor & target) const;
    void SetRow(POSITION & pos, CValueAccessor const & source);
    /// The row's cells by ordinal, CStringValue pointers that the table owns, null where there is no cell.
    CPtrArray & GetRowData(POSITION pos);

    /// Becomes a copy; the number of columns. Data goes by ordinal and names by map order.
    int CopyRows(CMsgTable const & source);

    /// The wire form: docs/wire-protocol.md. A column with more rows than the table raises CInvalidArgException *.
    int Read(CMsgStream & stream);
    int Write(CMsgStream & stream) const;

    /// XML of the one shape <ROWSET name=""><ROW column="value"/></ROWSET>: ToXml adds a ROWSET to the element, FromXml
    /// takes the element for one whatever its name, adds its rows, and gives 1. Cells that don't exist become empty,
    /// columns without rows are lost, and column names must be names in XML for the text to be readable again. On
    /// tinyxml2's elements a value ends at its first 0, and what UTF-8 can't hold, a lone surrogate, becomes U+FFFD. A
    /// CR comes back from what ToStringA or XMLDocumentKVX print, not from tinyxml2's own printing; and the time of a
    /// row grows with the square of its number of columns.
    void ToXml(CXmlElement * parent) const;
    int FromXml(CXmlElement const * rowSet);
    void ToXml(tinyxml2::XMLElement * parent) const;
    int FromXml(tinyxml2::XMLElement const * rowSet);

protected:
    /// The column of that name, created if it is missing.
    CMsgTableColumn * GetDataSet(LPCTSTR name);

private:
    DWORD m_nRows = 0;
    kvx::MsgColumns<CMsgTableColumn> m_columns;
    // Rows with cells, by index: a row is made when it is first written to, so that a row count that came over a wire
    // costs nothing.
    CPtrArray m_rows;
    CString m_strName;

    CMsgTableColumn & AddColumn(CString const & key, LPCTSTR name);
    INT_PTR CheckedRow(POSITION pos) const;
    void CheckOrdinal(int ordinal) const;
    CStringValue * FindCell(INT_PTR row, int ordinal) const;
    CPtrArray & RowAt(INT_PTR row);
    CStringValue & CellAt(INT_PTR row, int ordinal);
    void DeleteRows();
};
