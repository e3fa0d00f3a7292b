#include "Output.h"

#include "CommandLine.h"
#include "DisplayText.h"

#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/platform/Terminal.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace
{
std::vector<CMsgRowSet *> ListRowSets(CMsgMultipleRowSets const & rowSets)
{
    std::vector<CMsgRowSet *> list;
    if (!rowSets.IsEmpty())
    {
        for (POSITION pos = rowSets.GetFirstPosition(); pos; rowSets.GetNextPosition(pos))
        {
            list.push_back(rowSets.GetAt(pos));
        }
    }
    return list;
}

template <class F>
void ForEachRow(CMsgRowSet & rows, F const & visit)
{
    for (POSITION pos = rows.GetFirstRowPosition(); pos; rows.GetNextRowPosition(pos))
    {
        visit(pos);
    }
}

/// As the last member of an object, which it ends.
void WriteJsonRowSets(StandardOutput & out, CMsgMultipleRowSets const & rowSets)
{
    out << ",\"rowsets\":[";
    std::string_view nextSet;
    for (CMsgRowSet * const rows : ListRowSets(rowSets))
    {
        out << nextSet << "{\"name\":";
        out << ToJson(rows->GetName());
        out << ",\"columns\":[";
        int const columns = rows->GetColumnCount();
        for (int i = 0; i < columns; ++i)
        {
            out << (i > 0 ? "," : "");
            out << ToJson(rows->GetColumnName(i));
        }
        out << "],\"rows\":[";
        std::string_view nextRow;
        ForEachRow(*rows,
                   [&](POSITION pos)
                   {
                       out << nextRow << "[";
                       for (int i = 0; i < columns; ++i)
                       {
                           out << (i > 0 ? "," : "");
                           out << ToJson(rows->GetData(pos, i));
                       }
                       out << "]";
                       nextRow = ",";
                   });
        out << "]}";
        nextSet = ",";
    }
    out << "]}\n";
}

void WriteJson(StandardOutput & out, CMsgResponse const & response)
{
    out << "{\"code\":" << std::to_string(response.GetErrorCode()) << ",\"text\":";
    out << ToJson(response.GetErrorText());
    WriteJsonRowSets(out, response.GetRowSets());
}

using Params = std::map<std::string, CString>;

void WriteEventJson(StandardOutput & out, CMsgRequest const & event, Params const & params)
{
    out << "{\"event\":";
    out << ToJson(event.GetCommand());
    out << ",\"params\":{";
    std::string_view next;
    for (auto const & [name, value] : params)
    {
        out << next;
        out << ToJson(kvx::FromUtf8(name));
        out << ":";
        out << ToJson(value);
        next = ",";
    }
    out << "}";
    bool const bSane = CountClaimedCells(*event.GetExParams()) <= CELL_LIMIT;
    WriteJsonRowSets(out, bSane ? *event.GetExParams() : CMsgMultipleRowSets());
}

std::string ToCsvField(CString const & text, bool bAlone)
{
    static bool const s_bTerminal = kvx::IsTerminal(kvx::StandardStream::Output);
    std::string const field = s_bTerminal ? ToDisplay(text, Escaped::AllButLines).strText : kvx::ToUtf8(text);
    // The only field of a record is quoted when it is empty: the line would be taken for no record at all.
    if (field.find_first_of(",\"\r\n") == std::string::npos && !(bAlone && field.empty()))
    {
        return field;
    }
    std::string quoted = "\"";
    for (char const c : field)
    {
        quoted.append(c == '"' ? 2 : 1, c);
    }
    return quoted + '"';
}

void WriteCsv(StandardOutput & out, CMsgResponse const & response)
{
    std::string_view between;
    for (CMsgRowSet * const rows : ListRowSets(response.GetRowSets()))
    {
        out << between;
        between = "\r\n";
        int const columns = rows->GetColumnCount();
        if (columns == 0)
        {
            continue;
        }
        for (int i = 0; i < columns; ++i)
        {
            out << (i > 0 ? "," : "") << ToCsvField(rows->GetColumnName(i), columns == 1);
        }
        out << "\r\n";
        ForEachRow(*rows,
                   [&](POSITION pos)
                   {
                       for (int i = 0; i < columns; ++i)
                       {
                           out << (i > 0 ? "," : "") << ToCsvField(rows->GetData(pos, i), columns == 1);
                       }
                       out << "\r\n";
                   });
    }
}

bool IsNumber(std::string_view text)
{
    if (text.starts_with('-'))
    {
        text.remove_prefix(1);
    }
    return text.find_first_not_of("0123456789.") == std::string_view::npos && !text.empty() && text != ".";
}

struct Column
{
    DisplayText title;
    int nWidth = 0;
    bool bNumbers = false; // then it is aligned to the right
};

std::vector<Column> MeasureColumns(CMsgRowSet & rows)
{
    std::vector<Column> columns(static_cast<std::size_t>(rows.GetColumnCount()));
    for (int i = 0; Column & column : columns)
    {
        column.title = ToStdout(rows.GetColumnName(i));
        column.nWidth = column.title.nWidth;
        bool bTexts = false;
        ForEachRow(rows,
                   [&](POSITION pos)
                   {
                       DisplayText const cell = ToStdout(rows.GetData(pos, i));
                       column.nWidth = std::max(column.nWidth, cell.nWidth);
                       if (!cell.strText.empty())
                       {
                           (IsNumber(cell.strText) ? column.bNumbers : bTexts) = true;
                       }
                   });
        column.bNumbers = column.bNumbers && !bTexts;
        ++i;
    }
    return columns;
}

void WriteTableRows(StandardOutput & out, CMsgRowSet & rows, int terminalWidth)
{
    std::vector<Column> const columns = MeasureColumns(rows);
    std::string line;
    auto const addCell = [&](Column const & column, DisplayText const & cell)
    {
        if (&column != &columns.front())
        {
            line += "  ";
        }
        auto const padding = static_cast<std::size_t>(column.nWidth - cell.nWidth);
        line.append(column.bNumbers ? padding : 0, ' ');
        line += cell.strText;
        line.append(column.bNumbers ? 0 : padding, ' ');
    };
    auto const endLine = [&]
    {
        line.erase(line.find_last_not_of(' ') + 1);
        out << (terminalWidth > 0 ? CutToWidth(line, terminalWidth) : line) << "\n";
        line.clear();
    };
    for (Column const & column : columns)
    {
        addCell(column, column.title);
    }
    endLine();
    for (Column const & column : columns)
    {
        addCell(column, {std::string(static_cast<std::size_t>(column.nWidth), '-'), column.nWidth});
    }
    endLine();
    ForEachRow(rows,
               [&](POSITION pos)
               {
                   for (int i = 0; Column const & column : columns)
                   {
                       addCell(column, ToStdout(rows.GetData(pos, i++)));
                   }
                   endLine();
               });
}

void WriteTables(StandardOutput & out, CMsgResponse const & response)
{
    int const terminalWidth = kvx::GetTerminalWidth();
    std::vector<CMsgRowSet *> const rowSets = ListRowSets(response.GetRowSets());
    std::string_view between;
    for (CMsgRowSet * const rows : rowSets)
    {
        out << between;
        between = "\n";
        if (rowSets.size() > 1)
        {
            std::string const name = ToStdout(rows->GetName()).strText;
            out << (name.empty() ? "(no name)" : name) << ":\n";
        }
        if (rows->GetColumnCount() > 0)
        {
            WriteTableRows(out, *rows, terminalWidth);
        }
    }
}
} // namespace

void AddFormatOption(CLI::App & command, Format & format)
{
    AddChoice<Format>(command, "--format", format, "How it is shown",
                      {{"table", Format::Table}, {"json", Format::Json}, {"csv", Format::Csv}});
}

ULONGLONG CountClaimedCells(CMsgMultipleRowSets const & rowSets)
{
    ULONGLONG cells = 0;
    for (CMsgRowSet const * const rows : ListRowSets(rowSets))
    {
        cells += ULONGLONG{rows->GetRowCount()} * static_cast<ULONGLONG>(std::max(1, rows->GetColumnCount()));
    }
    return cells;
}

int PrintResponse(CMsgResponse & response, Format format)
{
    ULONGLONG const cells = CountClaimedCells(response.GetRowSets());
    if (cells > CELL_LIMIT)
    {
        response.SetError(ERROR_NOT_ENOUGH_MEMORY, _T("The response claims %I64u cells, which is too many to show"),
                          cells);
        response.ResetRowSets();
    }
    StandardOutput out;
    switch (format)
    {
    case Format::Line:
    case Format::Table:
        WriteTables(out, response);
        break;
    case Format::Json:
        WriteJson(out, response);
        break;
    case Format::Csv:
        WriteCsv(out, response);
        break;
    }
    Written const written = out.Finish();
    if (response.Failed())
    {
        ReportError(response.GetErrorCode(), response.GetErrorText());
        return 1;
    }
    return ReportWritten(written);
}

Written PrintEvent(CMsgRequest const & event, Format format)
{
    Params params; // in the order of their names: that of the sender is lost on the way
    CString name;
    CString value;
    for (POSITION pos = event.GetStartParamPosition(); pos;)
    {
        event.GetNextParam(pos, name, value);
        params.emplace(kvx::ToUtf8(name), value);
    }
    StandardOutput out;
    if (format == Format::Json)
    {
        WriteEventJson(out, event, params);
        return out.Finish();
    }
    out << ToStdout(event.GetCommand()).strText;
    for (auto const & [key, text] : params)
    {
        out << " " << ToStdout(kvx::FromUtf8(key)).strText << "=" << ToStdout(text).strText;
    }
    out << "\n";
    return out.Finish();
}
