#pragma once

/// Functions of SQL in place of the engine's own, which would run on for minutes with long texts.

#include <cstddef>
#include <functional>

struct sqlite3;

/// Counts what functions do, and asks from time to time whether they are to end: the engine itself asks only between
/// the instructions of its machine, and not between all of them.
class CSqlWork
{
public:
    explicit CSqlWork(std::function<bool()> isToEnd) : m_isToEnd(std::move(isToEnd)) {}

    /// Some bytes more; true if it is to end.
    bool Spend(std::size_t bytes);

private:
    std::function<bool()> m_isToEnd;
    std::size_t m_nSpent = 0;
};

/// Replaces instr, replace, trim, ltrim and rtrim by functions linear in their arguments, and like and glob by ones
/// that end when they are to. They give what the engine's give; like and glob don't search an index.
/// `work` belongs to the connection and outlives it. An SQLite result code.
int AddBoundedFunctions(sqlite3 * database, CSqlWork & work);
