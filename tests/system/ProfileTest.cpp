#include "kvx/foundation/Dictionary.h"
#include "kvx/system/WinProfile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

TEST(Profile, SectionsKeysAndValues)
{
    auto const path = std::filesystem::temp_directory_path() / ("kvx-profile-" + std::to_string(GetCurrentProcessId()));
    std::ofstream(path) << "; kept\n[A]\none=1\ntwo = two words\n[b]\nother=x\n";
    CWinProfile profile(kvx::FromUtf8(path.string()), _T("a"));
    EXPECT_EQ(profile.GetInt(_T("ONE")), 1);
    EXPECT_EQ(profile.GetInt(_T("none"), -7), -7);
    EXPECT_EQ(profile.GetString(_T("two")), _T("two words"));
    EXPECT_EQ(profile.GetString(_T("two"), _T("default"), _T("b")), _T("default"));
    EXPECT_TRUE(profile.SetInt(_T("three"), -3) && profile.GetInt(_T("three")) == -3);

    CStringArray names;
    EXPECT_EQ(profile.GetSections(names), 2);
    EXPECT_EQ(names[0] + names[1], _T("Ab"));
    EXPECT_EQ(profile.GetKeys(names), 3);
    EXPECT_EQ(names[2], _T("three"));
    EXPECT_EQ(profile.GetKeys(names, _T("none")), 0);
    CDictionary values;
    values[_T("own")] = 1;
    profile.GetValues(values);
    EXPECT_EQ(values.GetValueCount(), 4);

    // Lists and values beyond the first buffer.
    CDictionary many;
    for (int i = 0; i < 150; ++i)
    {
        CString name;
        name.Format(_T("a rather long name of a key, so that a few of them fill a buffer: %d"), i);
        many[name] = i;
    }
    EXPECT_TRUE(profile.SetValues(many, _T("many")));
    EXPECT_EQ(profile.GetKeys(names, _T("many")), 150);
    EXPECT_EQ(profile.GetInt(names[149], 0, _T("many")), 149);
    EXPECT_TRUE(profile.SetString(_T("long"), CString(_T('x'), 10000)));
    EXPECT_EQ(profile.GetString(_T("long")).GetLength(), 8191);
    EXPECT_TRUE(profile.SetString(_T("long"), nullptr));
    EXPECT_EQ(profile.GetString(_T("long"), _T("gone")), _T("gone"));
    std::filesystem::remove(path);

    profile.SetPath(_T("Z:\\no\\such\\folder\\x.ini"));
    EXPECT_FALSE(profile.SetString(_T("k"), _T("v")));
    EXPECT_EQ(profile.GetSections(names), 0);
}
