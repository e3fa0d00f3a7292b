#pragma once

/// The texts of the tables that travel: of four columns two differ from row to row, one repeats few words, and one some
/// dozens of names.

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace bench
{
inline constexpr std::u16string_view TABLE_NAME = u"table";

inline constexpr std::array<std::u16string_view, 4> COLUMN_NAMES = {u"name", u"state", u"owner", u"path"};

constexpr std::u16string_view ColumnName(int column)
{
    return COLUMN_NAMES[static_cast<std::size_t>(column) % COLUMN_NAMES.size()];
}

inline std::u16string CellText(int row, int column)
{
    constexpr std::array<std::u16string_view, 8> STATES = {u"ready",   u"running", u"stopped", u"waiting",
                                                           u"started", u"failed",  u"held",    u"unknown"};
    constexpr int OWNERS = 48;
    auto const with = [](std::u16string_view text, int number)
    {
        std::string const digits = std::to_string(number);
        return std::u16string(text).append(digits.begin(), digits.end());
    };
    switch (column % 4)
    {
    case 0:
        return with(u"row ", row);
    case 1:
        return std::u16string(STATES[static_cast<std::size_t>(row) * 5 % STATES.size()]);
    case 2:
        return with(u"owner ", row * 7 % OWNERS);
    default:
        return with(u"/srv/data/", row);
    }
}

/// A table's texts row by row, as a service keeps them: each a text of its own.
template <class TEXT>
std::vector<TEXT> KeepTexts(int rows, int columns)
{
    std::vector<TEXT> texts;
    texts.reserve(static_cast<std::size_t>(rows) * static_cast<std::size_t>(columns));
    for (int row = 0; row < rows; ++row)
    {
        for (int column = 0; column < columns; ++column)
        {
            texts.emplace_back(std::u16string_view(CellText(row, column)));
        }
    }
    return texts;
}
} // namespace bench
