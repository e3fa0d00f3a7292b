#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/msgdata/MsgMultipleTables.h"
#include "kvx/xml/XmlDocument.h"

#include <gtest/gtest.h>

namespace
{
template <class S, class M>
void GoesThroughXml()
{
    S source(_T("people"));
    source.AddColumn(_T("name"));
    source.AddColumn(_T("age"));
    POSITION pos = source.AppendRow();
    source.SetData(pos, _T("name"), _T("Ann & <Bob>"));
    pos = source.AppendRow();
    source.SetData(pos, _T("age"), 7);

    M sources;
    sources.Append(new S(source));
    sources.Append(LPCTSTR{});
    CXmlDocument document(_T("data"));
    sources.ToXml(document.GetRoot());
    M().ToXml(document.GetRoot());
    document.GetRoot()->GetChild()->CreateChild(_T("!"), 1);
    EXPECT_EQ(document.ToString(), "<data><ROWSET name=\"people\"><!----><ROW name=\"Ann &amp; &lt;Bob&gt;\" age=\"\"/>"
                                   "<ROW name=\"\" age=\"7\"/></ROWSET><ROWSET/></data>");
    CXmlDocument read;
    read.FromString(document.ToString());
    M lists;
    lists.Append(_T("kept"));
    EXPECT_EQ(lists.FromXml(read.GetRoot()), 1);
    EXPECT_EQ(lists.GetCount(), 3);
    pos = lists.Find(_T("people"));
    S & target = *lists.GetAt(pos);
    EXPECT_EQ(target.FromXml(read.GetRoot()->GetChild()->GetNext()), 1); // has no name and no rows
    EXPECT_EQ(target.FromXml(read.GetRoot()->GetChild()), 1);
    EXPECT_EQ(target.GetName(), _T("people"));
    EXPECT_EQ(target.GetRowCount(), 4u);
    EXPECT_EQ(target.GetColumnName(1), _T("age"));
    POSITION row = reinterpret_cast<POSITION>(INT_PTR{3});
    EXPECT_EQ(target.GetData(row, CString(_T("name"))), _T("Ann & <Bob>"));
}
} // namespace

TEST(XmlForm, KeepsTablesAndRowSets)
{
    GoesThroughXml<CMsgTable, CMsgMultipleTables>();
    GoesThroughXml<CMsgRowSet, CMsgMultipleRowSets>();
}
