#include "tests/support/Raised.h"
#include "tests/transport/MemoryStream.h"

#include "kvx/foundation/Dictionary.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/msgdata/MsgTable.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace
{
POSITION Row(INT_PTR number)
{
    return reinterpret_cast<POSITION>(number);
}

template <class T>
std::string Bytes(T & data)
{
    CMemoryStream stream;
    EXPECT_TRUE(data.Write(stream));
    return stream.ToHex();
}

CStringValue & Cell(CMsgRowSet & rows, INT_PTR number, LPCTSTR column)
{
    POSITION row = Row(number);
    return rows.GetData(row, CString(column));
}
} // namespace

TEST(RowSet, BehavesAsAModelOfSparseCells)
{
    std::mt19937 random(2);
    for (int const range : {40, 5000, 60000})
    {
        CMsgRowSet rows;
        std::map<std::pair<CString, int>, CString> model;
        DWORD count = 0;
        std::map<void const *, std::pair<CString, int>> places; // cells keep their addresses
        for (int i = 0; i < 4000; ++i)
        {
            CString const column(static_cast<WCHAR>('a' + random() % 3));
            int const number = 1 + static_cast<int>(random() % static_cast<unsigned>(range));
            CStringValue & cell = Cell(rows, number, column);
            ASSERT_EQ(cell, (model[{column, number}]));
            ASSERT_EQ(places.emplace(&cell, std::pair(column, number)).first->second, std::pair(column, number));
            cell = i;
            model[{column, number}] = CStringValue(i);
            count = std::max(count, static_cast<DWORD>(number));
            ASSERT_EQ(rows.GetRowCount(), count);
        }
        CMsgRowSet copy(rows);
        CMsgRowSet read;
        CMemoryStream stream;
        ASSERT_TRUE(rows.Write(stream) && read.Read(stream));
        EXPECT_EQ(Bytes(copy), Bytes(rows));
        EXPECT_EQ(Bytes(read), Bytes(rows));
        for (auto const & [place, text] : model)
        {
            ASSERT_EQ(Cell(copy, place.second, place.first), text);
            ASSERT_EQ(Cell(read, place.second, place.first), text);
        }
    }
}

TEST(RowSet, GrowsByTouchingCells)
{
    CMsgRowSet rows(_T("r"));
    EXPECT_EQ(rows.GetFirstRowPosition(), nullptr);
    POSITION row = nullptr;
    rows.GetData(row, CString(_T("a"))) = _T("1");
    EXPECT_EQ(row, Row(1));
    EXPECT_EQ(rows.AppendRow(), Row(2));
    Cell(rows, 7, _T("a"));
    EXPECT_EQ(rows.GetRowCount(), 7u);
    EXPECT_EQ(Cell(rows, 5, _T("a")), _T(""));
    EXPECT_TRUE(rows.IsValidRowPosition(Row(7)) && !rows.IsValidRowPosition(Row(8)) &&
                !rows.IsValidRowPosition(nullptr));
    int visited = 0;
    for (rows.GetNextRowPosition(row = nullptr); row; rows.GetNextRowPosition(row))
    {
        ++visited;
    }
    EXPECT_EQ(visited, 7);
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { Cell(rows, -1, _T("a")); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { Cell(rows, INT_PTR{1} << 31, _T("a")); }));
    row = Row(1);
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { rows.GetData(row, 1); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { rows.GetData(row, -1); }));

    // The number of rows has an end.
    Cell(rows, INT_MAX, _T("a"));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { rows.AppendRow(); }));
    EXPECT_EQ(rows.GetRowCount(), static_cast<DWORD>(INT_MAX));
}

TEST(RowSet, MissingAndEmptyCellsAreWrittenAlike)
{
    CMsgRowSet rows(_T("r"));
    rows.AddColumn(_T("c"));
    rows.AppendRow();
    rows.AppendRow();
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_EQ(Bytes(rows), Hex("00000001 7200 00000002 00000001 00000001 6300 00000002 00000000 00000000"));
        Cell(rows, 2, _T("c"));
    }
    // Rows that a column has beyond the head's count are kept, and show when the row set grows.
    CMemoryStream stream;
    stream.SetHex("00000000 00000001 00000001 00000001 6300 00000002 00000001 6100 00000001 6200");
    ASSERT_TRUE(rows.Read(stream));
    EXPECT_EQ(rows.GetRowCount(), 1u);
    rows.AppendRow();
    EXPECT_EQ(Cell(rows, 2, _T("c")), _T("b"));
}

TEST(RowSet, ColumnsComeAndGo)
{
    CMsgRowSet rows;
    POSITION row = rows.AppendRow();
    for (LPCTSTR const name : {_T("a"), _T("b"), _T("c")})
    {
        rows.SetData(row, name, name);
    }
    EXPECT_EQ(rows.AddColumn(_T("b")), 3);
    EXPECT_EQ(rows.RemoveColumn(_T("x")) + rows.RenameColumn(_T("x"), _T("y")), 0);
    EXPECT_TRUE(rows.RemoveColumn(_T("a")));
    EXPECT_EQ(rows.GetColumnName(0) + rows.GetData(row, 1), _T("bc"));
    EXPECT_TRUE(rows.RenameColumn(_T("b"), _T("B")));
    EXPECT_TRUE(rows.HasData(_T("B")) && !rows.HasData(_T("b")));
    EXPECT_EQ(rows.GetData(row, 0), _T("b"));

    // A column whose name is taken stays in its place.
    EXPECT_TRUE(rows.RenameColumn(_T("B"), _T("c")));
    EXPECT_EQ(rows.GetColumnCount(), 1);
    EXPECT_EQ(Cell(rows, 1, _T("c")) + rows.GetData(row, 1), _T("bc"));
    EXPECT_TRUE(rows.RemoveColumn(_T("c")));
    EXPECT_EQ(rows.GetRowCount(), 1u);
    EXPECT_EQ(rows.GetData(row, 0), _T("c"));

    rows.RemoveAllColumns();
    EXPECT_EQ(rows.GetRowCount(), 1u);
    rows.AddColumn(_T("late"));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { (void)rows.GetColumnName(0); }));
    EXPECT_EQ(rows.GetColumnName(1), _T("late"));
    EXPECT_TRUE(rows.RemoveColumn(_T("late")));
    rows.RemoveAll();
    rows.AddColumn(_T("new"));
    EXPECT_EQ(rows.GetColumnName(0), _T("new"));

    // Many are found as few are, while their number goes up and down.
    for (int round = 0; round < 2; ++round)
    {
        rows.RemoveAll();
        for (int i = 0; i < 12; ++i)
        {
            rows.SetData(nullptr, CStringValue(i), i);
        }
        EXPECT_TRUE(rows.RenameColumn(_T("3"), _T("three")) && rows.RenameColumn(_T("5"), _T("4")));
        for (LPCTSTR const gone : {_T("0"), _T("7"), _T("8"), _T("9"), _T("10"), _T("4")})
        {
            EXPECT_TRUE(rows.RemoveColumn(gone) && !rows.HasData(gone));
        }
        rows.SetData(nullptr, _T("7"), _T("again"));
        EXPECT_EQ(Cell(rows, 1, _T("three")) + Cell(rows, 1, _T("11")) + Cell(rows, 1, _T("7")), _T("311again"));
        EXPECT_EQ(rows.GetColumnCount(), 6);
    }
}

TEST(RowSet, RowsAsValues)
{
    CMsgRowSet rows;
    CAttributeSet values;
    values[_T("x")] = 1;
    values[_T("y")] = 2;
    POSITION row = nullptr;
    rows.SetRow(row, values);
    rows.AddColumn(_T("z"));
    CAttributeSet out;
    rows.GetRow(row = nullptr, out);
    EXPECT_EQ(out.ToString(0, _T(" ")), _T("x=1 y=2 z="));
    CMsgRowSet copy;
    copy.AddColumn(_T("gone"));
    EXPECT_TRUE(copy.CopyRows(rows) == 3 && copy.CopyRows(copy) == 3);
    EXPECT_EQ(Bytes(copy), Bytes(rows));
}

TEST(RowSet, HasTheBytesOfATable)
{
    std::mt19937 random(4);
    for (int round = 0; round < 20; ++round)
    {
        CMsgRowSet rows(_T("t"));
        CMsgTable table(_T("t"));
        auto const count = random() % 70;
        for (unsigned i = 0; i < count; ++i)
        {
            rows.AppendRow();
            table.AppendRow();
        }
        for (unsigned i = 0; i < count * 2; ++i)
        {
            CString const column(static_cast<WCHAR>('a' + random() % 5));
            POSITION const row = Row(1 + random() % count);
            CStringValue const value = static_cast<int>(random() % 3) - 1;
            rows.SetData(row, column, value);
            table.SetData(row, column, value);
        }
        EXPECT_EQ(Bytes(rows), Bytes(table));
        CMemoryStream stream;
        CMsgTable again;
        ASSERT_TRUE(rows.Write(stream) && again.Read(stream));
        EXPECT_EQ(Bytes(again), Bytes(table));
    }
}

TEST(DataSet, ReadsOverTheCellsThatItHas)
{
    LONG rows = 100;
    CMsgDataSet column(rows, 0, _T("c"));
    CMsgDataSet other(rows, 0, _T("other"));
    auto const at = [](CMsgDataSet & target, INT_PTR number) -> CStringValue &
    {
        POSITION row = Row(number);
        return target.GetData(row);
    };
    at(column, 2) = _T("keep");
    CStringValue const & cell = at(column, 3) = _T("replace");
    at(other, 3) = _T("new");
    at(other, 90) = _T("more");
    CMemoryStream stream(1, 4096);
    ASSERT_TRUE(other.Write(stream) && other.Write(stream) && column.Read(stream) && column.Read(stream));
    EXPECT_EQ(column.GetName(), _T("other"));
    EXPECT_EQ(cell, _T("new"));
    CMsgDataSet const & read = column;
    EXPECT_EQ(read.GetData(Row(2)), _T("keep"));
    EXPECT_EQ(read.GetData(Row(90)), _T("more"));
    EXPECT_EQ(read.GetData(Row(91)), _T(""));
}

TEST(MultipleRowSets, ListsByReference)
{
    kvx::RefPtr<CMsgMultipleRowSets> const list(new CMsgMultipleRowSets);
    EXPECT_TRUE(list->IsEmpty() && list->Find(_T("")) == nullptr && list->IsEmpty());
    kvx::RefPtr<CMsgRowSet> const shared(new CMsgRowSet(_T("Name")));
    list->Append(shared.Get());
    list->Append(shared.Get());
    list->Append(_T("name"));
    EXPECT_EQ(shared->GetRef(), 3u);
    POSITION pos = list->Find(_T("NAME"));
    EXPECT_EQ(list->GetAt(pos), shared.Get());
    kvx::RefPtr<CMsgMultipleRowSets> const other(new CMsgMultipleRowSets(*list)); // deep
    other->Append(list.Get());                                                    // shared
    *other = *list;
    other->Copy(*other);
    EXPECT_EQ(other->GetRowSetCount(), 18);
    EXPECT_EQ(shared->GetRef(), 5u);
    EXPECT_TRUE(list->Remove(shared.Get(), &pos) && pos);
    EXPECT_TRUE(list->Remove(_T("nAME"), nullptr));
    EXPECT_FALSE(list->Remove(shared.Get(), &pos));
    EXPECT_EQ(pos, nullptr);
    list->RemoveAll();
    other->RemoveAll();
    EXPECT_EQ(shared->GetRef(), 1u);
    pos = nullptr;
    list->GetNextPosition(pos); // the first, made for this
    EXPECT_EQ(pos, list->GetFirstPosition());
    EXPECT_EQ(list->GetRowSetCount(), 1);
    list->GetNextPosition(pos);
    EXPECT_EQ(pos, nullptr);
    CMemoryStream stream;
    stream.Write(DWORD{0});
    EXPECT_TRUE(list->Read(stream) && list->IsEmpty());
    stream.SetHex("00000002 00000000 00000000 00000000"); // the second is missing
    EXPECT_FALSE(list->Read(stream));
    EXPECT_EQ(list->GetRowSetCount(), 1);
}
