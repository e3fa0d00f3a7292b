#pragma once

/// A named table of text cells: what requests and responses carry. Column by column in memory, sparse, so that a row is
/// only a number. On the wire every cell of every column is a text: one in row 2,000,000 of 3,000 columns makes 24 GB.

#include "kvx/foundation/AutoDelete.h"
#include "kvx/foundation/RefCounter.h"
#include "kvx/foundation/ValueAccessor.h"
#include "kvx/msgdata/MsgColumns.h"
#include "kvx/msgdata/MsgDataSet.h"

class CMsgStream;
class CXmlElement;

namespace tinyxml2
{
class XMLElement;
}

/// A row POSITION is the row's number, from 1; null is none. Column names are case-sensitive; a column's ordinal counts
/// from 0, and reading a name that doesn't exist through GetData, SetData or SetRow adds the column.
///
/// Errors: CInvalidArgException * for an ordinal out of range, a position that is no row number, or a row too many.
/// Names that don't exist give 0. Threads: one at a time; the reference count may be used by several, and Write too.
class KVX_API CMsgRowSet : public CRefObject, public CAutoDelete
{
public:
    explicit CMsgRowSet(LPCTSTR name = nullptr);
    CMsgRowSet(CMsgRowSet const & other);
    CMsgRowSet & operator=(CMsgRowSet const &) = delete;
    ~CMsgRowSet() override;
    operator CMsgRowSet *() { return this; }
    operator CMsgRowSet const *() const { return this; }

    CString const & GetName() const { return m_strName; }
    void SetName(LPCTSTR name) { m_strName = name; }
    DWORD GetRowCount() const { return static_cast<DWORD>(m_nRows); }
    int GetColumnCount() const { return m_columns.GetCount(); }
    CString GetColumnName(int ordinal) const { return m_columns.At(ordinal).GetName(); }

    /// The column count, not the ordinal; an existing column stays as it is.
    int AddColumn(LPCTSTR name);
    int RemoveColumn(LPCTSTR name);
    /// Over a column that has the new name: that one can then be reached by its ordinal alone, and neither counts nor
    /// travels.
    int RenameColumn(LPCTSTR oldName, LPCTSTR newName);
    /// No rows, no columns.
    void RemoveAll();
    /// Deletes the columns alone: the row count stays, and ordinals go on counting from where they were.
    void RemoveAllColumns() { m_columns.RemoveColumns(); }

    POSITION AppendRow();
    POSITION GetFirstRowPosition() const { return m_nRows != 0 ? kvx::RowPosition(1) : nullptr; }
    /// The next row; the first one from null, null behind the last.
    void GetNextRowPosition(POSITION & pos) const { pos = kvx::NextRow(pos, m_nRows); }
    int IsValidRowPosition(POSITION pos) const { return kvx::IsRow(pos, m_nRows); }

    /// The cell, created if it is missing; null is replaced by the first row, and a row beyond the end extends the row
    /// set.
    CStringValue & GetData(POSITION & pos, int ordinal)
    {
        CMsgDataSet & column = m_columns.At(ordinal);
        if (!pos)
        {
            pos = GetFirstRowPosition();
        }
        return column.GetData(pos);
    }
    CStringValue & GetData(POSITION & pos, CString const & column);
    void SetData(POSITION pos, LPCTSTR column, CStringValue const & value) { GetData(pos, CString(column)) = value; }
    /// Whether the column exists.
    int HasData(LPCTSTR column) const { return m_columns.Find(column) != nullptr; }
    /// Copies a row's values out, and creates its missing cells.
    void GetRow(POSITION & pos, CValueAccessor & target) const;
    /// Copies values in, adding columns.
    void SetRow(POSITION & pos, CValueAccessor const & source);

    /// Becomes a deep copy; the number of columns.
    int CopyRows(CMsgRowSet const & source);

    /// The wire form: docs/wire-protocol.md.
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
    CMsgDataSet * GetDataSet(LPCTSTR name) { return GetDataSet(CString(name)); }
    CMsgDataSet * GetDataSet(CString const & name);

private:
    LONG m_nRows = 0;
    kvx::MsgColumns<CMsgDataSet> m_columns;
    CString m_strName;
};
