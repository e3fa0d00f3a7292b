#include "SqlFunctions.h"

#include <sqlite3.h>

#include <algorithm>
#include <exception>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace
{
/// The work is to end.
struct Ended : std::exception
{
};

void Spend(sqlite3_context * context, std::size_t bytes)
{
    if (static_cast<CSqlWork *>(sqlite3_user_data(context))->Spend(bytes))
    {
        throw Ended();
    }
}

using Function = void (*)(sqlite3_context *, int, sqlite3_value **);

/// The engine is no place for exceptions. NULL for an argument gives NULL.
template <Function FUNCTION>
void Guarded(sqlite3_context * context, int count, sqlite3_value ** values)
{
    try
    {
        if (std::none_of(values, values + count, [](auto * value) { return sqlite3_value_type(value) == SQLITE_NULL; }))
        {
            FUNCTION(context, count, values);
        }
    }
    catch (Ended const &)
    {
        sqlite3_result_error_code(context, SQLITE_INTERRUPT);
    }
    catch (std::exception const &)
    {
        sqlite3_result_error_nomem(context);
    }
}

std::string_view GetText(sqlite3_value * value)
{
    auto const * const text = reinterpret_cast<char const *>(sqlite3_value_text(value));
    if (!text)
    {
        throw std::bad_alloc();
    }
    return {text, static_cast<std::size_t>(sqlite3_value_bytes(value))};
}

std::string_view GetBlob(sqlite3_value * value)
{
    auto const * const bytes = static_cast<char const *>(sqlite3_value_blob(value));
    return {bytes ? bytes : "", static_cast<std::size_t>(sqlite3_value_bytes(value))};
}

/// How patterns have them: they end at a character 0.
std::string_view UntilZero(std::string_view text)
{
    return text.substr(0, text.find('\0'));
}

bool IsContinuation(char byte)
{
    return (byte & 0xC0) == 0x80;
}

/// Finds a text in others, in time linear in both: the algorithm of Knuth, Morris and Pratt.
class Finder
{
public:
    explicit Finder(std::string_view sought) : m_sought(sought), m_borders(sought.size() + 1)
    {
        std::size_t border = 0;
        for (std::size_t i = 1; i < sought.size(); ++i)
        {
            while (border > 0 && sought[i] != sought[border])
            {
                border = m_borders[border];
            }
            border += sought[i] == sought[border];
            m_borders[i + 1] = border;
        }
    }

    std::size_t Find(std::string_view text, std::size_t from) const
    {
        constexpr std::size_t SHORT = 8; // what costs no more than the algorithm, however it is sought
        if (m_sought.size() <= SHORT)
        {
            return text.find(m_sought, from);
        }
        std::size_t matched = 0;
        for (std::size_t i = from; i < text.size(); ++i)
        {
            while (matched > 0 && text[i] != m_sought[matched])
            {
                matched = m_borders[matched];
            }
            matched += text[i] == m_sought[matched];
            if (matched == m_sought.size())
            {
                return i + 1 - matched;
            }
        }
        return text.npos;
    }

private:
    std::string_view m_sought;
    std::vector<std::size_t> m_borders; // of its beginnings: the longest that they also end with
};

void InStr(sqlite3_context * context, int, sqlite3_value ** values)
{
    bool const bBlobs = sqlite3_value_type(values[0]) == SQLITE_BLOB && sqlite3_value_type(values[1]) == SQLITE_BLOB;
    auto const text = bBlobs ? GetBlob(values[0]) : GetText(values[0]);
    auto const sought = bBlobs ? GetBlob(values[1]) : GetText(values[1]);
    Spend(context, text.size() + sought.size());
    auto const at = Finder(sought).Find(text, 0);
    auto const before = text.substr(0, at);
    auto const characters = bBlobs ? static_cast<std::ptrdiff_t>(before.size())
                                   : std::ranges::count_if(before, [](char c) { return !IsContinuation(c); });
    sqlite3_result_int64(context, at == text.npos ? 0 : characters + 1);
}

void Replace(sqlite3_context * context, int, sqlite3_value ** values)
{
    auto const text = GetText(values[0]);
    auto const sought = GetText(values[1]);
    auto const other = GetText(values[2]);
    if (sought.empty())
    {
        sqlite3_result_value(context, values[0]);
        return;
    }
    auto const limit =
        static_cast<std::size_t>(sqlite3_limit(sqlite3_context_db_handle(context), SQLITE_LIMIT_LENGTH, -1));
    Spend(context, text.size() + sought.size() + other.size());
    Finder const finder(sought);
    std::string result;
    std::size_t from = 0;
    for (auto at = finder.Find(text, 0); at != text.npos; at = finder.Find(text, from))
    {
        Spend(context, other.size());
        result.append(text.substr(from, at - from)).append(other);
        from = at + sought.size();
        if (result.size() > limit)
        {
            break;
        }
    }
    result.append(text.substr(from));
    if (result.size() > limit)
    {
        sqlite3_result_error_toobig(context);
        return;
    }
    sqlite3_result_text64(context, result.data(), result.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

enum Ends
{
    LEFT = 1,
    RIGHT = 2,
    BOTH = 3
};

std::size_t LengthOfFirst(std::string_view text)
{
    std::size_t length = 1;
    while (static_cast<unsigned char>(text.front()) >= 0xC0 && length < text.size() && IsContinuation(text[length]))
    {
        ++length;
    }
    return length;
}

std::size_t LengthOfLast(std::string_view text)
{
    std::size_t length = 1;
    while (length < text.size() && IsContinuation(text[text.size() - length]))
    {
        ++length;
    }
    return length;
}

template <Ends ENDS>
void Trim(sqlite3_context * context, int, sqlite3_value ** values)
{
    auto text = GetText(values[0]);
    auto const characters = GetText(values[1]);
    Spend(context, text.size() + 8 * characters.size());
    std::unordered_set<std::string_view> known;
    for (auto rest = characters; !rest.empty();)
    {
        auto const length = LengthOfFirst(rest);
        known.insert(rest.substr(0, length));
        rest.remove_prefix(length);
    }
    auto const trim = [&](auto measure, auto part, auto remove)
    {
        while (!text.empty())
        {
            auto const length = measure(text);
            if (!known.contains(part(length)))
            {
                break;
            }
            remove(length);
        }
    };
    if (ENDS & LEFT)
    {
        trim(
            &LengthOfFirst, [&](std::size_t n) { return text.substr(0, n); },
            [&](std::size_t n) { text.remove_prefix(n); });
    }
    if (ENDS & RIGHT)
    {
        trim(
            &LengthOfLast, [&](std::size_t n) { return text.substr(text.size() - n); },
            [&](std::size_t n) { text.remove_suffix(n); });
    }
    sqlite3_result_text64(context, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

/// The next character, which is there; bytes that are no UTF-8 give something.
char32_t TakeCharacter(std::string_view & text)
{
    auto const length = LengthOfFirst(text);
    auto const first = static_cast<unsigned char>(text.front());
    char32_t c = first < 0xC0 ? first : first < 0xE0 ? first & 0x1F : first < 0xF0 ? first & 0x0F : first & 0x07;
    for (char const byte : text.substr(1, length - 1))
    {
        c = (c << 6) + (static_cast<unsigned char>(byte) & 0x3F);
    }
    text.remove_prefix(length);
    return c;
}

char32_t Fold(char32_t c)
{
    return c >= 'A' && c <= 'Z' ? c + ('a' - 'A') : c;
}

/// What a pattern wants at one place.
struct Element
{
    enum Kind
    {
        Character,
        AnyCharacter,
        AnyText,
        OneOf,
        Nothing
    } kind = Character;
    char32_t c = 0;
    std::vector<std::pair<char32_t, char32_t>> ranges; // of one of, from and to
    bool bInverse = false;

    bool Matches(char32_t given, bool bFold) const
    {
        if (kind == OneOf)
        {
            bool const bIn = std::ranges::any_of(ranges, [given](auto const & range)
                                                 { return given >= range.first && given <= range.second; });
            return bIn != bInverse;
        }
        return kind == AnyCharacter || (kind == Character && (bFold ? Fold(given) == Fold(c) : given == c));
    }
};

/// What is between brackets, the second one too; it matches nothing where that is missing.
Element TakeSet(std::string_view & rest)
{
    Element set{Element::OneOf, 0, {}, false};
    if (rest.starts_with('^'))
    {
        set.bInverse = true;
        rest.remove_prefix(1);
    }
    char32_t before = 0;
    for (bool bFirst = true; !rest.empty(); bFirst = false)
    {
        char32_t const c = TakeCharacter(rest);
        if (c == ']' && !bFirst)
        {
            return set;
        }
        if (c == '-' && before > 0 && !rest.empty() && rest.front() != ']')
        {
            set.ranges.emplace_back(before, TakeCharacter(rest));
            before = 0;
            continue;
        }
        set.ranges.emplace_back(c, c);
        before = bFirst && c == ']' ? 0 : c;
    }
    set.kind = Element::Nothing;
    return set;
}

std::vector<Element> ParsePattern(std::string_view rest, bool bGlob, char32_t escape)
{
    std::vector<Element> elements;
    while (!rest.empty())
    {
        char32_t const c = TakeCharacter(rest);
        Element element;
        element.c = c;
        if (escape != 0 && c == escape)
        {
            element.kind = rest.empty() ? Element::Nothing : Element::Character;
            element.c = rest.empty() ? 0 : TakeCharacter(rest);
        }
        else if (c == (bGlob ? U'*' : U'%'))
        {
            element.kind = Element::AnyText;
        }
        else if (c == (bGlob ? U'?' : U'_'))
        {
            element.kind = Element::AnyCharacter;
        }
        else if (bGlob && c == '[')
        {
            element = TakeSet(rest);
        }
        elements.push_back(std::move(element));
    }
    return elements;
}

/// When it doesn't go on, the last text of any length becomes longer: earlier ones needn't.
bool Matches(sqlite3_context * context, std::vector<Element> const & pattern, std::string_view text, bool bFold)
{
    constexpr std::size_t STEPS = 1024; // between two counts of what was done
    auto at = pattern.begin();
    auto again = pattern.end(); // behind the last text of any length
    std::string_view longer;    // what follows that
    std::size_t steps = 0;
    while (!text.empty())
    {
        if (++steps % STEPS == 0)
        {
            Spend(context, 4 * STEPS);
        }
        if (at != pattern.end() && at->kind == Element::AnyText)
        {
            again = ++at;
            longer = text;
            if (at == pattern.end())
            {
                return true;
            }
            continue;
        }
        if (at != pattern.end() && at->Matches(TakeCharacter(text), bFold))
        {
            ++at;
            continue;
        }
        if (again == pattern.end())
        {
            return false;
        }
        TakeCharacter(longer);
        text = longer;
        at = again;
    }
    return std::all_of(at, pattern.end(), [](Element const & element) { return element.kind == Element::AnyText; });
}

template <bool GLOB>
void Like(sqlite3_context * context, int count, sqlite3_value ** values)
{
    if (sqlite3_value_type(values[0]) == SQLITE_BLOB || sqlite3_value_type(values[1]) == SQLITE_BLOB)
    {
        sqlite3_result_int(context, 0);
        return;
    }
    auto const pattern = GetText(values[0]);
    auto const limit = sqlite3_limit(sqlite3_context_db_handle(context), SQLITE_LIMIT_LIKE_PATTERN_LENGTH, -1);
    if (pattern.size() > static_cast<std::size_t>(limit))
    {
        sqlite3_result_error(context, "LIKE or GLOB pattern too complex", -1);
        return;
    }
    char32_t escape = 0;
    if (count == 3)
    {
        auto text = UntilZero(GetText(values[2]));
        escape = text.empty() ? 0 : TakeCharacter(text);
        if (escape == 0 || !text.empty())
        {
            sqlite3_result_error(context, "ESCAPE expression must be a single character", -1);
            return;
        }
    }
    auto const text = UntilZero(GetText(values[1]));
    Spend(context, text.size() + pattern.size());
    auto const elements = ParsePattern(UntilZero(pattern), GLOB, escape);
    sqlite3_result_int(context, Matches(context, elements, text, !GLOB));
}
} // namespace

bool CSqlWork::Spend(std::size_t bytes)
{
    constexpr std::size_t LOOK = std::size_t{1} << 20;
    m_nSpent += bytes;
    if (m_nSpent < LOOK)
    {
        return false;
    }
    m_nSpent = 0;
    return m_isToEnd();
}

int AddBoundedFunctions(sqlite3 * database, CSqlWork & work)
{
    struct Entry
    {
        char const * name;
        int count;
        Function function;
    };
    for (Entry const & entry : {Entry{"instr", 2, &Guarded<&InStr>}, Entry{"replace", 3, &Guarded<&Replace>},
                                Entry{"trim", 2, &Guarded<&Trim<BOTH>>}, Entry{"ltrim", 2, &Guarded<&Trim<LEFT>>},
                                Entry{"rtrim", 2, &Guarded<&Trim<RIGHT>>}, Entry{"like", 2, &Guarded<&Like<false>>},
                                Entry{"like", 3, &Guarded<&Like<false>>}, Entry{"glob", 2, &Guarded<&Like<true>>}})
    {
        // As the engine's own, they may stand in views, indexes and generated columns.
        int const result = sqlite3_create_function(database, entry.name, entry.count,
                                                   SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS, &work,
                                                   entry.function, nullptr, nullptr);
        if (result != SQLITE_OK)
        {
            return result;
        }
    }
    return SQLITE_OK;
}
