#include "kvx/text/RegExp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using testing::StrEq;

namespace
{
/// The groups of the first match, as "start-end:text" and "-" for one that took no part; or "no match", or the error.
std::string Find(char const * pattern, CStringA const & subject)
{
    try
    {
        CRegExpA expression(pattern);
        if (!expression.Exec(subject))
        {
            return "no match";
        }
        std::string out;
        for (int i = 0; i < expression.GetNumberOfMatches(); ++i)
        {
            out += i == 0 ? "" : " ";
            out += !expression.IsMatched(i)
                       ? "-"
                       : std::to_string(expression.GetMatchStart(i)) + "-" + std::to_string(expression.GetMatchEnd(i)) +
                             ":" + expression.GetMatch(i).GetString();
        }
        return out;
    }
    catch (CRegExpException const & error)
    {
        return std::to_string(error.GetError());
    }
}

TEST(RegExp, FindsTheFirstMatchAndItsGroups)
{
    struct
    {
        char const * pattern;
        char const * subject;
        char const * found;
    } const cases[] = {
        {"", "abc", "0-0:"},
        {"b", "abc", "1-2:b"},
        {"a|ab", "ab", "0-1:a"},
        {"^(a|ab)(c|bcd)(d*)$", "abcd", "0-4:abcd 0-1:a 1-4:bcd 4-4:"},
        {"ab*c", "xabbbcx", "1-6:abbbc"},
        {"ab?c", "abc ac", "0-3:abc"},
        {"(ab)+", "xababa", "1-5:abab 3-5:ab"},
        {"(ab)*c", "c", "0-1:c -"},
        {"(a|b)*", "abba", "0-4:abba 3-4:a"},
        {"(a(b)?)+", "aba", "0-3:aba 2-3:a 1-2:b"}, // what an earlier round found stays
        {"x*", "aaa", "0-0:"},
        {"[a-c]+", "xxabcabx", "2-7:abcab"},
        {"[^a-c]+", "abxyb", "2-4:xy"},
        {"[]a]+", "b]a]", "1-4:]a]"},
        {"[-a]+", "b-a-", "1-4:-a-"},
        {"[a-]+", "b-a-", "1-4:-a-"},
        {"[a-c-e]+", "zabcdez", "1-6:abcde"},
        {"\\<foo\\>", "afoo foob foo", "10-13:foo"},
        {"\\<", "", "no match"},
        {"\\d+", "ab123c", "2-5:123"},
        {"\\D", "1\x01", "1-2:\x01"}, // the class in front, which is of controls
        {"\\M", "a", "no match"},
        {"\\w+\\.\\w+", "a b_1.c", "2-7:b_1.c"},
        {"\\\\", "a\\b", "1-2:\\"},
        {"^b", "ab", "no match"},
        {"a$", "ab", "no match"},
        {"a.c", "a\nc", "0-3:a\nc"},
        {"()", "a", "0-0: 0-0:"},
        {"(((((((((((x)))))))))))", "x", "0-1:x 0-1:x 0-1:x 0-1:x 0-1:x 0-1:x 0-1:x 0-1:x 0-1:x 0-1:x 0-1:x 0-1:x"},
    };
    for (auto const & one : cases)
    {
        EXPECT_THAT(Find(one.pattern, one.subject), StrEq(one.found)) << one.pattern << " in " << one.subject;
    }
    EXPECT_THAT(Find("a.b", CStringA("xa\0b", 4)), StrEq(std::string("1-4:a")));
}

TEST(RegExp, RefusesMalformedPatterns)
{
    std::pair<char const *, int> const cases[] = {{"a**", -7}, {"(a*)*", -7}, {"*a", -7},  {"(^)+", -7}, {"a|+", -7},
                                                  {"a\\", -8}, {"[b-a]", -5}, {"[a", -6},  {"[]", -6},   {"[^", -6},
                                                  {"(a", -4},  {"a)", -4},    {"((a)", -4}};
    for (auto const & [pattern, error] : cases)
    {
        EXPECT_EQ(Find(pattern, ""), std::to_string(error)) << pattern;
    }
    EXPECT_EQ(Find(std::string(40000, 'a').c_str(), "a"), "-2");
    EXPECT_EQ(Find(std::string(1000000, '(').c_str(), "a"), "-2"); // however deep
    EXPECT_THROW(CRegExpA(nullptr), CRegExpException);
    EXPECT_EQ(CRegExpException(-8).GetErrorString(), _T("invalid escape \\ sequence"));
    EXPECT_EQ(CRegExpException(-27).GetErrorString(), _T("unknown error code (0x1b)!"));
    EXPECT_EQ(CRegExpException(0).GetErrorString(), _T("no errors detected"));
    CRegExpA expression("a");
    EXPECT_EQ(expression.GetMatchStart(99), -1);
    EXPECT_EQ(expression.GetMatch(-1), "");
}

TEST(RegExp, SearchesEndHoweverLongTheyWouldTake)
{
    CStringA const long1('a', 1 << 20);
    EXPECT_EQ(Find("(a|aa)*b", CStringA('a', 50)), "no match"); // there is no b
    EXPECT_EQ(Find("(a|aa)*[bc]", CStringA('a', 50)), "-50");
    EXPECT_EQ(Find("a*[bc]", long1), "-50");
    EXPECT_EQ(Find("(a|b)*", long1).substr(0, 10), "0-1048576:");
    EXPECT_EQ(Find("(a|b)*", CStringA('a', 1 << 23)), "-50"); // too much to keep
    CStringA const nearly('a', 15000);
    EXPECT_EQ(Find(nearly + "b", CStringA('a', 1 << 23)), "-50"); // the search for a text is paid for too
    EXPECT_EQ(Find(CStringA('(', 1000) + "a" + CStringA(')', 1000) + "*b|c", CStringA('a', 1 << 14)), "-50");
    CRegExpA strict("(a|aa)*[bc]");
    strict.SetStepLimit(5);
    EXPECT_THROW(strict.Exec("aaaaaaaaaac"), CRegExpException);
    strict.SetStepLimit(1000);
    EXPECT_TRUE(strict.Exec("aaaaaaaaaac"));
}

TEST(RegExp, TheWideOneSeesTheBytesUpToTheFirstZero)
{
    CRegExp first(_T("abc"));
    EXPECT_TRUE(first.Exec(_T("axx")));
    EXPECT_EQ(first.GetMatch(0), _T("a"));
    EXPECT_FALSE(first.Exec(_T("xabc")));
    CRegExp pair(_T("\u6261\u6463")); // the bytes of "abcd"
    EXPECT_TRUE(pair.Exec(_T("\u6178\u6362\u6464")));
    EXPECT_EQ(pair.GetMatchStart(0), 1);
    EXPECT_EQ(pair.GetMatchEnd(0), 5);
}
} // namespace
