#include "tests/support/Raised.h"
#include "tests/transport/MemoryStream.h"

#include "kvx/foundation/Dictionary.h"
#include "kvx/msgdata/MsgTable.h"

#include <gtest/gtest.h>

namespace
{
POSITION Row(INT_PTR number)
{
    return reinterpret_cast<POSITION>(number);
}
} // namespace

TEST(Table, CellsComeIntoBeingWhenTouched)
{
    CMsgTable table(_T("t"));
    CMsgTable const & constant = table;
    POSITION row = nullptr;
    EXPECT_EQ(table.GetFirstRowPosition(), nullptr);
    table.AddColumn(_T("a"));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { table.GetData(row, 0); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { (void)table.HasData(nullptr, 0); }));
    table.AppendRow();
    table.AppendRow();
    table.GetNextRowPosition(row);
    EXPECT_EQ(row, Row(1));
    table.GetNextRowPosition(row);
    table.GetNextRowPosition(row);
    EXPECT_EQ(row, nullptr);
    EXPECT_EQ(&constant.GetData(nullptr, 0), &constant.GetData(Row(2), 0)); // the shared empty value
    EXPECT_FALSE(table.HasData(Row(1), 0));
    table.GetData(row, 0);
    EXPECT_EQ(row, Row(1));
    EXPECT_TRUE(table.HasData(Row(1), _T("a")));
    EXPECT_FALSE(table.HasData(Row(1), _T("b")));
    table.SetData(Row(2), _T("b"), 5); // a new column widens every row
    EXPECT_EQ(table.GetColumnOrdinal(_T("b")), 1);
    EXPECT_EQ(table.GetRowData(Row(1)).GetSize(), 2);
    EXPECT_EQ(table.AddColumn(_T("a")), 2);
    EXPECT_EQ(table.GetColumnOrdinal(_T("A")), -1);
    for (auto const & place : {std::pair(3, 0), std::pair(-1, 0), std::pair(1, 2), std::pair(1, -1)})
    {
        int const number = place.first; // a lambda can't capture a structured binding everywhere
        int const ordinal = place.second;
        EXPECT_TRUE(Raises<CInvalidArgException>([&] { table.SetData(Row(number), ordinal, 1); }));
        EXPECT_TRUE(Raises<CInvalidArgException>([&] { (void)constant.GetData(Row(number), ordinal); }));
    }
}

TEST(Table, ColumnsComeAndGo)
{
    CMsgTable table;
    POSITION row = table.AppendRow();
    for (LPCTSTR const name : {_T("a"), _T("b"), _T("c"), _T("d")})
    {
        table.SetData(row, name, name);
    }
    EXPECT_TRUE(table.RemoveColumn(_T("b")));
    EXPECT_FALSE(table.RemoveColumn(_T("b")));
    EXPECT_EQ(table.GetColumnName(1) + table.GetData(row, 1), _T("cc"));
    EXPECT_EQ(table.GetColumnOrdinal(_T("d")), 2);
    EXPECT_TRUE(table.RenameColumn(_T("a"), _T("c"))); // over another
    EXPECT_EQ(table.GetColumnCount(), 2);
    EXPECT_EQ(table.GetColumnOrdinal(_T("c")), 0);
    EXPECT_EQ(table.GetData(row, 1), _T("c"));
    EXPECT_FALSE(table.RenameColumn(_T("x"), _T("y")));

    table.RemoveAll();
    EXPECT_EQ(table.GetColumnCount() + static_cast<int>(table.GetRowCount()), 0);
    row = table.AppendRow();
    table.SetData(row, _T("new"), 1);
    EXPECT_EQ(table.GetColumnOrdinal(_T("new")), 3); // ordinals go on counting
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { (void)table.GetColumnName(0); }));
    EXPECT_TRUE(table.RemoveColumn(_T("new")));
}

TEST(Table, CopiesLoseTheColumnsOwnNames)
{
    CMsgTable table(_T("t"));
    CAttributeSet values;
    values[_T("a")] = 1;
    values[_T("b")] = _T("");
    POSITION row = table.AppendRow();
    table.SetRow(row, values);
    table.AppendRow();
    CMsgTable copy(table);
    EXPECT_EQ(copy.GetName() + copy.GetColumnName(0), _T("t"));
    EXPECT_EQ(copy.GetColumnOrdinal(_T("b")), 1);
    EXPECT_TRUE(copy.HasData(Row(1), 1) && !copy.HasData(Row(2), 1));
    CDictionary out;
    copy.GetRow(row = nullptr, out);
    EXPECT_EQ(out.ToString(0, _T(" ")), _T("a=1 b="));

    // An empty cell is a missing one behind the wire.
    CMemoryStream stream;
    CMsgTable read;
    ASSERT_TRUE(copy.Write(stream) && read.Read(stream));
    EXPECT_TRUE(read.HasData(Row(1), 0) && !read.HasData(Row(1), 1));
    EXPECT_EQ(read.GetColumnName(1), _T("b"));
}

TEST(Table, FailedReadsKeepWholeColumns)
{
    CMsgTable table;
    CMemoryStream stream;
    stream.SetHex("00000000 00000001 00000002 00000001 6100 00000001 00000001 3100 00000001 6200 00000001");
    EXPECT_FALSE(table.Read(stream));
    EXPECT_EQ(table.GetColumnCount(), 1);
    EXPECT_EQ(table.GetColumnOrdinal(_T("a")), 0);
    stream.SetHex("00000000 00000001 00000001 00000001 6100 00000002 00000000 00000001 3100");
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { table.Read(stream); })); // more cells than rows
}
