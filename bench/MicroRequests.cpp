/// Requests and rows within one process.

#include "MicroReport.h"
#include "Services.h"
#include "TableTexts.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/msgdata/MsgCursor.h"

#include <array>
#include <benchmark/benchmark.h>
#include <functional>
#include <memory>
#include <unordered_map>

namespace
{
using namespace bench;

constexpr int ROWS = 10;
constexpr int COLUMNS = 4;

int g_nCalls = 0;

void Count(CMsgRequest &, void *)
{
    ++g_nCalls;
}

void OurExecute(benchmark::State & state)
{
    CMsgRequest request;
    request.SetCommand(_T("bench.table.get"));
    FillTableRequest(request, ROWS, COLUMNS);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(request.Execute().Succeeded());
    }
}

void BareCall(benchmark::State & state)
{
    std::unordered_map<std::string, std::function<void(int &)>> functions;
    for (char const * const name : {"bench.table.put", "bench.table.get", "bench.list.put", "bench.list.get"})
    {
        functions[name] = [](int & calls) { ++calls; };
    }
    std::string command = "bench.table.get";
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(command);
        functions.find(command)->second(g_nCalls);
        benchmark::DoNotOptimize(g_nCalls);
    }
}

/// The texts of a table, as programs have them: ready ones that are copied into the cells.
template <class TEXT>
struct Texts
{
    std::array<std::array<TEXT, COLUMNS>, ROWS> cells;

    Texts()
    {
        for (int row = 0; row < ROWS; ++row)
        {
            for (int column = 0; column < COLUMNS; ++column)
            {
                cells[static_cast<std::size_t>(row)][static_cast<std::size_t>(column)] =
                    TEXT(std::u16string_view(CellText(row, column)));
            }
        }
    }
    TEXT const & At(int row, int column) const
    {
        return cells[static_cast<std::size_t>(row)][static_cast<std::size_t>(column)];
    }
};

/// Where the cells' texts come from: ready texts, or characters that have to be copied.
struct ReadyOurs
{
    Texts<CString> texts;
    CString const & At(int row, int column) const { return texts.At(row, column); }
};
struct ReadyStandard
{
    Texts<std::u16string> texts;
    std::u16string const & At(int row, int column) const { return texts.At(row, column); }
};
struct Characters
{
    Texts<std::u16string> texts;
    LPCTSTR At(int row, int column) const { return texts.At(row, column).c_str(); }
};

template <class SOURCE>
void OurCells(benchmark::State & state)
{
    SOURCE const source;
    for (auto _ : state)
    {
        CMsgRowSet table;
        for (int column = 0; column < COLUMNS; ++column)
        {
            table.AddColumn(ColumnName(column).data());
        }
        for (int row = 0; row < ROWS; ++row)
        {
            POSITION pos = table.AppendRow();
            for (int column = 0; column < COLUMNS; ++column)
            {
                table.GetData(pos, column) = source.At(row, column);
            }
        }
        int length = 0;
        for (POSITION pos = table.GetFirstRowPosition(); pos; table.GetNextRowPosition(pos))
        {
            for (int column = 0; column < COLUMNS; ++column)
            {
                length += table.GetData(pos, column).GetLength();
            }
        }
        benchmark::DoNotOptimize(length);
    }
}

/// The same by way of a cursor on a response's rows.
template <class SOURCE>
void OurCursor(benchmark::State & state)
{
    SOURCE const source;
    for (auto _ : state)
    {
        CMsgResponse response;
        CMsgCursor rows(response);
        for (int column = 0; column < COLUMNS; ++column)
        {
            rows.AddColumn(ColumnName(column).data());
        }
        for (int row = 0; row < ROWS; ++row)
        {
            rows.AppendRow();
            for (int column = 0; column < COLUMNS; ++column)
            {
                rows[column] = source.At(row, column);
            }
        }
        int length = 0;
        rows.RestartCurrentRow();
        while (rows.NextRow())
        {
            for (int column = 0; column < COLUMNS; ++column)
            {
                length += rows[column].GetLength();
            }
        }
        benchmark::DoNotOptimize(length);
    }
}

template <class SOURCE>
void StandardCells(benchmark::State & state)
{
    SOURCE const source;
    for (auto _ : state)
    {
        std::vector<std::array<std::u16string, COLUMNS>> table;
        for (int row = 0; row < ROWS; ++row)
        {
            auto & cells = table.emplace_back();
            for (int column = 0; column < COLUMNS; ++column)
            {
                cells[static_cast<std::size_t>(column)] = source.At(row, column);
            }
        }
        int length = 0;
        for (auto const & cells : table)
        {
            for (auto const & cell : cells)
            {
                length += static_cast<int>(cell.size());
            }
        }
        benchmark::DoNotOptimize(length);
    }
}
} // namespace

int main(int argc, char ** argv)
{
    PinTo(0);
    CMsgDispatcher::GetInstance()->RegisterProvider(_T("bench.table.get"), &Count, nullptr);
    CMsgDispatcher::GetInstance()->RegisterProvider(_T("bench.list.get"), &Count, nullptr);
    benchmark::RegisterBenchmark("execute in process : look up and call a function/ours", &OurExecute);
    benchmark::RegisterBenchmark("execute in process : look up and call a function/limit", &BareCall);
    RunPairs(argc, argv, 10.0);

    benchmark::RegisterBenchmark("10 x 4 cells, ready texts : vector of arrays/ours", &OurCells<ReadyOurs>);
    benchmark::RegisterBenchmark("10 x 4 cells, ready texts : vector of arrays/limit", &StandardCells<ReadyStandard>);
    benchmark::RegisterBenchmark("10 x 4 cells, characters : vector of arrays/ours", &OurCells<Characters>);
    benchmark::RegisterBenchmark("10 x 4 cells, characters : vector of arrays/limit", &StandardCells<Characters>);
    benchmark::RegisterBenchmark("10 x 4 cells, cursor, ready texts : vector of arrays/ours", &OurCursor<ReadyOurs>);
    benchmark::RegisterBenchmark("10 x 4 cells, cursor, ready texts : vector of arrays/limit",
                                 &StandardCells<ReadyStandard>);
    RunPairs(argc, argv, 4.0);
    EndLibrary();
    return 0;
}
