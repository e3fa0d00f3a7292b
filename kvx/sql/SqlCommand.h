#pragma once

/// Statements of SQL, built from named values and sent as requests to a provider that runs them.
///
///     CSqlCommand people(_T("there.db"), 1);
///     people[_T("name")] = _T("O'Hara");
///     CMsgResults found = people.Select(_T("people"), _T("id, born"), _T(""), _T("born"));
///
/// The provider's command is PROVIDER.exec_sql, with the text in the parameter "sql".

#include "kvx/foundation/Dictionary.h"
#include "kvx/msgdata/MsgResults.h"

class COleDateTime;
class CTime;

/// Names of tables, columns and parameters, conditions and orders are put into statements as they are: they must come
/// from the application, never from its users. Values are quoted (FormatValue), by a rule that keeps most of them:
///
/// | value                                    | what is sent       | what a column of type TEXT then holds |
/// |------------------------------------------|--------------------|---------------------------------------|
/// | empty                                    | '' or no column    | empty; the default                    |
/// | NULL in any case                         | NULL               | no value                              |
/// | "NULL" in any case, in double quotes     | "NULL"             | NULL as a text, where double quotes   |
/// |                                          |                    | are taken for it; else an error       |
/// | digits alone                             | 007                | 7: leading zeros go, and from 2^63 on |
/// |                                          |                    | it is a floating-point number         |
/// | a 0 in it                                | as it is           | an error: a statement ends there      |
/// | half of a surrogate pair                 | as it is           | an error                              |
/// | anything else: -1, 4.2, O'Hara, lines    | 'O''Hara'          | the same                              |
///
/// Whoever has other values, or needs to tell NULL from an empty text, calls ExecuteWithValues, which sends them beside
/// the statement.
///
/// Nothing here fails: what is wrong comes back as code and text of the results. Threads: one at a time.
class KVX_API CSqlCommand
{
public:
    /// With `autoReset` the parameters are dropped as soon as a statement has been built from them; without it they are
    /// there for the next one, as its condition for example.
    CSqlCommand(CString const & provider, int autoReset) : m_bAutoReset(autoReset), m_strProvider(provider) {}
    CSqlCommand(CSqlCommand const &) = default;
    CSqlCommand & operator=(CSqlCommand const &) = default;
    virtual ~CSqlCommand() = default;

    /// Created empty if it is missing.
    CStringValue & operator[](LPCTSTR name) { return m_params[name]; }
    /// 0, and nothing is stored, for an empty value that isn't allowed. The second form takes the value of that name.
    int SetParam(LPCTSTR name, CStringValue const & value, int allowEmpty);
    int SetParam(LPCTSTR name, CValueAccessor const & source, int allowEmpty);
    /// All values of the source, or those whose names the list has, which is split at ",".
    void SetParams(CValueAccessor const & source);
    void SetParams(LPCTSTR names, CValueAccessor const & source);
    int RemoveParam(LPCTSTR name) { return m_params.RemoveValue(name); }
    int RenameParam(LPCTSTR oldName, LPCTSTR newName) { return m_params.RenameValue(oldName, newName); }
    void ResetParams() { m_params.RemoveAll(); }
    CValueAccessor const & GetParams() const { return m_params; }
    CString const & GetProvider() const { return m_strProvider; }
    int IsAutoReset() const { return m_bAutoReset; }
    void SetAutoReset(int autoReset) { m_bAutoReset = autoReset; }

    // The parameters are columns, in the order of their first insertion. With `textOnly` nothing is sent: the statement
    // is the value "sql" of the results.

    /// Without a condition the parameters that aren't empty are one: equal, all of them. `order` is what stands behind
    /// "order by".
    CMsgResults Select(CString const & table, CString const & columns, CString where = CString(),
                       CString orderBy = CString());
    /// An empty value is no column.
    CMsgResults Insert(CString const & table, int textOnly = 0);
    CMsgResults InsertOrReplace(CString const & table, int textOnly = 0);
    /// Here an empty value is assigned. Without a condition, or with a null pointer, all rows are changed.
    CMsgResults Update(CString const & table, CString const & where, int textOnly = 0);
    CMsgResults Update(CString const & table, CValueAccessor const * whereValues, int textOnly = 0);
    /// The parameters are the condition. Without any, or with empty ones alone, this empties the table.
    CMsgResults Delete(CString const & table, int textOnly = 0);

    /// Formats and sends, whether there are arguments or not: a "%" of the statement's own is written "%%". A format
    /// that can't be carried out is error 87, and nothing is sent.
    template <class... T>
    CMsgResults Execute(LPCTSTR format, T const &... values)
    {
        return ExecuteFormat(format, FormatArgStore<sizeof...(T)>(values...));
    }
    /// Sends the text as it is, with no value but those in it.
    CMsgResults Execute(CString const & statement);
    /// Sends the text with the parameters beside it, each under its name: a provider that takes values puts them in the
    /// places of the statement that bear it, ":born" (which is the whole name: `people[_T(":born")]`), or "p1" for the
    /// first "?". There every value is itself.
    CMsgResults ExecuteWithValues(CString const & statement);
    /// Any command of the provider, with the parameters as those of the request.
    CMsgResults Call(CString const & procedure);

    static CString FormatValue(CStringValue value);
    /// "2024-02-29 13:05:00". A point in time is written in local time.
    static void TimeToString(CTime const & time, CString & text);
    static void TimeToString(COleDateTime const & time, CString & text);
    /// Non-zero if the text begins with such six numbers; else the time stays as it was. What comes behind, a fraction
    /// say, doesn't count. A CTime raises CInvalidArgException * for numbers that make none, a COleDateTime is invalid.
    static int StringToTime(CString const & text, CTime & time);
    static int StringToTime(CString const & text, COleDateTime & time);

protected:
    /// Leaves a phrase that isn't empty; else it becomes the equality of the values that aren't, null for the
    /// command's own.
    void BuildConditionPhrase(CString & phrase, CValueAccessor const * values);

private:
    int m_bAutoReset;
    CString m_strProvider;
    CDictionary m_params;

    CMsgResults Finish(CString const & statement, int textOnly);
    CMsgResults InsertBy(LPCTSTR format, CString const & table, int textOnly);
    CMsgResults ExecuteFormat(LPCTSTR format, FormatArgs const & args);
    CMsgResults Send(CMsgRequest & request, LPCTSTR command);
};
