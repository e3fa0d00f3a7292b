#include "kvx/sql/SqlCommand.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/platform/mfc/OleDateTime.h"
#include "kvx/platform/mfc/Time.h"

#include "tests/support/Raised.h"

#include <gtest/gtest.h>

namespace
{
/// A provider that answers with the request's parameters, and the last part of the command.
class SqlCommand : public testing::Test
{
protected:
    CSqlCommand m_command{_T("echo"), 0};

    static void SetUpTestSuite() { CMsgDispatcher::GetInstance()->RegisterProvider(_T("echo"), &Echo, nullptr); }
    static void Echo(CMsgRequest & request, void *)
    {
        request.SetHandled(1);
        CDictionary answer(request);
        answer[_T("command")] = request.GetCommand();
        request.SetResponseValues(answer);
    }
    static std::string Sql(CMsgResults results) { return kvx::ToUtf8(CString(results[_T("sql")])); }
};
} // namespace

TEST_F(SqlCommand, BuildsStatements)
{
    EXPECT_EQ(Sql(m_command.Delete(_T("t"))), "delete from t");
    m_command[_T("name")] = _T("O'Hara");
    m_command[_T("age")] = 42;
    m_command[_T("size")] = _T("4.2");
    m_command[_T("none")] = _T("");
    EXPECT_EQ(Sql(m_command.Select(_T("t"), _T("a,b"))),
              "select a,b from t where name='O''Hara' and age=42 and size='4.2'");
    EXPECT_EQ(Sql(m_command.Select(_T("t"), _T("*"), _T("x like '%d'"), _T("a"))),
              "select * from t where x like '%d' order by a");
    EXPECT_EQ(Sql(m_command.Insert(_T("t"))), "insert into t (name,age,size) values ('O''Hara',42,'4.2')");
    EXPECT_EQ(Sql(m_command.InsertOrReplace(_T("t"))),
              "insert or replace into t (name,age,size) values ('O''Hara',42,'4.2')");
    m_command.RemoveParam(_T("name"));
    EXPECT_EQ(Sql(m_command.Delete(_T("t"))), "delete from t where age=42 and size='4.2'");
    EXPECT_EQ(Sql(m_command.Update(_T("t"), _T("k=1"))), "update t set age=42,size='4.2',none='' where k=1");
    CDictionary where;
    where[_T("k")] = -1;
    where[_T("l")] = _T("");
    EXPECT_EQ(Sql(m_command.Update(_T("t"), &where)), "update t set age=42,size='4.2',none='' where k='-1'");
    EXPECT_EQ(Sql(m_command.Update(_T("t"), nullptr)), "update t set age=42,size='4.2',none=''");
    EXPECT_EQ(Sql(CSqlCommand(_T("echo"), 0).Select(_T("t"), _T("a"), _T(""), _T("b desc"))),
              "select a from t order by b desc");
}

TEST_F(SqlCommand, QuotesValuesByItsRule)
{
    for (auto const & [value, text] :
         {std::pair(_T(""), _T("''")), std::pair(_T("null"), _T("null")), std::pair(_T("\"Null\""), _T("\"Null\"")),
          std::pair(_T("007"), _T("007")), std::pair(_T("1.0"), _T("'1.0'")), std::pair(_T("1e5"), _T("'1e5'")),
          std::pair(_T("'"), _T("''''")), std::pair(_T("\uFF11"), _T("'\uFF11'")),
          std::pair(_T("NULLS"), _T("'NULLS'"))})
    {
        EXPECT_EQ(CSqlCommand::FormatValue(value), text);
    }
}

TEST_F(SqlCommand, SendsAndResets)
{
    CDictionary source;
    source[_T("a")] = 1;
    source[_T("b")] = _T("");
    CSqlCommand command(_T("echo"), 1);
    EXPECT_EQ(command.SetParam(_T("b"), source, 0), 0);
    command.SetParams(_T("a,c"), source);
    EXPECT_EQ(command.GetParams().GetValueCount(), 2);
    EXPECT_EQ(Sql(command.Update(_T("t"), CString(), 1)), "update t set a=1,c=''"); // not sent
    EXPECT_EQ(command.GetParams().GetValueCount(), 0);

    command.SetParams(source);
    CMsgResults results = command.Execute(_T("select %s, '%%' from t where a=%d"), CString(_T("%x")), 5);
    EXPECT_EQ(Sql(results), "select %x, '%' from t where a=5");
    EXPECT_EQ(results[_T("command")], _T("echo.exec_sql"));
    EXPECT_FALSE(results.HasValue(_T("a"))); // the values are all in the text
    EXPECT_EQ(Sql(command.Execute(CString(_T("like '%d'")))), "like '%d'");
    results = command.Execute(_T("like '%d'"));
    EXPECT_EQ(results.GetErrorCode(), DWORD{ERROR_INVALID_PARAMETER});

    command.SetParams(source);
    results = command.ExecuteWithValues(_T("select :a"));
    EXPECT_EQ(Sql(results), "select :a");
    EXPECT_EQ(results[_T("a")], _T("1"));
    command.SetParams(source);
    results = command.Call(_T("do.it"));
    EXPECT_EQ(results[_T("command")], _T("echo.do.it"));
    EXPECT_EQ(results[_T("a")], _T("1"));
    EXPECT_EQ(command.GetParams().GetValueCount(), 0);
    EXPECT_TRUE(CSqlCommand(_T("nobody"), 0).Execute(CString(_T("x"))).Failed());
}

TEST_F(SqlCommand, TimesAreTexts)
{
    CString text;
    CTime time(2024, 2, 29, 13, 5, 0);
    CSqlCommand::TimeToString(time, text);
    EXPECT_EQ(text, _T("2024-02-29 13:05:00"));
    CTime read;
    EXPECT_TRUE(CSqlCommand::StringToTime(_T(" 2024-2-29  13:5:0.987"), read));
    EXPECT_TRUE(read == time);
    EXPECT_FALSE(CSqlCommand::StringToTime(_T("2024-02-29T13:05:00"), read));
    EXPECT_FALSE(CSqlCommand::StringToTime(_T("2024-02-29 13:05"), read));
    EXPECT_TRUE(read == time);
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { CSqlCommand::StringToTime(_T("1899-02-29 13:05:00"), read); }));

    COleDateTime date;
    for (LPCTSTR const given : {_T("1899-12-29 06:00:00"), _T("2000-02-29 23:59:59"), _T("0100-01-01 00:00:00"),
                                _T("9999-12-31 23:59:59"), _T("1900-01-01 12:34:56")})
    {
        EXPECT_TRUE(CSqlCommand::StringToTime(given, date));
        EXPECT_EQ(date.GetStatus(), COleDateTime::valid);
        CSqlCommand::TimeToString(date, text);
        EXPECT_EQ(text, given);
    }
    EXPECT_EQ(COleDateTime(1899, 12, 29, 6, 0, 0).m_dt, -1.25);
    EXPECT_EQ(COleDateTime(36526.5).Format(_T("%F %H %j %a")), _T("2000-01-01 12 001 Sat"));
    EXPECT_TRUE(CSqlCommand::StringToTime(_T("2023-02-29 00:00:00"), date));
    CSqlCommand::TimeToString(date, text);
    EXPECT_EQ(text, _T("Invalid DateTime"));
    date.SetStatus(COleDateTime::null);
    CSqlCommand::TimeToString(date, text);
    EXPECT_TRUE(text.IsEmpty());
    EXPECT_FALSE(CSqlCommand::StringToTime(_T("x"), date));
    EXPECT_EQ(date.GetStatus(), COleDateTime::null); // left as it was
}
