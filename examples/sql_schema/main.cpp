// Brings a SQLite database in line with a description in XML, and says what it did:
//     example_sql_schema people.sqlite schema.xml

#include "../sql_service/SqliteProvider.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/platform/Terminal.h"
#include "kvx/sql/SQLMetaData.h"
#include "kvx/sql/SqlCommand.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <set>

using tinyxml2::XMLElement;

class CSchema : public CSQLMetaData
{
public:
    CSchema(CMsgProvider * provider, CStringA const & xml) : CSQLMetaData(provider, xml) {}

    int ReadCurrentStructure() override
    {
        CMsgResults objects = m_command.Select(_T("sqlite_schema"), _T("name"));
        while (objects.NextRow())
        {
            m_objects.insert(Lower(objects[_T("name")]));
        }
        CMsgResults columns = m_command.Select(_T("sqlite_schema t join pragma_table_info(t.name) c"),
                                               _T("t.name as tab, c.name as col"), _T("t.type='table'"));
        while (columns.NextRow())
        {
            m_columns.insert(Lower(columns[_T("tab")] + _T(".") + columns[_T("col")]));
        }
        return objects.Succeeded() && columns.Succeeded();
    }

    int CreateTable(XMLElement * element, CString const &) override
    {
        CString const table = Attribute(element, "name");
        bool const bNew = !Has(table);
        CString list;
        int result = 1;
        for (XMLElement * at = element->FirstChildElement("COLUMN"); at; at = at->NextSiblingElement("COLUMN"))
        {
            CString const column = Attribute(at, "name") + _T(" ") + Attribute(at, "type");
            if (bNew)
            {
                list += (list.IsEmpty() ? _T("") : _T(", ")) + column;
            }
            else if (!m_columns.contains(Lower(table + _T(".") + Attribute(at, "name"))))
            {
                result &= Run(_T("alter table ") + table + _T(" add column ") + column);
            }
        }
        return bNew ? Run(_T("create table ") + table + _T("(") + list + _T(")")) : result;
    }

    int CreateIndex(XMLElement * element, CString const &) override
    {
        CString const name = Attribute(element, "name");
        return Has(name) || Run(_T("create index ") + name + _T(" on ") + Attribute(element, "table") + _T("(") +
                                Attribute(element, "columns") + _T(")"));
    }

    int CreateView(XMLElement * element, CString const &) override
    {
        CString const name = Attribute(element, "name");
        return Has(name) || Run(_T("create view ") + name + _T(" as ") + CUtilities::MB2T(element->GetText(), CP_UTF8));
    }

private:
    CSqlCommand m_command{_T("db"), 1};
    std::set<std::string> m_objects;
    std::set<std::string> m_columns; // "table.column"

    static std::string Lower(CString text) { return kvx::ToUtf8(text.MakeLower()); }
    static CString Attribute(XMLElement * element, char const * name)
    {
        return CUtilities::MB2T(element->Attribute(name), CP_UTF8);
    }
    bool Has(CString const & object) const { return m_objects.contains(Lower(object)); }
    int Run(CString const & statement)
    {
        CMsgResults const results = m_command.Execute(statement);
        std::printf("%s: %s\n", kvx::ToUtf8(statement).c_str(),
                    results.Failed() ? kvx::ToUtf8(results.GetErrorText()).c_str() : "done");
        return results.Succeeded() ? 1 : 0;
    }
};

int main(int argc, char ** argv)
{
    auto const args = kvx::GetProgramArguments(argc, argv);
    auto * const provider = args.size() == 2 ? new CSqliteProvider(args[0]) : nullptr;
    if (!provider || !CMsgDispatcher::GetInstance()->RegisterProvider(_T("db"), provider, 1))
    {
        std::fputs("Tell me the database and its description, for example people.sqlite schema.xml\n", stderr);
        return 1;
    }
    std::ifstream file(args[1]);
    std::string const xml{std::istreambuf_iterator<char>(file), {}};
    CSchema schema(provider, xml.c_str());
    if (!schema.IsXMLMetaDataSet() || !schema.Initialize(_T("Accounts")))
    {
        std::fputs("The database isn't as it should be.\n", stderr);
        return 1;
    }
    std::puts("The database is as it should be.");
    return 0;
}
