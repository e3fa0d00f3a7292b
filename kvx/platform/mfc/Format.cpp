#include "kvx/platform/mfc/Format.h"

#include "kvx/platform/mfc/Exception.h"
#include "kvx/platform/mfc/Text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace
{
// Widths and precisions beyond this are refused: a format from outside must not ask for memory at will.
constexpr int MAX_FIELD = 65536;

template <class XCHAR>
constexpr XCHAR NULL_TEXT[] = {'(', 'n', 'u', 'l', 'l', ')', 0};

/// Output that lives on the stack until it grows too long.
template <class XCHAR>
class Output
{
public:
    using View = std::basic_string_view<XCHAR>;

    void Append(View text)
    {
        if (m_long.IsEmpty())
        {
            if (text.size() <= m_short.size() - m_nShort)
            {
                std::ranges::copy(text, m_short.begin() + static_cast<std::ptrdiff_t>(m_nShort));
                m_nShort += text.size();
                return;
            }
            m_long.Preallocate(static_cast<int>(std::min<std::size_t>(2 * (m_nShort + text.size()), 1u << 30)));
            m_long.Append(View(m_short.data(), m_nShort));
        }
        m_long.Append(text);
    }

    void Fill(XCHAR c, int count)
    {
        std::array<XCHAR, 64> block;
        block.fill(c);
        while (count > 0)
        {
            int const step = std::min<int>(count, block.size());
            Append(View(block.data(), static_cast<std::size_t>(step)));
            count -= step;
        }
    }

    CStringT<XCHAR> Take()
    {
        return m_long.IsEmpty() ? CStringT<XCHAR>(View(m_short.data(), m_nShort)) : std::move(m_long);
    }

private:
    std::array<XCHAR, 256> m_short;
    std::size_t m_nShort = 0;
    CStringT<XCHAR> m_long;
};

enum class Size
{
    Plain,   // int, or text of the format's own width
    Char,    // hh
    Short,   // h: 16 bits, or narrow text
    Long,    // l: 32 bits, or wide text
    Wide,    // w: wide text
    I64,     // I64, ll, j
    Pointer, // I, z, t
};

struct Directive
{
    bool bLeft = false;
    bool bPlus = false;
    bool bBlank = false;
    bool bAlternate = false;
    bool bZero = false;
    int nWidth = 0;
    int nPrecision = -1;
    Size size = Size::Plain;
    char type = 0;
};

template <class XCHAR>
class Formatter
{
public:
    using View = std::basic_string_view<XCHAR>;

    Formatter(View format, FormatArgs const & args) : m_format(format), m_args(args) {}

    CStringT<XCHAR> Run()
    {
        constexpr XCHAR PERCENT = '%';
        while (m_nPos < m_format.size())
        {
            std::size_t const found = std::min(m_format.find(PERCENT, m_nPos), m_format.size());
            m_out.Append(m_format.substr(m_nPos, found - m_nPos));
            m_nPos = found;
            if (m_nPos == m_format.size())
            {
                break;
            }
            ++m_nPos;
            if (Peek() == '%')
            {
                ++m_nPos;
                m_out.Append(View(&PERCENT, 1));
            }
            else
            {
                Put(Parse());
            }
        }
        return m_out.Take();
    }

private:
    View m_format;
    FormatArgs const & m_args;
    std::size_t m_nPos = 0;
    std::size_t m_nNextArg = 0;
    Output<XCHAR> m_out;

    [[noreturn]] static void Refuse() { AfxThrowInvalidArgException(); }

    char Peek(std::size_t ahead = 0) const
    {
        std::size_t const at = m_nPos + ahead;
        return at < m_format.size() && m_format[at] > 0 && m_format[at] < 0x7F ? static_cast<char>(m_format[at]) : '\0';
    }

    FormatArg const & NextArg()
    {
        if (m_nNextArg >= m_args.GetCount())
        {
            Refuse();
        }
        return m_args[m_nNextArg++];
    }

    FormatArg const & NextArg(FormatArg::Kind kind)
    {
        FormatArg const & arg = NextArg();
        if (arg.GetKind() != kind)
        {
            Refuse();
        }
        return arg;
    }

    int ParseField()
    {
        if (Peek() == '*')
        {
            ++m_nPos;
            std::int64_t const value = NextArg(FormatArg::Kind::Integer).GetInteger();
            if (value > MAX_FIELD || value < -MAX_FIELD)
            {
                Refuse();
            }
            return static_cast<int>(value);
        }
        int value = 0;
        for (; kvx::IsDigit(Peek()); ++m_nPos)
        {
            value = value * 10 + (Peek() - '0');
            if (value > MAX_FIELD)
            {
                Refuse();
            }
        }
        return value;
    }

    Directive Parse()
    {
        Directive d;
        for (bool bFlags = true; bFlags;)
        {
            switch (Peek())
            {
            case '-':
                d.bLeft = true;
                break;
            case '+':
                d.bPlus = true;
                break;
            case ' ':
                d.bBlank = true;
                break;
            case '#':
                d.bAlternate = true;
                break;
            case '0':
                d.bZero = true;
                break;
            default:
                bFlags = false;
                continue;
            }
            ++m_nPos;
        }
        d.nWidth = ParseField();
        if (d.nWidth < 0)
        {
            d.bLeft = true;
            d.nWidth = -d.nWidth;
        }
        if (Peek() == '.')
        {
            ++m_nPos;
            d.nPrecision = ParseField();
        }
        ParseSize(d);
        d.type = Peek();
        ++m_nPos;
        return d;
    }

    void ParseSize(Directive & d)
    {
        switch (Peek())
        {
        case 'h':
            d.size = Peek(1) == 'h' ? Size::Char : Size::Short;
            m_nPos += Peek(1) == 'h' ? 2 : 1;
            break;
        case 'l':
            d.size = Peek(1) == 'l' ? Size::I64 : Size::Long;
            m_nPos += Peek(1) == 'l' ? 2 : 1;
            break;
        case 'w':
            d.size = Size::Wide;
            ++m_nPos;
            break;
        case 'j':
            d.size = Size::I64;
            ++m_nPos;
            break;
        case 'z':
        case 't':
            d.size = Size::Pointer;
            ++m_nPos;
            break;
        case 'I':
            if (Peek(1) == '6' && Peek(2) == '4')
            {
                d.size = Size::I64;
                m_nPos += 3;
            }
            else if (Peek(1) == '3' && Peek(2) == '2')
            {
                m_nPos += 3;
            }
            else
            {
                d.size = Size::Pointer;
                ++m_nPos;
            }
            break;
        default:
            break;
        }
    }

    void Put(Directive d)
    {
        switch (d.type)
        {
        case 'd':
        case 'i':
            PutInteger(d, NextArg(FormatArg::Kind::Integer).GetInteger());
            break;
        case 'u':
        case 'o':
            PutUnsigned(d, NextArg(FormatArg::Kind::Integer).GetInteger());
            break;
        case 'x':
        case 'X':
        {
            // Addresses are shown in hexadecimal, cut to the directive's width like any other number.
            FormatArg const & arg = NextArg();
            if (arg.GetKind() == FormatArg::Kind::Pointer)
            {
                PutUnsigned(d, reinterpret_cast<std::intptr_t>(arg.GetPointer()));
            }
            else if (arg.GetKind() == FormatArg::Kind::Integer)
            {
                PutUnsigned(d, arg.GetInteger());
            }
            else
            {
                Refuse();
            }
            break;
        }
        case 'p':
            d.type = 'X';
            d.size = Size::Pointer;
            d.nPrecision = 2 * sizeof(void *);
            PutUnsigned(d, reinterpret_cast<std::intptr_t>(NextArg(FormatArg::Kind::Pointer).GetPointer()));
            break;
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            PutFloat(d, NextArg(FormatArg::Kind::Float).GetFloat());
            break;
        case 'c':
        case 'C':
            PutCharacter(d, NextArg(FormatArg::Kind::Integer).GetInteger());
            break;
        case 's':
        case 'S':
            PutText(d);
            break;
        default:
            Refuse();
        }
    }

    static int Bits(Size size)
    {
        switch (size)
        {
        case Size::Char:
            return 8;
        case Size::Short:
            return 16;
        case Size::I64:
            return 64;
        case Size::Pointer:
            return 8 * sizeof(void *);
        default:
            return 32;
        }
    }

    void PutInteger(Directive const & d, std::int64_t value)
    {
        int const unused = 64 - Bits(d.size);
        value = static_cast<std::int64_t>(static_cast<std::uint64_t>(value) << unused) >> unused;
        bool const bNegative = value < 0;
        std::uint64_t const magnitude =
            bNegative ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
        std::string_view const sign = bNegative ? "-" : d.bPlus ? "+" : d.bBlank ? " " : "";
        PutDigits(d, sign, magnitude, 10);
    }

    void PutUnsigned(Directive const & d, std::int64_t value)
    {
        int const unused = 64 - Bits(d.size);
        std::uint64_t const bits = static_cast<std::uint64_t>(value) << unused >> unused;
        std::string_view prefix;
        if (d.bAlternate && bits != 0)
        {
            prefix = d.type == 'x' ? "0x" : d.type == 'X' ? "0X" : "";
        }
        PutDigits(d, prefix, bits, d.type == 'o' ? 8 : d.type == 'u' ? 10 : 16);
    }

    void PutDigits(Directive const & d, std::string_view prefix, std::uint64_t value, int base)
    {
        std::array<char, 24> digits;
        auto const end = std::to_chars(digits.data(), digits.data() + digits.size(), value, base).ptr;
        if (d.type == 'X')
        {
            std::transform(digits.data(), end, digits.data(), [](char c) { return kvx::ToUpper(c); });
        }
        std::string_view text(digits.data(), static_cast<std::size_t>(end - digits.data()));
        if (d.nPrecision == 0 && value == 0)
        {
            text = {};
        }
        int zeros = std::max(0, d.nPrecision - static_cast<int>(text.size()));
        if (d.type == 'o' && d.bAlternate && zeros == 0 && !text.starts_with('0'))
        {
            zeros = 1; // an octal number shows what it is by a leading zero, whatever put it there
        }
        PutNumber(d, prefix, zeros, text, d.nPrecision < 0);
    }

    void PutFloat(Directive const & d, double value)
    {
        std::string_view const sign = std::signbit(value) ? "-" : d.bPlus ? "+" : d.bBlank ? " " : "";
        double const magnitude = std::fabs(value);
        if (!std::isfinite(value))
        {
            PutNumber(d, sign, 0, std::isnan(value) ? "nan" : "inf", false);
            return;
        }
        int const precision = d.nPrecision < 0 ? 6 : d.nPrecision;
        char const kind = kvx::ToLower(d.type);
        std::string digits(static_cast<std::size_t>(precision) + std::numeric_limits<double>::max_exponent10 + 16,
                           '\0');
        auto const format = kind == 'f'   ? std::chars_format::fixed
                            : kind == 'e' ? std::chars_format::scientific
                            : kind == 'a' ? std::chars_format::hex
                                          : std::chars_format::general;
        char * const first = digits.data();
        char * const last = first + digits.size();
        auto const result = kind == 'a' && d.nPrecision < 0 ? std::to_chars(first, last, magnitude, format)
                                                            : std::to_chars(first, last, magnitude, format, precision);
        digits.resize(static_cast<std::size_t>(result.ptr - first));
        if (d.bAlternate)
        {
            KeepPoint(digits, kind == 'g' ? std::max(precision, 1) : 0);
        }
        if (d.type != kind)
        {
            std::ranges::transform(digits, digits.begin(), [](char c) { return kvx::ToUpper(c); });
        }
        std::string prefix(sign);
        if (kind == 'a')
        {
            prefix.append(d.type == 'a' ? "0x" : "0X");
        }
        PutNumber(d, prefix, 0, digits, true);
    }

    /// The '#' flag: a number always has a point, and with "%g" all of its significant digits.
    static void KeepPoint(std::string & digits, int significant)
    {
        std::size_t const end = std::min(digits.find_first_of("ep"), digits.size());
        std::string_view const mantissa(digits.data(), end);
        bool const bPoint = mantissa.find('.') != std::string_view::npos;
        std::size_t const first = mantissa.find_first_of("123456789");
        auto const shown = first == std::string_view::npos
                               ? std::ptrdiff_t{1}
                               : std::ranges::count_if(mantissa.substr(first), kvx::IsDigit<char>);
        std::string tail(bPoint ? "" : ".");
        tail.append(static_cast<std::size_t>(std::max<std::ptrdiff_t>(0, significant - shown)), '0');
        digits.insert(end, tail);
    }

    void PutNumber(Directive const & d, std::string_view prefix, int zeros, std::string_view digits, bool bMayPadZeros)
    {
        int pad = d.nWidth - static_cast<int>(prefix.size() + digits.size()) - zeros;
        if (d.bZero && !d.bLeft && bMayPadZeros && pad > 0)
        {
            zeros += pad;
            pad = 0;
        }
        if (!d.bLeft)
        {
            m_out.Fill(' ', pad);
        }
        PutAscii(prefix);
        m_out.Fill('0', zeros);
        PutAscii(digits);
        if (d.bLeft)
        {
            m_out.Fill(' ', pad);
        }
    }

    void PutAscii(std::string_view text)
    {
        if constexpr (sizeof(XCHAR) == 1)
        {
            m_out.Append(text);
        }
        else
        {
            std::array<XCHAR, 64> block;
            for (; !text.empty(); text.remove_prefix(std::min(text.size(), block.size())))
            {
                std::size_t const step = std::min(text.size(), block.size());
                std::copy_n(text.data(), step, block.data());
                m_out.Append(View(block.data(), step));
            }
        }
    }

    bool IsWide(Directive const & d) const
    {
        switch (d.size)
        {
        case Size::Short:
            return false;
        case Size::Long:
        case Size::Wide:
            return true;
        default:
            return (sizeof(XCHAR) > 1) == (d.type == 's' || d.type == 'c');
        }
    }

    void PutCharacter(Directive const & d, std::int64_t value)
    {
        if (IsWide(d) == (sizeof(XCHAR) > 1))
        {
            XCHAR const c = static_cast<XCHAR>(value);
            PutPadded(d, View(&c, 1));
        }
        else if constexpr (sizeof(XCHAR) == 1)
        {
            WCHAR const c = static_cast<WCHAR>(value);
            PutPadded(d, CStringA(CString(std::basic_string_view<WCHAR>(&c, 1))));
        }
        else
        {
            char const c = static_cast<char>(value);
            PutPadded(d, CString(CStringA(std::string_view(&c, 1))));
        }
    }

    void PutText(Directive const & d)
    {
        bool const bWide = IsWide(d);
        FormatArg const & arg = NextArg();
        if (arg.GetKind() == FormatArg::Kind::Pointer && !arg.GetPointer())
        {
            PutCut(d, View(NULL_TEXT<XCHAR>));
            return;
        }
        if (arg.GetKind() != (bWide ? FormatArg::Kind::WideText : FormatArg::Kind::NarrowText))
        {
            Refuse();
        }
        if constexpr (sizeof(XCHAR) == 1)
        {
            bWide ? PutCut(d, CStringA(CString(arg.GetWideText()))) : PutCut(d, arg.GetNarrowText());
        }
        else
        {
            bWide ? PutCut(d, arg.GetWideText()) : PutCut(d, CString(CStringA(arg.GetNarrowText())));
        }
    }

    void PutCut(Directive const & d, View text)
    {
        PutPadded(d, d.nPrecision < 0 ? text : text.substr(0, static_cast<std::size_t>(d.nPrecision)));
    }

    void PutPadded(Directive const & d, View text)
    {
        int const pad = d.nWidth > 0 && text.size() < static_cast<std::size_t>(d.nWidth)
                            ? d.nWidth - static_cast<int>(text.size())
                            : 0;
        if (!d.bLeft)
        {
            m_out.Fill(d.bZero ? '0' : ' ', pad);
        }
        m_out.Append(text);
        if (d.bLeft)
        {
            m_out.Fill(' ', pad);
        }
    }
};
} // namespace

std::basic_string_view<WCHAR> FormatArg::GetWideText() const
{
    auto const * const text = static_cast<WCHAR const *>(m_pointer);
    if (!text)
    {
        return NULL_TEXT<WCHAR>;
    }
    return m_nLength == NUL_TERMINATED ? std::basic_string_view<WCHAR>(text)
                                       : std::basic_string_view<WCHAR>(text, m_nLength);
}

std::string_view FormatArg::GetNarrowText() const
{
    auto const * const text = static_cast<char const *>(m_pointer);
    if (!text)
    {
        return NULL_TEXT<char>;
    }
    return m_nLength == NUL_TERMINATED ? std::string_view(text) : std::string_view(text, m_nLength);
}

namespace kvx
{
template <class XCHAR>
CStringT<XCHAR> FormatText(std::basic_string_view<XCHAR> format, FormatArgs const & args)
{
    return Formatter<XCHAR>(format, args).Run();
}

template KVX_API CStringT<WCHAR> FormatText(std::basic_string_view<WCHAR>, FormatArgs const &);
template KVX_API CStringT<char> FormatText(std::basic_string_view<char>, FormatArgs const &);
} // namespace kvx
