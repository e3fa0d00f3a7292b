// Writes to the service's database and reads it:  example_sql_client nt_pipe:people

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/platform/Terminal.h"
#include "kvx/sql/SqlCommand.h"

#include <cstdio>

namespace
{
// The results are checked in one place: what failed is told.
CMsgResults Checked(CMsgResults results)
{
    if (results.Failed())
    {
        std::fprintf(stderr, "error: %s\n", kvx::ToUtf8(results.GetErrorText()).c_str());
    }
    return results;
}

void Print(LPCTSTR title, CMsgResults rows)
{
    std::printf("%s\n", kvx::ToUtf8(title).c_str());
    while (rows.NextRow())
    {
        std::printf("  %s, born %s\n", kvx::ToUtf8(rows[_T("name")]).c_str(), kvx::ToUtf8(rows[_T("born")]).c_str());
    }
}
} // namespace

int main(int argc, char ** argv)
{
    auto const args = kvx::GetProgramArguments(argc, argv);
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    if (args.size() != 1 || !dispatcher.RegisterProvider(_T("there"), _T("forward:") + kvx::FromUtf8(args[0]), 1))
    {
        std::fputs("Tell me where the service is, for example nt_pipe:people\n", stderr);
        return 1;
    }
    CSqlCommand people(_T("there.db"), 1); // each statement begins without values
    Checked(people.Execute(CString(_T("create table if not exists people(name text primary key, born integer)"))));

    // Values that the application makes go into the statement, quoted.
    people[_T("name")] = _T("Grace O'Malley");
    people[_T("born")] = 1530;
    Checked(people.InsertOrReplace(_T("people")));
    people[_T("born")] = 1815;
    people[_T("name")] = _T("Ada Lovelace");
    Checked(people.InsertOrReplace(_T("people")));

    // Those that a user types go beside it, whatever they are.
    people[_T(":name")] = _T("Robert'); drop table people; --");
    people[_T(":born")] = _T("NULL");
    Checked(people.ExecuteWithValues(_T("insert or replace into people values(:name, :born)")));

    Print(_T("All:"), Checked(people.Select(_T("people"), _T("name, born"), _T(""), _T("name"))));
    people[_T("born")] = 1815;
    Print(_T("Of 1815:"), Checked(people.Select(_T("people"), _T("name, born"))));

    CMsgResults const wrong = people.Select(_T("nowhere"), _T("*"));
    std::printf("%s\n", kvx::ToUtf8(wrong.GetErrorText()).c_str());
    return 0;
}
