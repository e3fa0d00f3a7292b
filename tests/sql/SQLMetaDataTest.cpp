#include "kvx/sql/SQLMetaData.h"

#include <gtest/gtest.h>

namespace
{
using tinyxml2::XMLElement;

class CWriter : public CSQLMetaData
{
public:
    explicit CWriter(char const * xml) : CSQLMetaData(nullptr, xml) {}

    std::string strDone;
    int nView = 1;

    int ReadCurrentStructure() override { return CSQLMetaData::ReadCurrentStructure(); }
    int CreateTable(XMLElement * element, CString const &) override { return Note('t', element, 1); }
    int CreateIndex(XMLElement * element, CString const &) override { return Note('i', element, 1); }
    int CreateView(XMLElement * element, CString const &) override { return Note('v', element, nView); }

private:
    int Note(char what, XMLElement * element, int result)
    {
        strDone += what;
        strDone += element->Attribute("n");
        return result;
    }
};
} // namespace

TEST(SqlMetaData, OffersTheElementsOfAnApplicationInOrder)
{
    CWriter writer("<db><view n='1'/><TABLE n='2' application_specific='Mail,News'/><!--c--><Table n='3' "
                   "application_specific=''/><index n='4' application_specific='News'/></db>");
    EXPECT_TRUE(writer.IsXMLMetaDataSet());
    EXPECT_EQ(writer.Initialize(_T("")), 1);
    EXPECT_EQ(std::exchange(writer.strDone, {}), "v1t3");
    EXPECT_EQ(writer.Initialize(_T("ew")), 1); // any part of the attribute
    EXPECT_EQ(std::exchange(writer.strDone, {}), "v1t2t3i4");
    EXPECT_EQ(writer.Initialize(_T("mail")), 1);
    EXPECT_EQ(std::exchange(writer.strDone, {}), "v1t3");
    writer.nView = 2;
    EXPECT_EQ(writer.Initialize(_T("Mail")), 0); // the failure doesn't end it
    EXPECT_EQ(writer.strDone, "v1t2t3");
    EXPECT_TRUE(writer.SetMetaXML("<db><TRIGGER/></db>"));
    EXPECT_EQ(writer.Initialize(_T("")), 0);
    for (char const * const empty : {"", "<db/>", "<db><table></db>"})
    {
        writer.SetMetaXML(empty);
        EXPECT_FALSE(writer.IsXMLMetaDataSet());
        EXPECT_EQ(writer.Initialize(_T("")), 0);
    }
}
