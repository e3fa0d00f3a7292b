#include "tests/support/Raised.h"

#include "kvx/foundation/Dictionary.h"

#include <gtest/gtest.h>

namespace
{
CString Walked(CAttributeSet const & values)
{
    CString out;
    CString name;
    CString value;
    for (POSITION pos = values.GetStartValuePosition(); pos;)
    {
        values.GetNextValue(pos, name, value);
        out += name + _T("=") + value + _T(" ");
    }
    CString back;
    for (POSITION pos = values.GetEndValuePosition(); pos;)
    {
        values.GetPrevValue(pos, name, value);
        back = name + _T("=") + value + _T(" ") + back;
    }
    EXPECT_EQ(out, back);
    return out;
}
} // namespace

TEST(AttributeSet, WalksInOrderOfInsertion)
{
    CAttributeSet values;
    for (LPCTSTR const name : {_T("z"), _T("a"), _T("m")})
    {
        values[name] = name;
    }
    values[_T("z")] = 1;
    EXPECT_EQ(Walked(values), _T("z=1 a=a m=m "));
    EXPECT_EQ(values.RenameValue(_T("z"), _T("y")), 1);
    EXPECT_EQ(values.RenameValue(_T("z"), _T("y")), 0);
    EXPECT_EQ(values.RenameValue(_T("a"), _T("m")), 1);
    EXPECT_EQ(values.RemoveValue(_T("Y")), 0);
    EXPECT_EQ(Walked(values), _T("m=a y=1 "));
    CAttributeSet const copy = values;
    EXPECT_EQ(Walked(copy), _T("m=a y=1 "));

    // Names outlive their values until RemoveAll.
    static_cast<CValueAccessor &>(values).RemoveAllValues();
    EXPECT_EQ(values.GetValueCount(), 0);
    EXPECT_EQ(Walked(values), _T("m= y= "));
    values[_T("y")] = 2;
    values[_T("x")] = 3;
    EXPECT_EQ(Walked(values), _T("m= y=2 x=3 "));
    values.RemoveAll();
    EXPECT_EQ(Walked(values), _T(""));
    values = copy;
    EXPECT_EQ(Walked(values), _T("m=a y=1 "));
}

TEST(AttributeSet, KeepsManyValuesInOrderAndInPlace)
{
    constexpr int COUNT = 1000;
    CAttributeSet values;
    auto const name = [](int i) { return CString(CStringValue(i)); };
    for (int i = 0; i < COUNT; ++i)
    {
        values[name(i)] = i;
    }
    CStringValue & kept = values[_T("7")];
    CString expected;
    for (int i = 0; i < COUNT; ++i)
    {
        if (i % 3 == 0)
        {
            EXPECT_EQ(values.RemoveValue(name(i)), 1);
        }
        else
        {
            expected += name(i) + _T("=") + name(i) + _T(" ");
        }
    }
    for (int i = 0; i < 3 * COUNT; ++i) // comes and goes in the same places
    {
        values[_T("x") + name(i)] = i;
        EXPECT_EQ(values.RemoveValue(_T("x") + name(i)), 1);
    }
    kept = 7;
    EXPECT_EQ(values.GetCount(), COUNT - (COUNT + 2) / 3);
    EXPECT_EQ(Walked(values), expected);
    EXPECT_EQ(values.GetValue(_T("998")), _T("998"));
    EXPECT_EQ(values.HasValue(_T("999")), 0);
}

TEST(Dictionary, GoesThroughAnArchive)
{
    CDictionary values;
    values[_T("n\u00e9")] = _T("v\u20ac");
    values[_T("long")] = CString(_T('x'), 100000);
    values[_T("")] = _T("");
    CMemFile file;
    {
        CArchive archive(&file, CArchive::store);
        archive << &values;
    }
    file.SeekToBegin();
    CDictionary * loaded = nullptr;
    {
        CArchive archive(&file, CArchive::load);
        archive >> loaded;
    }
    EXPECT_EQ(loaded->ToString(1, _T(" ")), values.ToString(1, _T(" ")));
    delete loaded;

    BYTE const absurd[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 'a'};
    CMemFile bad(const_cast<BYTE *>(absurd), sizeof(absurd));
    CArchive archive(&bad, CArchive::load);
    EXPECT_EQ(CauseOf([&] { values.Serialize(archive); }), CArchiveException::endOfFile);
}
