#include "kvx/registry/Registry.h"

#include "kvx/foundation/Dictionary.h"
#include "tests/support/RegistryStore.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <vector>

namespace
{
using Texts = std::vector<std::basic_string<WCHAR>>;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using Bytes = std::vector<BYTE>;

class Open : public CRegistry
{
public:
    using CRegistry::ConvertFromString;
    using CRegistry::ConvertToString;
    using CRegistry::GetLongestNameLength;
    using CRegistry::GetRegistryTypeFromName;
    using CRegistry::GetRegistryTypeName;
};

Texts ToTexts(CStringList const & list)
{
    Texts texts;
    for (POSITION pos = list.GetHeadPosition(); pos;)
    {
        texts.emplace_back(list.GetNext(pos).AsView());
    }
    return texts;
}

/// NAME=VALUE, in the order of the names.
std::vector<std::string> ToPairs(CDictionary & values)
{
    std::vector<std::string> pairs;
    std::istringstream all(kvx::ToUtf8(values.ToString(0, _T(";"))));
    for (std::string pair; std::getline(all, pair, ';');)
    {
        pairs.push_back(pair);
    }
    std::ranges::sort(pairs);
    return pairs;
}

class Registry : public testing::Test
{
protected:
    Open m_key;

    void SetUp() override { ASSERT_EQ(m_key.CreateKey(_T("hkcu\\Software\\Test")), 0); }
    void TearDown() override { EXPECT_EQ(CRegistry::DeleteKey(HKEY_CURRENT_USER, _T("Software\\Test")), 0); }

    std::pair<LONG, Texts> GetList(LPCTSTR name)
    {
        CStringList list;
        list.AddTail(_T("before"));
        LONG const code = m_key.QueryMultistringValue(name, list);
        return {code, ToTexts(list)};
    }
    void SetText(LPCTSTR name, DWORD type, CString::View text)
    {
        EXPECT_EQ(m_key.SetValue(name, type, text.data(), static_cast<DWORD>(2 * text.size())), 0);
    }
};

TEST(RegistryRoots, AreFoundByBothNames)
{
    HKEY root = nullptr;
    CString subKey;
    CRegistry::ParseRootKey(_T("hklm\\software\\Acme\\"), root, subKey);
    EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
    EXPECT_EQ(subKey, _T("software\\Acme\\"));
    CRegistry::ParseRootKey(_T("HKEY_CURRENT_CONFIG"), root, subKey);
    EXPECT_EQ(root, HKEY_CURRENT_CONFIG);
    EXPECT_EQ(subKey, _T(""));
    for (auto const & [name, key] : {std::pair{_T("HKCR"), HKEY_CLASSES_ROOT},
                                     {_T("Hkey_Users"), HKEY_USERS},
                                     {_T("hkus"), HKEY_USERS},
                                     {_T("HKPD"), HKEY_PERFORMANCE_DATA},
                                     {_T("HKDD"), HKEY_DYN_DATA},
                                     {_T("HKU"), HKEY{}},
                                     {_T(""), HKEY{}}})
    {
        EXPECT_EQ(CRegistry::LookupRootKey(name), key);
    }
    EXPECT_EQ(CRegistry().OpenKey(_T("nowhere\\software")), ERROR_INVALID_HANDLE);
    EXPECT_EQ(CRegistry().OpenKey(_T("HKLM")), 0);
}

TEST_F(Registry, KeysOpenAndClose)
{
    CRegistry other;
    EXPECT_EQ(other.CloseKey(), ERROR_INVALID_HANDLE);
    DWORD disposition = 0;
    EXPECT_EQ(other.CreateKey(m_key, _T("a\\b"), 0, KEY_ALL_ACCESS, nullptr, &disposition), 0);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
    EXPECT_EQ(other.CreateKey(m_key, _T("A\\B"), 1), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(other.GetHandle(), nullptr); // it has closed first

    EXPECT_EQ(other.OpenKey(m_key, _T("a")), 0);
    {
        CRegistry const copy(other);
        EXPECT_EQ(copy.GetHandle(), other.GetHandle());
    }
    EXPECT_EQ(other.CloseKey(), ERROR_INVALID_HANDLE); // the copy has closed the one handle

    EXPECT_EQ(m_key.DeleteKey(_T("a")), ERROR_ACCESS_DENIED);
    EXPECT_EQ(m_key.DeleteKey(_T("a"), 1), 0);
    EXPECT_EQ(other.OpenKey(m_key, _T("a")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(other.CreateKey(m_key, _T("own")), 0);
    EXPECT_EQ(other.DeleteKey(nullptr), 0);

    HKEY const hKey = m_key.DetachKey();
    EXPECT_EQ(m_key.DeleteValue(_T("v")), ERROR_INVALID_HANDLE);
    EXPECT_EQ(m_key.AttachKey(hKey), nullptr);
}

TEST_F(Registry, KeysAreRedirected)
{
    auto const before = CRegistry::SetTranslationProc(
        [](HKEY & parent, CString & subKey)
        {
            parent = HKEY_CURRENT_USER;
            subKey = _T("Software\\Test\\to\\") + subKey;
            return 0;
        });
    CRegistry other;
    EXPECT_EQ(other.CreateKey(_T("HKLM\\Some")), 0);
    EXPECT_EQ(other.OpenKey(HKEY_LOCAL_MACHINE, _T("some")), 0);
    EXPECT_NE(CRegistry::SetTranslationProc(before), nullptr);
    EXPECT_EQ(before, nullptr);
    EXPECT_EQ(other.OpenKey(m_key, _T("to\\Some")), 0);
    EXPECT_EQ(CRegistry::IsExemptRedirectedKey(_T("HKLM\\Some")), 0);
}

TEST_F(Registry, ReadsAndWritesValues)
{
    CString text(_T("before"));
    DWORD number = 5;
    DWORD type = 0;
    EXPECT_EQ(m_key.QueryValue(_T("none"), text), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(text, _T(""));
    EXPECT_EQ(m_key.QueryValue(_T("none"), number), ERROR_FILE_NOT_FOUND);

    EXPECT_EQ(m_key.SetValue(_T("Text"), CString(_T("ab"))), 0);
    EXPECT_EQ(m_key.SetValue(_T("Number"), 0x80000001), 0);
    EXPECT_TRUE(m_key.QueryValue(_T("text"), text) == 0 && text == _T("ab"));
    EXPECT_TRUE(m_key.QueryValue(_T("number"), number) == 0 && number == 0x80000001);
    EXPECT_EQ(m_key.QueryValue(_T("Number"), text), ERROR_INVALID_DATA);
    EXPECT_EQ(m_key.QueryValue(_T("Text"), number), ERROR_INVALID_DATA);
    SetText(_T("Short"), REG_SZ, {_T("xyz"), 2});
    EXPECT_EQ(m_key.QueryValue(_T("Short"), number), ERROR_INVALID_DATA);
    EXPECT_EQ(number, 0x00790078u); // copied all the same
    EXPECT_TRUE(m_key.QueryValue(_T("Short"), text) == 0 && text == _T("xy"));
    EXPECT_TRUE(m_key.QueryType(_T("Number"), type) == 0 && type == REG_DWORD);

    BYTE data[8] = {};
    DWORD size = 8;
    EXPECT_EQ(m_key.QueryValue(_T("Text"), type, data, size), 0);
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(m_key.SetValue(_T("Odd"), REG_EXPAND_SZ, "a\0b\0c", 5), 0);
    EXPECT_TRUE(m_key.QueryValue(_T("Odd"), text) == 0 && text == _T("ab"));
    EXPECT_EQ(CRegistry::SetValue(m_key, _T("sub"), nullptr, REG_DWORD, &number, 4), 0);
    CRegistry sub;
    EXPECT_EQ(sub.OpenKey(m_key, _T("sub")), 0);
    size = 4;
    EXPECT_EQ(CRegistry::QueryValue(sub, nullptr, &type, nullptr, data, &size), 0);
    EXPECT_EQ(type, REG_DWORD);
}

TEST_F(Registry, ListsOfTexts)
{
    for (Texts const & texts : {Texts{}, Texts{_T("one")}, Texts{_T("one"), _T(""), _T("three")},
                                Texts{_T(""), _T("x")}, Texts{_T("a"), _T("")}})
    {
        CStringList list;
        for (std::basic_string<WCHAR> const & text : texts)
        {
            list.AddTail(CString(text));
        }
        EXPECT_EQ(m_key.SetMultistringValue(_T("l"), list), 0);
        EXPECT_EQ(GetList(_T("l")), (std::pair<LONG, Texts>(0, texts)));
    }
    for (auto const & [stored, texts] : {std::pair<CString::View, Texts>{{_T("a\0bc"), 3}, {_T("a")}},
                                         {{_T("a\0b\0"), 4}, {_T("a"), _T("b")}},
                                         {_T(""), {}}})
    {
        SetText(_T("l"), REG_MULTI_SZ, stored);
        EXPECT_EQ(GetList(_T("l")), (std::pair<LONG, Texts>(0, texts)));
    }
    SetText(_T("l"), REG_SZ, _T("a"));
    EXPECT_EQ(GetList(_T("l")), (std::pair<LONG, Texts>(ERROR_INVALID_DATA, {})));
}

TEST_F(Registry, Enumerates)
{
    CStringList list;
    DWORD const number = 0xFFFFFFFF;
    EXPECT_EQ(CRegistry().QueryValueNames(list), ERROR_INVALID_HANDLE);
    EXPECT_EQ(CRegistry().QuerySubKeys(list), ERROR_INVALID_HANDLE);
    std::basic_string<WCHAR> const longName(1000, _T('n'));
    SetText(longName.c_str(), REG_SZ, _T("long"));
    SetText(_T("cut"), REG_EXPAND_SZ, _T("value"));
    EXPECT_EQ(m_key.SetValue(_T("number"), number), 0);
    EXPECT_EQ(m_key.SetValue(_T("bytes"), REG_BINARY, "abc", 3), 0);
    EXPECT_EQ(m_key.GetLongestNameLength(), 1001u);
    EXPECT_EQ(m_key.QueryValueNames(list, 0), 0);
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(m_key.QueryValueNames(list), 0); // in an order that is the host's
    EXPECT_THAT(ToTexts(list), UnorderedElementsAre(longName, _T("cut"), _T("number"), _T("bytes")));

    CDictionary values;
    EXPECT_EQ(m_key.QueryValues(values), 0);
    EXPECT_THAT(ToPairs(values), ElementsAre("bytes=", "cut=value", std::string(1000, 'n') + "=long", "number=-1"));
    values.RemoveAllValues();
    EXPECT_EQ(m_key.QueryValues(values, 2), 0);
    EXPECT_EQ(values.GetValueCount(), 2);
    Bytes const large(4001);
    EXPECT_EQ(m_key.SetValue(_T("bytes"), REG_BINARY, large.data(), 4001), 0);
    values.RemoveAllValues();
    EXPECT_EQ(m_key.QueryValues(values), 0);
    EXPECT_EQ(values.GetValueCount(), 0);

    for (LPCTSTR name : {_T("c"), _T("A"), _T("b")})
    {
        CRegistry sub;
        EXPECT_EQ(sub.CreateKey(m_key, name), 0);
        values[name] = name;
    }
    list.RemoveAll();
    EXPECT_EQ(m_key.QuerySubKeys(list, 2), 0);
    EXPECT_EQ(ToTexts(list), (Texts{_T("A"), _T("b")}));
    list.RemoveAll();
    EXPECT_EQ(m_key.EnumSubKeys(
                  [](CRegistry &, CString const & name, int index, void * context)
                  {
                      static_cast<CStringList *>(context)->AddTail(name);
                      return index == 0 ? 1 : 0;
                  },
                  &list),
              0);
    EXPECT_EQ(ToTexts(list), (Texts{_T("A"), _T("b")}));

    CRegistry sub;
    EXPECT_EQ(sub.OpenKey(m_key, _T("c")), 0);
    EXPECT_EQ(sub.SetValues(values), 0);
    CDictionary again;
    EXPECT_EQ(sub.QueryValues(again), 0);
    EXPECT_EQ(ToPairs(again), ToPairs(values));
    EXPECT_EQ(CRegistry().SetValues(values), ERROR_INVALID_HANDLE);
}

std::pair<bool, Bytes> FromText(DWORD type, CString const & text)
{
    void * data = nullptr;
    DWORD size = 99;
    Open::ConvertFromString(text, type, &data, &size);
    std::unique_ptr<void, decltype(&std::free)> const owner(data, &std::free);
    auto const * const bytes = static_cast<BYTE const *>(data);
    return {data != nullptr, Bytes(bytes, bytes + size)};
}

TEST(RegistryTexts, OfData)
{
    struct
    {
        DWORD type;
        Bytes data;
        LPCTSTR text;
    } const shown[] = {
        {REG_BINARY, {0, 0xFF, 0x1A}, _T("00 ff 1a")},
        {REG_BINARY, {}, _T("")},
        {REG_DWORD, {0x78, 0x56, 0x34, 0x12}, _T("0x12345678 (305419896)")},
        {REG_DWORD_BIG_ENDIAN, {0xFE, 0xFF, 0xFF, 0xFF}, _T("0xfffffffe (-2)")},
        {REG_DWORD, {1}, _T("0x00000001 (1)")},
        {REG_QWORD, {1, 2, 3, 4, 5, 6, 7, 8}, _T("0x0807060504030201")},
        {REG_MULTI_SZ, {'a', 0, 0, 0, 'b', 0, 0, 0, 0, 0}, _T("a\r\nb\r\n")},
        {REG_MULTI_SZ, {'a', 0, 0, 0, 'b', 0, 'x'}, _T("a\r\nb")},
        {REG_SZ, {'a', 0, 'b', 0}, _T("ab")},
        {REG_NONE, {'a', 0, 0, 0, 'b', 0}, _T("a")},
    };
    for (auto const & [type, data, text] : shown)
    {
        EXPECT_EQ(Open::ConvertToString(type, data.data(), static_cast<DWORD>(data.size())), text);
    }
    using Result = std::pair<bool, Bytes>;
    EXPECT_EQ(FromText(REG_SZ, _T("a")), (Result{true, {'a', 0, 0, 0}}));
    EXPECT_EQ(FromText(REG_BINARY, _T("00 ff-1A 7")), (Result{true, {0, 0xFF, 0x1A}}));
    EXPECT_EQ(FromText(REG_RESOURCE_LIST, _T("")), (Result{true, {0}}));
    EXPECT_EQ(FromText(REG_BINARY, _T("7")), (Result{true, {}}));
    EXPECT_EQ(FromText(REG_DWORD, _T("0x12345678 (305419896)")), (Result{true, {0x78, 0x56, 0x34, 0x12}}));
    EXPECT_EQ(FromText(REG_DWORD, _T("")), (Result{true, {0, 0, 0, 0}}));
    EXPECT_EQ(FromText(REG_DWORD, _T("0x1")), (Result{true, {0, 0, 0, 0x10}}));
    EXPECT_EQ(FromText(REG_QWORD, _T("0x0807060504030201")), (Result{true, {1, 2, 3, 4, 5, 6, 7, 8}}));
    EXPECT_EQ(FromText(REG_MULTI_SZ, _T("a\r\nb")), (Result{true, {'a', 0, 0, 0, 'b', 0, 0, 0, 0, 0}}));
    EXPECT_EQ(FromText(REG_MULTI_SZ, _T("")), (Result{true, {0, 0}}));
    EXPECT_EQ(FromText(REG_LINK, _T("abc")).second.size(), 8u);
    EXPECT_EQ(FromText(REG_NONE, _T("a")), (Result{false, {}}));
    Open::ConvertFromString(_T("a"), REG_SZ, nullptr, nullptr);
}

TEST(RegistryTexts, OfTypes)
{
    EXPECT_EQ(Open::GetRegistryTypeName(REG_NONE) + Open::GetRegistryTypeName(REG_FULL_RESOURCE_DESCRIPTOR) +
                  Open::GetRegistryTypeName(REG_DWORD_BIG_ENDIAN) + Open::GetRegistryTypeName(12),
              _T("REG_SZREG_DWORD"));
    EXPECT_EQ(Open::GetRegistryTypeFromName(_T("reg_QWORD")), REG_QWORD);
    EXPECT_EQ(Open::GetRegistryTypeFromName(_T("REG_NONE")), REG_SZ);
    for (DWORD type : {1, 2, 3, 4, 7, 8, 10, 11})
    {
        EXPECT_EQ(Open::GetRegistryTypeFromName(Open::GetRegistryTypeName(type)), type);
    }
}
} // namespace
