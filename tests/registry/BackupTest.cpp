#include "kvx/registry/Registry.h"
#include "kvx/registry/RegistryBackup.h"
#include "kvx/xml/XMLDocumentKVX.h"
#include "kvx/xml/XmlDocument.h"
#include "tests/support/RegistryStore.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using tinyxml2::XMLElement;

namespace
{
CString const ROOT = _T("HKCU\\Software\\Backup");
CString const COPY = _T("HKCU\\Software\\Copy");

class Backup : public testing::Test
{
protected:
    CRegistry m_key;
    CRegistryBackup m_backup;

    void SetUp() override { ASSERT_EQ(m_key.CreateKey(ROOT), 0); }
    void TearDown() override
    {
        CRegistry::DeleteKey(HKEY_CURRENT_USER, _T("Software\\Backup"));
        CRegistry::DeleteKey(HKEY_CURRENT_USER, _T("Software\\Copy"));
    }

    std::string Export()
    {
        CMemFile file;
        EXPECT_EQ(m_backup.Export(ROOT, file), 0) << kvx::ToUtf8(m_backup.GetErrorText());
        std::string text(static_cast<std::size_t>(file.GetLength()), '\0');
        file.SeekToBegin();
        file.Read(text.data(), static_cast<UINT>(text.size()));
        return text;
    }
    LONG Import(std::string text, CString const & to = COPY)
    {
        CMemFile file(reinterpret_cast<BYTE *>(text.data()), static_cast<UINT>(text.size()));
        return m_backup.Import(file, to);
    }
    std::vector<std::string> Compare(std::string text, CString const & with)
    {
        std::vector<std::string> found;
        CMemFile file(reinterpret_cast<BYTE *>(text.data()), static_cast<UINT>(text.size()));
        EXPECT_EQ(m_backup.Compare(file, with,
                                   [&](CRegistryBackup::Difference const & one)
                                   {
                                       char const * const signs[] = {"-", "+", "~"};
                                       found.push_back(signs[one.kind] + kvx::ToUtf8(one.strKey.Mid(14)) +
                                                       (one.bValue ? "|" + kvx::ToUtf8(one.strValue) : ""));
                                   }),
                  0)
            << kvx::ToUtf8(m_backup.GetErrorText());
        return found;
    }
};

TEST_F(Backup, WholeTreesComeBack)
{
    std::vector<CString> const names = {
        _T(""), _T("a\"b"), _T("<&>'"), _T("C:\\dir\\"), _T("line\r\n\tend\x01"), _T(" \u00e9\u20ac\U0001F600 ")};
    BYTE const bytes[] = {0, 1, 0xFF, '\r', '\n', '<'};
    for (CString const & name : names)
    {
        EXPECT_EQ(m_key.SetValue(name, REG_BINARY, bytes, sizeof(bytes)), 0);
    }
    for (DWORD const type : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0x7FFFFFFF})
    {
        CString name;
        name.Format(_T("type %u"), type);
        EXPECT_EQ(m_key.SetValue(name, type, bytes, type % 6), 0);
    }
    std::vector<BYTE> const large(3'000'001, BYTE{'x'});
    CRegistry sub;
    ASSERT_EQ(sub.CreateKey(m_key, _T("Sub & \U0001F600\\Deep")), 0);
    EXPECT_EQ(sub.SetValue(_T("large"), REG_BINARY, large.data(), static_cast<DWORD>(large.size())), 0);
    ASSERT_EQ(sub.CreateKey(m_key, _T("Empty")), 0);
    for (int i = 0; i < 10500; ++i) // more than one transaction
    {
        EXPECT_EQ(sub.SetValue(CStringValue(i), static_cast<DWORD>(i)), 0);
    }

    std::string const text = Export();
    EXPECT_EQ(m_backup.GetKeyCount(), 4u);
    EXPECT_EQ(m_backup.GetValueCount(), 6u + 14 + 1 + 10500);
    ASSERT_EQ(Import(text), 0) << kvx::ToUtf8(m_backup.GetErrorText());
    EXPECT_EQ(m_backup.GetValueCount(), 6u + 14 + 1 + 10500);
    EXPECT_THAT(Compare(text, COPY), ElementsAre());
    EXPECT_THAT(Compare(text, ROOT), ElementsAre());

    CRegistry copy;
    ASSERT_EQ(copy.OpenKey(COPY), 0);
    EXPECT_EQ(copy.SetValue(_T("A\"B"), 1), 0);
    EXPECT_EQ(copy.SetValue(_T("new"), 1), 0);
    EXPECT_EQ(copy.DeleteValue(_T("type 5")), 0);
    EXPECT_EQ(copy.DeleteKey(_T("empty"), 1), 0);
    CRegistry other;
    ASSERT_EQ(other.CreateKey(copy, _T("Other")), 0);
    EXPECT_THAT(Compare(text, COPY),
                ElementsAre("~Copy|a\"b", "+Copy|type 5", "-Copy|new", "+Copy\\Empty", "-Copy\\Other"));
}

TEST_F(Backup, WhatTheFormatCantHoldIsRefusedFirst)
{
    WCHAR const half[] = {0xD800, 'x', 0};
    EXPECT_EQ(m_key.SetValue(half, 1), 0);
    CMemFile file;
    EXPECT_EQ(m_backup.Export(ROOT, file), ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_EQ(file.GetLength(), 0u);
    EXPECT_EQ(m_key.DeleteValue(half), 0);

    CString path;
    for (int depth = 2; depth <= CRegistryBackup::KEY_DEPTH_MAX; ++depth)
    {
        path += path.IsEmpty() ? _T("d") : _T("\\d");
    }
    CRegistry deepest;
    ASSERT_EQ(deepest.CreateKey(m_key, path), 0);
    EXPECT_EQ(deepest.SetValue(_T("v"), 1), 0);
    std::string const text = Export();
    EXPECT_EQ(Import(text), 0) << kvx::ToUtf8(m_backup.GetErrorText());
    EXPECT_THAT(Compare(text, COPY), ElementsAre());
    ASSERT_EQ(deepest.CreateKey(m_key, path + _T("\\d")), 0);
    EXPECT_EQ(m_backup.Export(ROOT, file), ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(file.GetLength(), 0u);
}

TEST_F(Backup, FaultyFilesChangeNothing)
{
    std::string const good = R"(<REGISTRY><KEY name="x"><VALUE name="good" type="REG_DWORD">00000001</VALUE>)";
    for (std::string const & bad :
         {std::string("<VALUE type='REG_WHAT'>x</VALUE>"), std::string("<VALUE type='REG_SZ' original-size='x'/>"),
          std::string("<VALUE type='REG_SZ' original-size='2' encoded-size='4'>AQ==</VALUE>"),
          std::string("<VALUE type='REG_SZ' original-size='1' encoded-size='4'>AQID</VALUE>"),
          std::string("<VALUE type='REG_SZ' original-size='4294967295' encoded-size='4'>AQID</VALUE>"),
          std::string("<VALUE type='REG_SZ' type-number='-1'/>"), std::string("<OTHER/>")})
    {
        EXPECT_EQ(Import(good + "\n" + bad + "</KEY></REGISTRY>"), ERROR_INVALID_DATA) << bad;
        EXPECT_THAT(kvx::ToUtf8(m_backup.GetErrorText()), HasSubstr("line 2")) << bad;
    }
    EXPECT_EQ(Import("<REGISTRY/>"), ERROR_INVALID_DATA);
    EXPECT_EQ(Import(""), ERROR_INVALID_DATA);
    CRegistry copy;
    EXPECT_EQ(copy.OpenKey(COPY), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Import(good + "<VALUE name='left out' type='REG_SZ' original-size='9' encoded-size='0'/>"
                            "<KEY name='' /></KEY></REGISTRY>"),
              0);
    EXPECT_EQ(m_backup.GetValuesWithoutData(), 1u);
    EXPECT_EQ(Import("<REGISTRY><KEY name='NOROOT\\x'/></REGISTRY>", _T("")), ERROR_INVALID_HANDLE);
    EXPECT_THAT(kvx::ToUtf8(m_backup.GetErrorText()), HasSubstr("NOROOT\\x"));
}

TEST_F(Backup, DocumentsOfTheClassItself)
{
    EXPECT_EQ(m_key.SetValue(_T("Level"), 1), 0);
    std::vector<BYTE> const data(58, BYTE{0});
    EXPECT_EQ(m_key.SetValue(_T("\u20ac"), REG_BINARY, data.data(), 58), 0);
    CRegistry sub;
    ASSERT_EQ(sub.CreateKey(m_key, _T("Sub")), 0);
    EXPECT_EQ(sub.SetValue(_T(""), _T("text")), 0);

    tinyxml2::XMLDocumentKVX document;
    EXPECT_EQ(CRegistry::SaveKeyToXML(document, ROOT, 0, _T(""), 1, 57, KEY_WOW64_64KEY), 1);
    EXPECT_STREQ(tinyxml2::ToStringA(&document),
                 "<REGISTRY><KEY name=\"HKCU\\Software\\Backup\" WOW64=\"WOW64_64\">"
                 "<VALUE name=\"Level\" type=\"REG_DWORD\" original-size=\"4\" encoded-size=\"8\">AQAAAA==</VALUE>"
                 "<VALUE name=\"\xE2\x82\xAC\" type=\"REG_BINARY\" original-size=\"58\" encoded-size=\"0\"/>"
                 "<KEY name=\"Sub\"><VALUE name=\"\" type=\"REG_SZ\" original-size=\"10\" encoded-size=\"16\">"
                 "dABlAHgAdAAAAA==</VALUE></KEY></KEY></REGISTRY>");
    EXPECT_EQ(CRegistry::SaveKeyToXML(document, ROOT, 0, _T(""), 0, 58, 0), 1);
    document.RootElement()->FirstChildElement()->SetAttribute("name", "HKCU\\Software\\Copy");
    EXPECT_EQ(CRegistry::RestoreFromXML(document, 0), 1);
    CRegistry copy;
    ASSERT_EQ(copy.OpenKey(COPY), 0);
    DWORD size = 100;
    DWORD type = 0;
    BYTE read[100];
    EXPECT_EQ(copy.QueryValue(_T("\u20ac"), type, read, size), 0);
    EXPECT_EQ(size, 58u);

    EXPECT_EQ(CRegistry::SaveKeyToXML(document, ROOT, 1, _T("no such"), 1, 58, 0), 1);
    EXPECT_STREQ(tinyxml2::ToStringA(&document), "<REGISTRY><KEY name=\"HKCU\\Software\\Backup\"/></REGISTRY>");
    EXPECT_EQ(CRegistry::SaveKeyToXML(document, ROOT + _T("\\none"), 0, _T(""), 1, 58, 0), 0);
    document.Parse("<REGISTRY/>");
    EXPECT_EQ(CRegistry::RestoreFromXML(document, 0), 1);
    document.Parse("<REGISTRY><KEY name='HKCU\\Software\\Copy'><value name='plain' type='REG_DWORD'>0x0000002a</value>"
                   "<VALUE name='absurd' type='REG_SZ' original-size='1' encoded-size='2147483647'>AQ==</VALUE>"
                   "<KEY name='\\bad'/><Key name='good'/></KEY></REGISTRY>");
    EXPECT_EQ(CRegistry::RestoreFromXML(document, 0), 0); // for the bad key; the rest is there
    DWORD number = 0;
    EXPECT_EQ(copy.QueryValue(_T("plain"), number), 0);
    EXPECT_EQ(number, 42u);
    size = 100;
    EXPECT_EQ(copy.QueryValue(_T("absurd"), type, read, size), 0);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(sub.OpenKey(copy, _T("good")), 0);
}

TEST_F(Backup, OwnDocumentsHoldKeysAlone)
{
    EXPECT_EQ(m_key.SetValue(_T("Level"), 1), 0);
    CRegistry sub;
    ASSERT_EQ(sub.CreateKey(m_key, _T("Sub\\Deep")), 0);
    CXmlDocument document(_T("any"));
    EXPECT_EQ(CRegistry::SaveKeyToXML(document, ROOT, 0, _T(""), 1, 57, 0), 1);
    EXPECT_STREQ(document.ToString(), "<REGISTRY><KEY name=\"HKCU\\Software\\Backup\"><KEY name=\"Sub\">"
                                      "<KEY name=\"Deep\"/></KEY></KEY></REGISTRY>");
    document.FromString("<any><!-- x --><key name='HKCU\\Software\\Copy'><!-- y -->"
                        "<VALUE name='n' type='REG_DWORD' original-size='4'>0x0000002a</VALUE><KEY name='k'/>"
                        "<Key name='\\bad'/></key></any>");
    EXPECT_EQ(CRegistry::RestoreFromXML(document, 0), 0); // for the bad key
    CRegistry copy;
    ASSERT_EQ(copy.OpenKey(COPY), 0);
    DWORD number = 0;
    EXPECT_EQ(copy.QueryValue(_T("n"), number), 0);
    EXPECT_EQ(number, 42u);
    EXPECT_EQ(sub.OpenKey(copy, _T("k")), 0);
}
} // namespace
