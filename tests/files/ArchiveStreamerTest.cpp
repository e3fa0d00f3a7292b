#include "kvx/files/ArchiveStreamer.h"
#include "kvx/foundation/Dictionary.h"
#include "kvx/foundation/StringValue.h"

#include "tests/support/Raised.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace
{
using Work = std::function<void(CArchiveStreamer &, CArchive &)>;

/// What is stored, and loaded from there.
class ArchiveStreamer : public testing::Test
{
protected:
    CMemFile m_file;

    void Store(int narrow, Work const & work)
    {
        m_file.SetLength(0);
        CArchive archive(&m_file, CArchive::store);
        CArchiveStreamer streamer(archive, narrow);
        work(streamer, archive);
    }
    void Load(int narrow, Work const & work)
    {
        m_file.SeekToBegin();
        CArchive archive(&m_file, CArchive::load);
        CArchiveStreamer streamer(archive, narrow);
        work(streamer, archive);
    }
    int CauseOf(std::vector<DWORD> const & words, int packed)
    {
        m_file.SetLength(0);
        m_file.Write(words.data(), static_cast<UINT>(words.size() * sizeof(DWORD)));
        int cause = -1;
        Load(0,
             [&](CArchiveStreamer & streamer, CArchive &)
             {
                 streamer.EnablePackedStrings(packed);
                 CString text;
                 try
                 {
                     streamer.Read(text);
                 }
                 catch (CArchiveException * error)
                 {
                     cause = error->m_cause;
                     error->Delete();
                 }
             });
        return cause;
    }
};

TEST_F(ArchiveStreamer, TextsInEveryForm)
{
    CString const texts[] = {_T(""),      _T("twice \u00e9"), _T(""),
                             _T("other"), _T("twice \u00e9"), CString(_T('x'), 70000)};
    for (int const form : {0, 1, 2}) // wide, narrow, packed
    {
        Store(form == 1,
              [&](CArchiveStreamer & streamer, CArchive & archive)
              {
                  streamer.EnablePackedStrings(form == 2);
                  for (CString const & text : texts)
                  {
                      CArchiveStreamer nested(archive, form == 1); // shares the numbers
                      nested.Write(text);
                  }
              });
        ULONGLONG const characters = 7 + 5 + (form == 2 ? 0 : 7) + 70000;
        EXPECT_EQ(m_file.GetLength(), 6 * 4 + characters * (form == 1 ? 1 : 2));
        Load(form == 1,
             [&](CArchiveStreamer & streamer, CArchive &)
             {
                 streamer.EnablePackedStrings(form == 2);
                 for (CString const & text : texts)
                 {
                     CString read = _T("?");
                     streamer.Serialize(read);
                     EXPECT_EQ(read, text);
                 }
             });
    }
}

TEST_F(ArchiveStreamer, FalseLengthsAndNumbersAreRefused)
{
    EXPECT_EQ(CauseOf({0xFFFFFFFF, 1}, 0), CArchiveException::endOfFile);
    EXPECT_EQ(CauseOf({0x80000001}, 1), CArchiveException::badIndex);
    EXPECT_EQ(CauseOf({0x7FFFFFFF, 1}, 1), CArchiveException::endOfFile);
    EXPECT_EQ(CauseOf({}, 0), CArchiveException::endOfFile);
    EXPECT_EQ(CauseOf({1, 'a'}, 0), -1);
}

CString KeyOf(CObject * object)
{
    return (*static_cast<CDictionary *>(object))[_T("key")];
}

int IsWanted(CObject * object, void * rejected)
{
    if (KeyOf(object) != _T("b"))
    {
        return 1;
    }
    static_cast<std::unique_ptr<CObject> *>(rejected)->reset(object);
    return 0;
}

TEST_F(ArchiveStreamer, ObjectsComeBackUnderTheirKeys)
{
    CObStringLookup lookup(1);
    for (LPCTSTR const key : {_T("a"), _T("b"), _T("c")})
    {
        auto * const values = new CDictionary;
        (*values)[_T("key")] = key;
        lookup.SetAt(key, values);
    }
    Store(0, [&](CArchiveStreamer & streamer, CArchive &) { streamer.Write(lookup); });
    CObStringLookup loaded(1);
    std::unique_ptr<CObject> rejected;
    Load(0, [&](CArchiveStreamer & streamer, CArchive &) { streamer.Read(loaded, KeyOf, IsWanted, &rejected); });
    EXPECT_EQ(loaded.GetCount(), 2);
    ASSERT_TRUE(loaded.Lookup(_T("c")));
    EXPECT_EQ(KeyOf(loaded.Lookup(_T("c"))), _T("c"));
    EXPECT_TRUE(rejected);

    // Without keys the container stands there twice, and each object once.
    Store(0, [&](CArchiveStreamer & streamer, CArchive &) { streamer.Serialize(lookup, nullptr, nullptr, nullptr); });
    CObStringLookup whole(1);
    Load(0,
         [&](CArchiveStreamer & streamer, CArchive & archive)
         {
             streamer.Serialize(whole, nullptr, nullptr, nullptr);
             EXPECT_EQ(archive.Read(&whole, 1), 0U); // all is read
         });
    EXPECT_EQ(whole.GetCount(), 3);
}

TEST_F(ArchiveStreamer, DictionariesGoBesidePackedStrings)
{
    CDictionary values;
    values[_T("name")] = _T("twice");
    auto const go = [&](CArchiveStreamer & streamer, CArchive & archive)
    {
        streamer.EnablePackedStrings(1);
        CString text = _T("twice");
        streamer.Serialize(text);
        values.Serialize(archive);
        streamer.Serialize(text);
        EXPECT_EQ(text, _T("twice"));
    };
    Store(0, go);
    values.RemoveAllValues();
    Load(0, go);
    EXPECT_EQ(CString(values[_T("name")]), _T("twice"));
}

TEST(StringValue, CarriesAnObject)
{
    CDictionary values;
    for (int i = 0; i < 500; ++i)
    {
        values[CStringValue(i)] = CString(static_cast<WCHAR>(i), 20);
    }
    CStringValue value;
    value.FromObject(values);
    CDictionary restored;
    value.RestoreObject(restored);
    EXPECT_EQ(restored.GetValueCount(), 500);
    EXPECT_EQ(CString(restored[_T("233")]), CString(_T('\u00e9'), 20));
    // Bytes with zeros between them: a count that has no data behind it, or none.
    CDictionary odd;
    EXPECT_TRUE(Raises<CArchiveException>([&] { CStringValue(CString(_T('x'), 10000)).ToObject(odd); }));
    EXPECT_TRUE(Raises<CArchiveException>([&] { CStringValue().ToObject(odd); }));
}
} // namespace
