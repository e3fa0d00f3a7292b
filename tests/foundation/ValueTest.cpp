#include "kvx/foundation/Dictionary.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>

namespace
{
class CVersion : public CStringable
{
public:
    CString ToString() const override { return _T("5.0"); }
    void FromString(CString const &) override {}
};

CString Walk(CAttributeSet const & values)
{
    CString out;
    CString name;
    CString value;
    for (POSITION pos = values.GetStartValuePosition(); pos;)
    {
        values.CAttributeSet::GetNextValue(pos, name, value);
        out += _T("[") + name + _T("|") + value + _T("]");
    }
    return out;
}

CString Listed(LPCTSTR text)
{
    CAttributeSet values;
    values.FromString(CString(text));
    return Walk(values);
}

double Number(LPCTSTR text)
{
    return CStringValue(text);
}

template <class... T>
constexpr bool MAY_HOLD =
    ((std::is_constructible_v<CStringValue, T const &> && std::is_assignable_v<CStringValue &, T const &>)&&...);
} // namespace

TEST(Value, NumbersAreWrittenSigned)
{
    EXPECT_EQ(CStringValue(4294967295u), _T("-1"));
    EXPECT_EQ(static_cast<unsigned>(CStringValue(4294967295u)), 4294967295u);
    EXPECT_EQ(CStringValue(std::uint64_t{1} << 63), _T("-9223372036854775808"));
    EXPECT_EQ(static_cast<std::uint64_t>(CStringValue(UINT64_MAX)), UINT64_MAX);
    EXPECT_EQ(CStringValue(static_cast<signed char>(-3)), _T("-3"));
    EXPECT_EQ(CStringValue(static_cast<unsigned char>(253)), _T("253"));
    EXPECT_EQ(CStringValue(true), _T("1"));
    EXPECT_EQ(CStringValue(1.5), _T("1.500000"));
    EXPECT_EQ(CStringValue(CVersion()), _T("5.0"));
    CStringValue value;
    value = INT_MIN;
    EXPECT_EQ(static_cast<int>(value), INT_MIN);
    value = INT64_MIN;
    EXPECT_EQ(static_cast<std::int64_t>(value), INT64_MIN);
    enum
    {
        COUNT = 300
    };
    enum class Scoped
    {
        One
    };
    value = COUNT;
    EXPECT_EQ(value + CStringValue(COUNT), _T("300300"));
    EXPECT_EQ(CStringValue('A') + CStringValue(0.5f), _T("650.500000"));
    static_assert(MAY_HOLD<LPCTSTR, CString, bool, char, long, float, long double>);
    static_assert(!MAY_HOLD<char16_t> && !MAY_HOLD<wchar_t> && !MAY_HOLD<char8_t> && !MAY_HOLD<char32_t>);
    static_assert(!MAY_HOLD<Scoped> && !MAY_HOLD<std::atomic<int>> && !MAY_HOLD<void *>);
}

TEST(Value, ReadingStopsAtWhatIsNoNumber)
{
    EXPECT_EQ(CStringValue(_T("12abc")).ToInteger(), 12);
    EXPECT_EQ(CStringValue(_T("\t +7 8")).ToInteger(), 7);
    EXPECT_EQ(CStringValue(_T("- 7")).ToInteger() + CStringValue(_T("+-7")).ToInteger() +
                  CStringValue(_T("")).ToInteger(),
              0);
    EXPECT_EQ(CStringValue(_T("99999999999")).ToInteger(), INT_MAX);
    EXPECT_EQ(CStringValue(_T("-99999999999")).ToInteger(), INT_MIN);
    EXPECT_EQ(CStringValue(_T("2147483648")).ToInteger(), INT_MAX);
    EXPECT_EQ(CStringValue(_T("-9223372036854775809")).ToInteger64(), INT64_MIN);
    EXPECT_EQ(CStringValue(_T("9223372036854775807")).ToInteger64(), INT64_MAX);
    EXPECT_FALSE(static_cast<bool>(CStringValue(_T("true"))));
    EXPECT_TRUE(!CStringValue(_T("0x5")));
    EXPECT_EQ(static_cast<unsigned char>(CStringValue(_T("257"))), 1);

    EXPECT_EQ(Number(_T(" -1.25e2x")), -125.0);
    EXPECT_EQ(Number(_T("+.5")), 0.5);
    EXPECT_EQ(Number(_T("1e+2")), 100.0);
    EXPECT_EQ(Number(_T("1e")) + Number(_T("1.5.5")), 2.5);
    for (LPCTSTR const none : {_T(""), _T("--5"), _T("-+5"), _T("+-5"), _T("e5"), _T("."), _T("nan"), _T("inf")})
    {
        EXPECT_EQ(Number(none), 0.0) << CStringA(none);
    }
    double const infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(Number(_T("1e400")), infinity);
    EXPECT_EQ(Number(_T("-0.5e999")), -infinity);
    EXPECT_EQ(Number(_T("1e99999999999999999999")), infinity);
    EXPECT_EQ(Number(_T("5e-999")) + Number(_T("0.01e-400")) + Number(_T("1000e-99999999999")), 0.0);
    EXPECT_TRUE(std::signbit(Number(_T("-0"))));
}

TEST(Value, BuffersAreRawUnits)
{
    CStringValue value;
    value.FromBuffer("a\0\0\0b\0c", 7); // the odd byte is lost
    ASSERT_EQ(value.GetLength(), 3);
    EXPECT_EQ(value[1], 0);
    std::array<char, 8> bytes{'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(value.ToBuffer(bytes.data(), 5), 5u); // may split a unit
    EXPECT_EQ(std::string(bytes.data(), 6), std::string("a\0\0\0bx", 6));
    value.FromBuffer(nullptr, 0);
    EXPECT_TRUE(value.IsEmpty());
    EXPECT_EQ(value.ToBuffer(bytes.data(), 8), 0u);
    for (int const length : {4, 400})
    {
        value = CString(_T('a'), length) + _T("bc");
        CString const before = value;
        value.FromBuffer(value.GetString() + 1, static_cast<DWORD>(2 * length + 2)); // its own text, shared
        EXPECT_EQ(value, before.Mid(1));
        value.FromBuffer(value.GetString() + length - 1, 4); // and not
        EXPECT_EQ(value, _T("bc"));
    }
}

TEST(ValueSet, ItsOwnTextsMayBeArguments)
{
    CAttributeSet values;
    values[_T("a")] = _T("a");
    values[_T("old")] = _T("a name that is longer than any that is kept in place");
    values[_T("text")] = _T("text=1 other=2");
    EXPECT_TRUE(values.RemoveValue(values[_T("a")]) && values.RenameValue(_T("old"), values[_T("old")]));
    values.FromString(values[_T("text")]);
    values.ToString(values[_T("other")], 0, _T(","));
    EXPECT_EQ(Walk(values),
              _T("[text|1][a name that is longer than any that is kept in place|a name that is longer than ")
              _T("any that is kept in place][other|text=1,a name that is longer than any that is kept in ")
              _T("place=\"a name that is longer than any that is kept in place\",other=2]"));
}

TEST(ValueSet, ReadsPairs)
{
    EXPECT_EQ(Listed(_T("a=1 b=\"x y\" c=")), _T("[a|1][b|x y][c|]"));
    EXPECT_EQ(Listed(_T("no pair here")), _T(""));
    EXPECT_EQ(Listed(_T("=x")), _T("[|x]"));
    EXPECT_EQ(Listed(_T("a=1 junk b=2")), _T("[a|1][junk b|2]"));
    EXPECT_EQ(Listed(_T("a=1,b=2")), _T("[a|1,b=2]"));
    EXPECT_EQ(Listed(_T("a=\"1 2\",b=3")), _T("[a|1 2][,b|3]"));
    EXPECT_EQ(Listed(_T("a=\"  x  \" a2='it\\'s \\\"' b=3")), _T("[a|x][a2|it's \\\"][b|3]"));
    EXPECT_EQ(Listed(_T("a=\"C:\\my dir\\\"")), _T("[a|C:\\my dir\"]"));
    EXPECT_EQ(Listed(_T("a=\"x")), _T("[a|x]"));
    EXPECT_EQ(Listed(_T("a=\"\" b=\"")), _T("[a|][b|]"));
    EXPECT_EQ(Listed(_T("a=1 b=2 a=3")), _T("[a|3][b|2]"));
    CDictionary values;
    values.FromString(CStringA("a=\xC3\xA9"));
    EXPECT_EQ(values[_T("a")], _T("\u00e9"));
}

TEST(ValueSet, WritesPairs)
{
    CAttributeSet values;
    CString out = _T("kept");
    values.ToString(out, 1, _T(","));
    EXPECT_EQ(out, _T("kept"));
    values[_T("a")] = _T("1%d");
    values[_T("b")] = _T("say \"x\\\"");
    values[_T("c")];
    values[_T("d")] = _T("tab\t");
    values.ToString(out, 0, _T(" "));
    EXPECT_EQ(out, _T("a=1%d b=\"say \\\"x\\\\\"\" c= d=tab\t"));
    EXPECT_EQ(values.ToString(1, _T("; ")), _T("a=\"1%d\"; b=\"say \\\"x\\\\\"\"; c=\"\"; d=\"tab\t\""));
}

TEST(ValueSet, ReadingAndCopying)
{
    CDictionary values;
    CDictionary const & constant = values;
    CString out = _T("old");
    EXPECT_EQ(constant[_T("a")], _T(""));
    EXPECT_EQ(values.GetValue(_T("a"), out), 0);
    EXPECT_EQ(out, _T("old"));
    EXPECT_EQ(values.GetCount(), 0);
    (void)values[_T("a")];
    EXPECT_EQ(values.GetCount(), 1);

    CDictionary other;
    other[_T("a")] = 5;
    other[_T("b")] = 6;
    values[_T("c")] = 7;
    values += other;
    EXPECT_EQ(values.GetCount(), 3);
    values.SetValue(_T("c"), other);
    EXPECT_EQ(values[_T("c")], _T(""));
    values = other;
    EXPECT_EQ(values.GetCount(), 2);
    values = static_cast<CDictionary const &>(values);
    EXPECT_EQ(values.RenameValue(_T("a"), _T("b")), 1);
    EXPECT_EQ(values.RenameValue(_T("a"), _T("b")), 0);
    EXPECT_EQ(values.ToString(0, _T(" ")), _T("b=5"));
}
