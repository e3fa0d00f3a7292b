#pragma once

/// The texts of the tables that travel: a name that differs from row to row in the first column, few words in the
/// others.

#include <array>
#include <cstddef>
#include <string_view>

namespace bench
{
inline constexpr std::u16string_view TABLE_NAME = u"table";

inline constexpr std::array<std::u16string_view, 4> COLUMN_NAMES = {u"name", u"state", u"owner", u"zone"};
inline constexpr std::array<std::u16string_view, 8> WORDS = {u"ready",   u"running", u"stopped", u"waiting",
                                                             u"started", u"failed",  u"held",    u"unknown"};

constexpr std::u16string_view ColumnName(int column)
{
    return COLUMN_NAMES[static_cast<std::size_t>(column) % COLUMN_NAMES.size()];
}

constexpr std::size_t SharedWordIndex(int row, int column)
{
    return static_cast<std::size_t>(row * 5 + column * 3) % WORDS.size();
}

constexpr std::u16string_view SharedWord(int row, int column)
{
    return WORDS[SharedWordIndex(row, column)];
}

/// "row 7".
class RowName
{
public:
    constexpr explicit RowName(int row)
    {
        do
        {
            *--m_pFirst = static_cast<char16_t>(u'0' + row % 10);
            row /= 10;
        } while (row > 0);
        for (char16_t const c : {u' ', u'w', u'o', u'r'})
        {
            *--m_pFirst = c;
        }
    }
    RowName(RowName const &) = delete;
    RowName & operator=(RowName const &) = delete;

    constexpr operator std::u16string_view() const { return {m_pFirst, m_text.data() + m_text.size()}; }

private:
    std::array<char16_t, 16> m_text{};
    char16_t * m_pFirst = m_text.data() + m_text.size();
};
} // namespace bench
