#include "tests/support/Raised.h"

#include "kvx/platform/mfc/Text.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <random>
#include <string>

namespace
{
using Plain = std::basic_string<WCHAR>;
constexpr LPCTSTR NO_TEXT = nullptr;

/// One change of a text, made to the string and to its model. Many a source is a piece of the very text.
void Change(CString & text, Plain & model, CString const & other, Plain const & otherModel, std::mt19937 & random)
{
    auto const at = static_cast<int>(random() % (model.size() + 1));
    auto const count = static_cast<int>(random() % 9);
    auto const unit = static_cast<WCHAR>('a' + random() % 4);
    switch (random() % 16)
    {
    case 0:
        text = other;
        model = otherModel;
        break;
    case 1:
        text += other;
        model += otherModel;
        break;
    case 2:
        text += text;
        model += Plain(model);
        break;
    case 3:
        text.Append(text.GetString() + at);
        model += model.substr(static_cast<std::size_t>(at));
        break;
    case 4:
        text = text.GetString() + at;
        model.erase(0, static_cast<std::size_t>(at));
        break;
    case 5:
        text = text.Mid(at, count);
        model = model.substr(static_cast<std::size_t>(at), static_cast<std::size_t>(count));
        break;
    case 6:
        text.Insert(at, text.GetString() + at / 2);
        model.insert(static_cast<std::size_t>(at), Plain(model, static_cast<std::size_t>(at / 2)));
        break;
    case 7:
        text.Delete(at, count);
        model.erase(static_cast<std::size_t>(at), static_cast<std::size_t>(count));
        break;
    case 8:
        text.AppendChar(unit);
        model += unit;
        break;
    case 9:
        text.Format(_T("%s-%s"), text, other);
        model += _T("-") + otherModel;
        break;
    case 10:
        if (at < text.GetLength())
        {
            text.SetAt(at, unit);
            model[static_cast<std::size_t>(at)] = unit;
        }
        break;
    case 11:
        EXPECT_EQ(text.Remove(unit), static_cast<int>(std::erase(model, unit)));
        break;
    case 12:
    {
        WCHAR * const buffer = text.GetBuffer(text.GetLength() + count);
        std::fill_n(buffer + text.GetLength(), count, unit);
        text.ReleaseBuffer(static_cast<int>(model.size()) + count);
        model.append(static_cast<std::size_t>(count), unit);
        break;
    }
    case 13:
        text.MakeReverse();
        std::reverse(model.begin(), model.end());
        break;
    case 14:
        text.TrimLeft(unit);
        model.erase(0, model.find_first_not_of(unit));
        break;
    default:
        text.Truncate(60);
        model.resize(std::min<std::size_t>(model.size(), 60));
    }
    if (model.size() > 400)
    {
        text = text.Right(20);
        model.erase(0, model.size() - 20);
    }
}

template <class... T>
std::string Formatted(LPCTSTR format, T const &... values)
{
    CString text;
    text.Format(format, values...);
    return kvx::ToUtf8(text);
}

template <class... T>
bool Refuses(LPCTSTR format, T const &... values)
{
    return Raises<CInvalidArgException>([&] { (void)Formatted(format, values...); });
}
} // namespace

TEST(Text, BehavesAsAModelWhileCopiesShare)
{
    std::mt19937 random(7);
    std::array<CString, 4> texts;
    std::array<Plain, 4> models;
    for (int i = 0; i < 40000; ++i)
    {
        std::size_t const a = random() % 4;
        std::size_t const b = random() % 4;
        Change(texts[a], models[a], texts[b], models[b], random);
        for (std::size_t k = 0; k < 4; ++k)
        {
            ASSERT_EQ(Plain(texts[k].AsView()), models[k]) << i;
            ASSERT_EQ(texts[k].GetString()[models[k].size()], 0);
        }
        ASSERT_EQ(texts[a].Compare(texts[b]) <=> 0, models[a].compare(models[b]) <=> 0);
    }
}

TEST(Text, BuffersAreOnesOwn)
{
    CString text = _T("abc");
    CString const copy = text;
    EXPECT_EQ(text.GetString(), copy.GetString()); // shared
    WCHAR * const buffer = text.GetBuffer(100);
    buffer[0] = 'x';
    buffer[2] = 0;
    text.ReleaseBuffer();
    EXPECT_EQ(text, _T("xb"));
    EXPECT_EQ(copy, _T("abc"));

    // Room that a shared text has is not for one of its holders to use.
    CString other = text;
    other.ReleaseBuffer(50);
    EXPECT_EQ(other.GetLength(), 50);
    EXPECT_EQ(text, _T("xb"));
    text.ReleaseBuffer(0);
    other = text;
    (void)other.GetBuffer(0);
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { other.ReleaseBuffer(60); }));
    EXPECT_TRUE(text.IsEmpty());

    EXPECT_TRUE(Raises<CInvalidArgException>([&] { text.ReleaseBuffer(text.GetAllocLength() + 1); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { text.ReleaseBuffer(-2); }));
    EXPECT_TRUE(Raises<CMemoryException>([&] { (void)text.GetBuffer(-1); }));
    EXPECT_TRUE(Raises<CMemoryException>([&] { (void)text.GetBuffer(INT_MAX); }));
    EXPECT_TRUE(Raises<CMemoryException>([&] { CString(_T('x'), INT_MAX); }));
    text = _T("ab");
    EXPECT_EQ(text.GetAt(2), 0);
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { (void)text[3]; }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { text.SetAt(2, 'x'); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { CString(NO_TEXT, 1); }));
}

template <class STRING>
void WriteToEmptyBuffers()
{
    STRING const untouched;
    for (STRING text :
         {STRING(), STRING(untouched), STRING(untouched.Left(0)), STRING("x").Left(0), STRING("gone").Mid(9)})
    {
        STRING const copy = text;
        text.GetBuffer()[0] = 0;
        text.ReleaseBuffer();
        text.Empty();
        text.GetBuffer(0)[0] = 0;
        text.ReleaseBuffer(0);
        text = copy;
        text.GetBufferSetLength(0)[0] = 'x'; // the NUL's own place is his who has the buffer
        text.ReleaseBuffer(0);
        EXPECT_TRUE(text.IsEmpty() && copy.IsEmpty() && copy.GetString()[0] == 0 && text.GetString()[0] == 0);
        EXPECT_EQ(text.MakeReverse() + text.MakeUpper(), copy);
    }
    EXPECT_EQ(untouched.GetAllocLength(), 0);
}

TEST(Text, EmptyTextsHaveBuffersToo)
{
    WriteToEmptyBuffers<CString>();
    WriteToEmptyBuffers<CStringA>();
}

TEST(Text, NullPointersAreEmptyTexts)
{
    CString text(NO_TEXT);
    EXPECT_TRUE(text == NO_TEXT && text == CString(NO_TEXT, 0) && text.Compare(NO_TEXT) == 0);
    EXPECT_EQ(text + NO_TEXT, _T(""));
    text = _T(" a ");
    text += NO_TEXT;
    EXPECT_EQ(text + NO_TEXT, NO_TEXT + text);
    EXPECT_EQ(text.Find(NO_TEXT), 0);
    EXPECT_EQ(text.Replace(NO_TEXT, _T("x")) + text.Insert(1, NO_TEXT), 3);
    EXPECT_EQ(text.Trim(NO_TEXT), _T(" a "));
    EXPECT_EQ(text.SpanExcluding(NO_TEXT), _T(" a "));
    EXPECT_EQ(text.SpanIncluding(NO_TEXT), _T(""));
    EXPECT_EQ(text.FindOneOf(NO_TEXT), -1);
    EXPECT_GT(text.CompareNoCase(NO_TEXT), 0);
    text = NO_TEXT;
    EXPECT_TRUE(text.IsEmpty());
}

TEST(Text, PiecesTrimsAndReplacements)
{
    CString text = _T("aXbXc");
    EXPECT_EQ(text.Mid(-3, 2), _T("aX"));
    EXPECT_EQ(text.Mid(3, 99) + text.Mid(9) + text.Left(-1) + text.Right(-1), _T("Xc"));
    EXPECT_EQ(text.Find(_T("X"), 2), 3);
    EXPECT_EQ(text.Find(_T("X"), 6), -1);
    EXPECT_EQ(text.Find(_T("X"), -1), -1);
    EXPECT_EQ(text.ReverseFind('X'), 3);
    EXPECT_EQ(text.Replace(_T("X"), text), 2); // the new text is the one that changes
    EXPECT_EQ(text, _T("aaXbXcbaXbXcc"));
    EXPECT_EQ(text.Replace('a', 'a'), 0);
    EXPECT_EQ(text.Replace(_T("aXbXc"), _T("")), 2);
    EXPECT_EQ(text, _T("abc"));
    EXPECT_EQ(text.Insert(99, _T("d")), 4);
    EXPECT_EQ(text.Delete(-2, 3), 1); // from the first character on
    EXPECT_EQ(text, _T("d"));
    text = _T(" \t\r\n\v\f x\u00a0 ");
    EXPECT_EQ(text.Trim(), _T("x\u00a0")); // the white space of the C locale alone
    EXPECT_EQ(text.Trim(_T("x\u00a0")), _T(""));
}

TEST(Text, Tokens)
{
    CString const text = _T(";;a;b c;");
    CString all;
    int position = 0;
    for (CString token = text.Tokenize(_T("; "), position); position >= 0; token = text.Tokenize(_T("; "), position))
    {
        all += token + _T("|");
    }
    EXPECT_EQ(all, _T("a|b|c|"));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { (void)text.Tokenize(_T(";"), position); }));
    position = 99;
    EXPECT_EQ(text.Tokenize(_T(";"), position), _T(""));
    EXPECT_EQ(position, -1);
    position = 3;
    EXPECT_EQ(text.Tokenize(_T(""), position), _T(";b c;"));
}

TEST(Text, OrderAndCase)
{
    EXPECT_GT(CString(_T("\uffff")).Compare(_T("a")), 0);
    EXPECT_GT(CStringA("abcdefgh\xE9").Compare("abcdefghz"), 0);
    EXPECT_GT(CStringA("\xE9").CompareNoCase("z"), 0);
    EXPECT_EQ(CString(_T("\u00c4\u03a9x")).CompareNoCase(_T("\u00e4\u03c9X")), 0);
    EXPECT_LT(CString(_T("ab")).CompareNoCase(_T("ABC")), 0);
    EXPECT_NE(CString(_T("a\0b"), 3), CString(_T("a\0c"), 3));
    CString text = _T("\u00e4\u0436\u00df\U00010428z");
    EXPECT_EQ(text.MakeUpper(), _T("\u00c4\u0416\u00df\U00010428Z")); // one unit to one unit
    EXPECT_EQ(text.MakeLower(), _T("\u00e4\u0436\u00df\U00010428z"));
}

TEST(Text, NarrowTextIsOfTheAnsiCodePage)
{
    CString const wide = _T("\u00e9\u20ac");
    EXPECT_EQ(CStringA(wide), "\xE9\x80");
    EXPECT_EQ(CString(CStringA(wide)), wide);
    EXPECT_EQ(CString(CStringA("a\0b", 3)).GetLength(), 3);
    EXPECT_EQ(kvx::FromUtf8("\xC3\xA9\xFF"), _T("\u00e9\ufffd"));
    WCHAR const lone[] = {'a', 0xD800, 0};
    EXPECT_EQ(kvx::ToUtf8(lone), "a\xEF\xBF\xBD");
}

TEST(Format, Table)
{
    CString const wide = _T("w\u00e9");
    CStringA const narrow = "n\xE9";
    EXPECT_EQ(Formatted(_T("%s %S %hs %ls %ws"), wide, narrow, narrow, wide, wide),
              "w\u00e9 n\u00e9 n\u00e9 w\u00e9 w\u00e9");
    EXPECT_EQ(Formatted(_T("%s|%S"), NO_TEXT, static_cast<char const *>(nullptr)), "(null)|(null)");
    EXPECT_EQ(Formatted(_T("[%6s|%-6s|%.1s|%6.2s|%*.*s]"), wide, wide, wide, _T("abc"), -4, 1, _T("xyz")),
              "[    w\u00e9|w\u00e9    |w|    ab|x   ]");
    EXPECT_EQ(Formatted(_T("%c%C%3c%-3c|"), _T('\u00e9'), '\xE9', 'x', 'y'), "\u00e9\u00e9  xy  |");
    EXPECT_EQ(Formatted(_T("%I64d %lld %I32d %Id"), LLONG_MIN, LLONG_MAX, -1, INT_PTR{-5}),
              "-9223372036854775808 9223372036854775807 -1 -5");
    EXPECT_EQ(Formatted(_T("%d %u %hd %hhu %ld"), 0xFFFFFFFFu, -1, 65535, 257, 1LL << 32), "-1 4294967295 -1 1 0");
    EXPECT_EQ(Formatted(_T("%08X %x %#x %I64x"), 0xABu, -1, 255, -1LL), "000000AB ffffffff 0xff ffffffffffffffff");
    EXPECT_EQ(Formatted(_T("%-08.3f|%e|%g|%+.0f|%G"), 3.14159, 12345.678, 1e-5, 2.5, 1e20),
              "3.142   |1.234568e+04|1e-05|+2|1E+20");
    EXPECT_EQ(Formatted(_T("%08X"), reinterpret_cast<void *>(0x1234)), "00001234");
    EXPECT_EQ(Formatted(_T("%p"), reinterpret_cast<void *>(0xAB)), std::string(2 * sizeof(void *) - 2, '0') + "AB");
    EXPECT_EQ(Formatted(_T("100%%%s%"
                           "%"),
                        _T("")),
              "100%%");
    EXPECT_EQ(Formatted(_T("%d"), true) + Formatted(_T("%.0d|%5.3d"), 0, 7), "1|  007");
    EXPECT_EQ(Formatted(_T("%1000d"), 1).size(), 1000u);
    CString text = _T("a");
    text.AppendFormat(_T("%s%d"), text, 1);
    EXPECT_EQ(text, _T("aa1"));
    CStringA bytes;
    bytes.Format("%s %S %hs %ls", "n", _T("\u00e9"), "h", _T("w"));
    EXPECT_EQ(bytes, "n \xE9 h w");
}

TEST(Format, NumbersAreThoseOfTheCLibrary)
{
    std::mt19937_64 random(11);
    for (int i = 0; i < 20000; ++i)
    {
        bool const bFloat = random() % 2;
        char const conversion = bFloat ? "eEfFgG"[random() % 6] : "diuoxX"[random() % 6];
        std::string format = "[%";
        for (char const flag : {'-', '+', ' ', '#', '0'})
        {
            // Signs of what has none, and another form of what has one, are each library's own affair.
            bool const bOwn = (flag == '+' || flag == ' ') ? std::strchr("uoxX", conversion) != nullptr
                                                           : flag == '#' && std::strchr("diu", conversion) != nullptr;
            format += random() % 3 == 0 && !bOwn ? std::string(1, flag) : "";
        }
        format += random() % 2 ? std::to_string(random() % 20) : "";
        format += random() % 2 ? "." + std::to_string(random() % 12) : "";
        format += (bFloat ? "" : "ll") + std::string(1, conversion) + "]";
        std::array<char, 512> expected;
        CStringA text;
        if (bFloat)
        {
            double const value = static_cast<double>(static_cast<std::int64_t>(random())) / 9e18 *
                                 std::array{1.0, 1e-9, 1e-5, 10.0, 1e6, 1e30, 0.0}[random() % 7];
            std::snprintf(expected.data(), expected.size(), format.c_str(), value);
            text.Format(format.c_str(), value);
        }
        else
        {
            auto const value = static_cast<long long>(random()) >> random() % 64;
            std::snprintf(expected.data(), expected.size(), format.c_str(), value);
            text.Format(format.c_str(), value);
        }
        ASSERT_STREQ(text, expected.data()) << format;
    }
}

TEST(Format, HostileFormatsAreRefused)
{
    EXPECT_TRUE(Raises<CInvalidArgException>([] { CString().Format(NO_TEXT); }));
    for (LPCTSTR const format :
         {_T("%"), _T("a%"), _T("%5"), _T("%l"), _T("%I"), _T("%q"), _T("%\u00e9"), _T("%n"), _T("%s"), _T("%hs"),
          _T("%.3"), _T("%-"), _T("%f"), _T("%99999999999d"), _T("%.99999999999d")})
    {
        EXPECT_TRUE(Refuses(format, 1)) << kvx::ToUtf8(format);
    }
    EXPECT_TRUE(Refuses(_T("%d %d"), 1));
    EXPECT_TRUE(Refuses(_T("%*d"), 1));
    EXPECT_TRUE(Refuses(_T("%*d"), 1 << 30, 1));
    EXPECT_TRUE(Refuses(_T("%*d"), LLONG_MIN, 1));
    EXPECT_TRUE(Refuses(_T("%d"), _T("x")) && Refuses(_T("%d"), 1.5) && Refuses(_T("%x"), 1.5) &&
                Refuses(_T("%c"), _T("x")));
    EXPECT_TRUE(Refuses(_T("%S"), _T("x")) && Refuses(_T("%s"), "x") &&
                Refuses(_T("%s"), static_cast<void *>(&std::cout)));

    // Whatever stands in a format, it is carried out or refused.
    std::mt19937 random(5);
    constexpr std::string_view LETTERS = "%%%%%-+ #0123456789.**hlIwjzt64diuoxXpeEfgGaAcCsSn\xFF";
    int nDone = 0;
    for (int i = 0; i < 20000; ++i)
    {
        CString format;
        for (auto length = random() % 10; length > 0; --length)
        {
            format.AppendChar(static_cast<WCHAR>(LETTERS[random() % LETTERS.size()]));
        }
        nDone += !Refuses(format, 40, _T("text"), 1.5, "narrow", &random, -7, 1e300);
    }
    EXPECT_GT(nDone, 500);
}
