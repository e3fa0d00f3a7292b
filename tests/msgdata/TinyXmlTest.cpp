#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/msgdata/MsgMultipleTables.h"
#include "kvx/xml/XMLDocumentKVX.h"

#include "tests/support/KeptLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{
template <class T>
class RowsAsXml : public testing::Test
{
};
using Kinds = testing::Types<CMsgRowSet, CMsgTable>;
TYPED_TEST_SUITE(RowsAsXml, Kinds);

template <class T>
std::string Written(T const & source)
{
    tinyxml2::XMLDocumentKVX document("r");
    source.ToXml(document.RootElement());
    return tinyxml2::ToStringA(&document).GetString();
}
} // namespace

TYPED_TEST(RowsAsXml, GoThereAndBack)
{
    TypeParam rows(_T("näme"));
    POSITION row = rows.AppendRow();
    rows.SetData(row, _T("a"), _T("<\"&'>"));
    row = rows.AppendRow();
    rows.SetData(row, _T("ü"), _T("\r2\n3\r\n"));
    std::string const text = "<r><ROWSET name=\"näme\"><ROW a=\"&lt;&quot;&amp;&apos;&gt;\" ü=\"\"/><ROW a=\"\" "
                             "ü=\"&#13;2\n3&#13;\n\"/></ROWSET></r>";
    EXPECT_EQ(Written(rows), text);

    KeptLog log;
    tinyxml2::XMLDocumentKVX document;
    ASSERT_EQ(document.Parse(text.c_str()), tinyxml2::XML_SUCCESS);
    TypeParam back(_T("other"));
    back.SetData(back.AppendRow(), _T("b"), _T("kept"));
    EXPECT_EQ(back.FromXml(document.RootElement()->FirstChildElement()), 1);
    EXPECT_THAT(log.Take(), testing::ElementsAre("I Imported rowset näme (3)"));
    EXPECT_EQ(back.GetColumnName(2), _T("ü"));
    row = nullptr;
    back.GetNextRowPosition(row);
    EXPECT_EQ(back.GetData(row, 0), _T("kept"));
    back.GetNextRowPosition(row);
    EXPECT_EQ(back.GetData(row, 1), _T("<\"&'>"));
    back.GetNextRowPosition(row);
    EXPECT_EQ(back.GetData(row, 2), _T("\r2\n3\r\n"));

    document.Parse("<any><x b='1'/><!-- no row --><y/></any>");
    TypeParam any;
    EXPECT_EQ(any.FromXml(document.RootElement()), 1);
    EXPECT_EQ(any.GetRowCount(), 2u);
    EXPECT_EQ(any.FromXml(static_cast<tinyxml2::XMLElement *>(nullptr)), 1);
    EXPECT_EQ(Written(TypeParam()), "<r><ROWSET/></r>");
}

TEST(ListsAsXml, GoThereAndBack)
{
    CMsgMultipleRowSets sets;
    EXPECT_EQ(Written(sets), "<r/>");
    EXPECT_TRUE(sets.IsEmpty());
    sets.Append(_T("a"));
    sets.Append(_T("b"));
    tinyxml2::XMLDocumentKVX document("r");
    sets.ToXml(document.RootElement());
    CMsgMultipleTables tables;
    tables.Append(_T("kept"));
    EXPECT_EQ(tables.FromXml(document.RootElement()), 1);
    EXPECT_EQ(Written(tables), "<r><ROWSET name=\"kept\"/><ROWSET name=\"a\"/><ROWSET name=\"b\"/></r>");
    EXPECT_EQ(sets.FromXml(document.RootElement()), 1);
    EXPECT_EQ(sets.GetRowSetCount(), 4);
}
