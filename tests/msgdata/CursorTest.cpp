#include "tests/support/Raised.h"

#include "kvx/foundation/Dictionary.h"
#include "kvx/messaging/MsgRequest.h"
#include "kvx/msgdata/MsgResults.h"

#include <gtest/gtest.h>

#include <memory>

namespace
{
/// A cursor on one row set with a row for each letter of the text, in the column c.
void Fill(CMsgCursor & rows, LPCTSTR letters)
{
    for (; *letters; ++letters)
    {
        rows.AppendRow();
        rows[_T("c")] = CString(*letters);
    }
    rows.RestartCurrentRow();
}

CString Letters(CMsgCursor & rows)
{
    CString out;
    for (rows.RestartCurrentRow(); rows.NextRow();)
    {
        out += rows[_T("c")];
    }
    return out;
}
} // namespace

TEST(Cursor, MovesOverRows)
{
    CMsgCursor rows;
    EXPECT_EQ(rows.GetRowSetCount(), 0);
    EXPECT_EQ(rows.GetRowCount(), 0);
    EXPECT_EQ(rows.GetRowSetCount(), 1); // looking made one
    EXPECT_FALSE(rows.FirstRow());
    rows[_T("c")] = _T("x"); // begins the first row
    EXPECT_EQ(rows.GetRowCount(), 1);
    Fill(rows, _T("y"));
    EXPECT_TRUE(rows.NextRow() && rows.NextRow() && !rows.NextRow());
    EXPECT_EQ(rows.GetCurrentRow(), nullptr);
    EXPECT_TRUE(rows.NextRow());
    EXPECT_EQ(rows[0], _T("x"));
    rows.SelectRow(reinterpret_cast<POSITION>(INT_PTR{2}));
    EXPECT_EQ(rows[_T("c")], _T("y"));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { rows[1]; }));

    CMsgCursor copy(rows);
    EXPECT_EQ(copy[_T("c")], _T("y"));
    copy[_T("c")] = _T("z");
    EXPECT_EQ(Letters(rows), _T("xz")); // shared
    rows.RemoveAllRows();
    EXPECT_EQ(rows.GetColumnCount(), 0);
}

TEST(Cursor, IsTheSetOfTheRowsValues)
{
    CMsgCursor rows(CString(_T("name")));
    CAttributeSet values;
    values[_T("b")] = 1;
    values[_T("a")] = 2;
    rows.AppendRow(values);
    values[_T("b")] = 3;
    rows.AppendRow(values);
    rows.RemoveAllValues();
    EXPECT_EQ(rows.GetRowSetName() + rows.ToString(0, _T(",")), _T("nameb=3,a=2"));
    EXPECT_EQ(rows.RenameValue(_T("b"), _T("c")), 1);
    EXPECT_EQ(rows.RemoveValue(_T("a")), 1);
    EXPECT_TRUE(rows.HasValue(_T("c")) && !rows.HasValue(_T("a")));
    CMsgCursor const & constant = rows;
    EXPECT_EQ(constant[_T("none")], _T(""));
    EXPECT_EQ(rows.GetColumnCount(), 1);
    CDictionary out;
    rows.FirstRow();
    rows.GetRowData(out);
    EXPECT_EQ(out.ToString(0, _T(" ")), _T("c=1"));
    POSITION none = nullptr;
    CString name = _T("kept");
    rows.GetNextColumnValue(none, name, name);
    EXPECT_EQ(name, _T("kept"));
}

TEST(Cursor, AppendsRowsOfAnother)
{
    CMsgCursor rows;
    Fill(rows, _T("ab"));
    CMsgCursor source;
    Fill(source, _T("cd"));
    source.FirstRow();
    source[_T("extra")] = 1;
    EXPECT_EQ(rows.AppendRows(source), 1);
    EXPECT_FALSE(source.GetCurrentRow() != nullptr);
    EXPECT_EQ(Letters(rows), _T("abcd"));
    EXPECT_EQ(rows.AppendRows(rows), 1); // only what is there
    CMsgCursor same(rows);
    EXPECT_EQ(rows.AppendRows(same), 1);
    EXPECT_EQ(Letters(rows), _T("abcdabcdabcdabcd"));
}

TEST(Cursor, SelectsRowSets)
{
    CMsgCursor rows;
    CMsgRowSet * const first = rows.AppendRowSet(_T("First"));
    CMsgRowSet * const second = rows.AppendRowSet(_T("Second"));
    Fill(rows, _T("s"));
    rows.NextRow();
    EXPECT_EQ(rows.SelectRowSet(_T("FIRST")), first);
    EXPECT_EQ(rows.GetCurrentRow(), nullptr);
    EXPECT_EQ(rows.NextRowSet(), second);
    EXPECT_EQ(rows.NextRowSet(), nullptr);
    EXPECT_EQ(rows.FirstRowSet(), first);
    EXPECT_TRUE(rows.SelectRowSet(second));
    CMsgRowSet other;
    EXPECT_FALSE(rows.SelectRowSet(&other));
    EXPECT_EQ(rows.CurrentRowSet(), second);
    EXPECT_TRUE(rows.RemoveRowSet(_T("second")));
    EXPECT_EQ(rows.CurrentRowSet(), first);
    EXPECT_TRUE(!rows.RemoveRowSet(_T("second")) && !rows.SelectRowSet(_T("none")));
    EXPECT_EQ(rows.CurrentRowSet(), first);
    rows.AppendRowSets(rows.GetRowSets());
    EXPECT_EQ(rows.GetRowSetCount(), 2);
    rows.RemoveAllRowSets();
    rows.RestartCurrentRowSet();
    EXPECT_TRUE(rows.CurrentRowSet()->GetName().IsEmpty());
}

TEST(Cursor, AssigningLeavesOtherHoldersTheirRows)
{
    CMsgCursor rows;
    Fill(rows, _T("old"));
    CMsgCursor other(rows);
    rows = new CMsgRowSet(_T("new"));
    EXPECT_EQ(Letters(other), _T("old"));
    EXPECT_EQ(rows.GetRowSetName(), _T("new"));
    rows = rows.CurrentRowSet(); // the one that would go
    EXPECT_EQ(rows.GetRowSetName(), _T("new"));
    rows = other;
    CMsgCursor const & same = rows;
    rows = same;
    EXPECT_EQ(rows.GetRowSets(), other.GetRowSets());
    CMsgCursor none(static_cast<CMsgMultipleRowSets *>(nullptr));
    none.AssignRowSet(new CMsgRowSet(_T("x")));
    EXPECT_EQ(none.GetRowSetName(), _T("x"));
}

TEST(Results, OutliveATemporaryResponse)
{
    std::unique_ptr<CMsgResults> results;
    {
        CMsgResponse response;
        response.SetError(5, _T("text"));
        CMsgCursor rows(response);
        Fill(rows, _T("ab"));
        results = std::make_unique<CMsgResults>(response);
    }
    EXPECT_EQ(results->GetErrorCode(), 5u);
    EXPECT_EQ(Letters(*results), _T("ab"));
    EXPECT_TRUE(results->Failed());
    EXPECT_TRUE(Raises<CMsgException>([&] { results->ThrowException(); }));
}

TEST(Results, DetachFromAResponseThatOthersHold)
{
    CMsgRequest request;
    CMsgResults results(request);
    results.SetError(87, _T("bad %d"), 1);
    Fill(results, _T("x"));
    EXPECT_EQ(request.GetResponse().GetErrorText(), _T("bad 1")); // shared so far
    CMsgResults same(results);
    EXPECT_EQ(Letters(same), _T("x"));
    results.AssignRowSet(new CMsgRowSet(_T("new")));
    EXPECT_TRUE(results.Succeeded());
    EXPECT_EQ(results.GetRowSetName(), _T("new"));
    EXPECT_EQ(Letters(same), _T("x"));
    results.CopyErrorInfo(same);
    EXPECT_EQ(results.GetErrorText(), _T("bad 1"));

    CMsgMultipleRowSets local; // nobody counts it: its row sets are shared, itself isn't
    local.Append(_T("local"));
    results.AssignRowSets(&local);
    EXPECT_EQ(results.GetRowSetName(), _T("local"));
    results.AssignRowSets(same.GetRowSets());
    EXPECT_EQ(Letters(results), _T("x"));
    results = same;
    EXPECT_EQ(&results.GetResponse(), &request.GetResponse());
    results = results.GetResponse();
    EXPECT_EQ(request.GetResponse().GetRef(), 3u);
}
