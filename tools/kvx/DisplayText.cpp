#include "DisplayText.h"

#include "kvx/platform/Terminal.h"

#include <algorithm>
#include <array>
#include <span>

namespace
{
struct Range
{
    char32_t first;
    char32_t last;
};

// Marks that stand on the character before them, joiners and direction marks.
constexpr std::array NO_COLUMN{
    Range{0x0300, 0x036F},   Range{0x0483, 0x0489}, Range{0x0591, 0x05BD}, Range{0x0610, 0x061A},
    Range{0x064B, 0x065F},   Range{0x093C, 0x093C}, Range{0x0941, 0x0948}, Range{0x0E31, 0x0E31},
    Range{0x0E34, 0x0E3A},   Range{0x0E47, 0x0E4E}, Range{0x1AB0, 0x1AFF}, Range{0x1DC0, 0x1DFF},
    Range{0x200B, 0x200F},   Range{0x202A, 0x202E}, Range{0x2060, 0x2069}, Range{0x20D0, 0x20F0},
    Range{0xFE00, 0xFE0F},   Range{0xFE20, 0xFE2F}, Range{0xFEFF, 0xFEFF}, Range{0x1F3FB, 0x1F3FF},
    Range{0xE0100, 0xE01EF},
};

// Format characters that show nothing of themselves, fillers, separators of lines and paragraphs, surrogates, tags.
constexpr std::array UNSEEN{
    Range{0x00AD, 0x00AD},   Range{0x034F, 0x034F},   Range{0x061C, 0x061C},   Range{0x070F, 0x070F},
    Range{0x115F, 0x1160},   Range{0x17B4, 0x17B5},   Range{0x180B, 0x180F},   Range{0x200B, 0x200F},
    Range{0x2028, 0x202E},   Range{0x2060, 0x206F},   Range{0x3164, 0x3164},   Range{0xD800, 0xDFFF},
    Range{0xFEFF, 0xFEFF},   Range{0xFFA0, 0xFFA0},   Range{0xFFF0, 0xFFFB},   Range{0x13430, 0x1343F},
    Range{0x1BCA0, 0x1BCA3}, Range{0x1D173, 0x1D17A}, Range{0xE0000, 0xE0FFF},
};

// East Asian wide characters and emoji.
constexpr std::array TWO_COLUMNS{
    Range{0x1100, 0x115F},   Range{0x231A, 0x231B},   Range{0x23E9, 0x23EC},   Range{0x2614, 0x2615},
    Range{0x2648, 0x2653},   Range{0x26BD, 0x26BE},   Range{0x2705, 0x2705},   Range{0x270A, 0x270B},
    Range{0x2728, 0x2728},   Range{0x274C, 0x274C},   Range{0x2753, 0x2755},   Range{0x2795, 0x2797},
    Range{0x2B1B, 0x2B1C},   Range{0x2B50, 0x2B50},   Range{0x2E80, 0x303E},   Range{0x3041, 0x4DBF},
    Range{0x4E00, 0xA4CF},   Range{0xA960, 0xA97F},   Range{0xAC00, 0xD7A3},   Range{0xF900, 0xFAFF},
    Range{0xFE30, 0xFE6F},   Range{0xFF00, 0xFF60},   Range{0xFFE0, 0xFFE6},   Range{0x1F300, 0x1F3FA},
    Range{0x1F400, 0x1F64F}, Range{0x1F680, 0x1F6FF}, Range{0x1F900, 0x1F9FF}, Range{0x20000, 0x3FFFD},
};

bool IsIn(std::span<Range const> ranges, char32_t c)
{
    auto const found = std::ranges::lower_bound(ranges, c, {}, &Range::last);
    return found != ranges.end() && c >= found->first;
}

int ColumnsOf(char32_t c)
{
    if (c < 0x300)
    {
        return 1;
    }
    return IsIn(NO_COLUMN, c) ? 0 : IsIn(TWO_COLUMNS, c) ? 2 : 1;
}

/// Takes one code point from well-formed UTF-8.
char32_t TakeCodePoint(std::string_view & text)
{
    auto const lead = static_cast<unsigned char>(text.front());
    std::size_t const length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    char32_t c = length == 1 ? lead : lead & (0x7Fu >> length);
    for (std::size_t i = 1; i < length && i < text.size(); ++i)
    {
        c = c << 6 | (static_cast<unsigned char>(text[i]) & 0x3F);
    }
    text.remove_prefix(std::min(length, text.size()));
    return c;
}

/// Takes one code point from UTF-16; half of a surrogate pair is one of its own.
char32_t TakeCodePoint(CString::View & text)
{
    char32_t c = text.front();
    std::size_t length = 1;
    if (c >= 0xD800 && c < 0xDC00 && text.size() > 1 && text[1] >= 0xDC00 && text[1] < 0xE000)
    {
        c = 0x10000 + ((c - 0xD800) << 10) + (text[1] - 0xDC00u);
        length = 2;
    }
    text.remove_prefix(length);
    return c;
}

bool IsControl(char32_t c)
{
    return c < 0x20 || (c >= 0x7F && c < 0xA0);
}

bool IsHidden(char32_t c)
{
    return IsControl(c) || (c >= 0xA0 && IsIn(UNSEEN, c));
}

void AppendHex(std::string & out, char32_t c, int digits)
{
    while (digits-- > 0)
    {
        out += "0123456789ABCDEF"[c >> (4 * digits) & 15];
    }
}

/// True if it is one of those that have an escape of one letter, everywhere.
bool AppendShortEscape(std::string & out, char32_t c)
{
    constexpr std::string_view NAMED = "\nn\rr\tt";
    auto const found = c < 0x80 ? NAMED.find(static_cast<char>(c)) : NAMED.npos;
    if (found % 2 != 0) // npos is odd too
    {
        return false;
    }
    out += '\\';
    out += NAMED[found + 1];
    return true;
}

void AppendEscape(std::string & out, char32_t c)
{
    if (!AppendShortEscape(out, c))
    {
        out += c < 0x100 ? "\\x" : c < 0x10000 ? "\\u" : "\\U";
        AppendHex(out, c, c < 0x100 ? 2 : c < 0x10000 ? 4 : 8);
    }
}

void AppendJsonEscape(std::string & out, char32_t c)
{
    if (c == '"' || c == '\\')
    {
        out += '\\';
        out += static_cast<char>(c);
    }
    else if (c >= 0x10000)
    {
        AppendJsonEscape(out, 0xD800 + ((c - 0x10000) >> 10));
        AppendJsonEscape(out, 0xDC00 + ((c - 0x10000) & 0x3FF));
    }
    else if (!AppendShortEscape(out, c))
    {
        out += "\\u";
        AppendHex(out, c, 4);
    }
}

/// UTF-8, with escapes for the characters that are to have them.
template <class WANTED, class ESCAPE>
std::string Escape(CString::View text, WANTED const & wanted, ESCAPE const & escape)
{
    std::string out;
    CString::View plain = text; // begins with what isn't written yet
    while (!text.empty())
    {
        CString::View const here = text;
        char32_t const c = TakeCodePoint(text);
        if (wanted(c))
        {
            out += kvx::ToUtf8(plain.substr(0, plain.size() - here.size()));
            escape(out, c);
            plain = text;
        }
    }
    return out + kvx::ToUtf8(plain);
}
} // namespace

DisplayText ToDisplay(CString::View text, Escaped escaped)
{
    auto const wanted = [escaped](char32_t c)
    {
        bool const bLine = escaped == Escaped::AllButLines && (c == '\n' || c == '\t');
        return !bLine && (escaped == Escaped::Controls ? IsControl(c) : IsHidden(c));
    };
    DisplayText result{Escape(text, wanted, &AppendEscape)};
    for (std::string_view rest = result.strText; !rest.empty();)
    {
        result.nWidth += ColumnsOf(TakeCodePoint(rest));
    }
    return result;
}

DisplayText ToStdout(CString::View text)
{
    static bool const s_bTerminal = kvx::IsTerminal(kvx::StandardStream::Output);
    return ToDisplay(text, s_bTerminal ? Escaped::All : Escaped::Controls);
}

std::string ToJson(CString::View text)
{
    return '"' +
           Escape(
               text, [](char32_t c) { return c == '"' || c == '\\' || IsHidden(c); }, &AppendJsonEscape) +
           '"';
}

std::string CutToWidth(std::string_view text, int width)
{
    std::string_view rest = text;
    std::string_view fits; // with a column left for the ellipsis
    for (int columns = 0; !rest.empty();)
    {
        columns += ColumnsOf(TakeCodePoint(rest));
        if (columns < width)
        {
            fits = text.substr(0, text.size() - rest.size());
        }
        if (columns > width)
        {
            return std::string(fits) + "\u2026";
        }
    }
    return std::string(text);
}
