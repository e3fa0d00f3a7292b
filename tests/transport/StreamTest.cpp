#include "MemoryStream.h"

#include "kvx/messaging/MsgRequest.h"
#include "kvx/msgdata/MsgCursor.h"
#include "kvx/msgdata/MsgMultipleTables.h"

#include <gtest/gtest.h>

namespace
{
/// A row set named r with one column c and two rows, both cells v.
void AddRows(CMsgMultipleRowSets & rowSets)
{
    CMsgCursor rows(&rowSets);
    rows.AppendRowSet(_T("r"));
    rows.AppendRow();
    rows[_T("c")] = _T("v");
    rows.AppendRow();
    rows[_T("c")] = _T("v");
}
} // namespace

TEST(Stream, ARequestHasTheseBytes)
{
    CMsgRequest request;
    request.SetCommand(_T("a/b"));
    request[_T("x")] = _T("1");
    CMemoryStream plain;
    ASSERT_TRUE(request.Write(plain));
    EXPECT_EQ(plain.ToHex(),
              Hex("00000000 00000003 61002F006200 00000001 00000001 7800 00000001 3100 00000000 00000000"));

    // With compaction a value that repeats the key is a back reference, and the empty trailer takes a number of its
    // own.
    request[_T("x")] = _T("x");
    CMemoryStream compact;
    compact.EnableCompact();
    ASSERT_TRUE(request.Write(compact));
    EXPECT_EQ(compact.ToHex(), Hex("00000000 00000003 61002F006200 00000001 00000001 7800 80000001 00000000 00000000"));

    CMsgRequest again;
    ASSERT_TRUE(again.Read(compact));
    EXPECT_EQ(again.GetCommand(), _T("a/b"));
    EXPECT_EQ(again.GetValue(_T("x")), _T("x"));
    EXPECT_EQ(again.GetValueCount(), 1);
}

TEST(Stream, AResponseHasTheseBytes)
{
    CMsgResponse response;
    AddRows(response.GetRowSets());
    CMemoryStream stream;
    stream.EnableCompact();
    ASSERT_TRUE(response.Write(stream));
    EXPECT_EQ(stream.ToHex(),
              Hex("00000000 00000001 00000001 7200 00000002 00000001 00000001 6300 00000002 00000001 7600 80000003"));

    // The table lives for one message: the next one writes everything in full again.
    CMsgResponse again;
    ASSERT_TRUE(again.Read(stream));
    std::size_t const length = stream.m_bytes.size();
    ASSERT_TRUE(again.Write(stream));
    EXPECT_EQ(stream.m_bytes.size(), 2 * length);

    CMsgResponse failed;
    failed.SetError(50, _T("x"));
    CMemoryStream error;
    ASSERT_TRUE(failed.Write(error));
    EXPECT_EQ(error.ToHex(), Hex("00000008 720063003A003D003500300 03B007800 00000000"));
}

TEST(Stream, StatusTextsCarryTheCode)
{
    struct Case
    {
        LPCTSTR status;
        DWORD code;
        LPCTSTR text;
    };
    for (Case const & c : {Case{_T("rc:=5;x"), 5, _T("x")}, Case{_T("rc:=5"), 0, _T("rc:=5")}, Case{_T(""), 0, _T("")},
                           Case{_T("rc:=-1;a;b"), 0xFFFFFFFF, _T("a;b")}, Case{_T("some text"), 0, _T("some text")}})
    {
        CMemoryStream stream;
        stream.Write(CString(c.status));
        stream.Write(DWORD{0});
        CMsgResponse response;
        ASSERT_TRUE(response.Read(stream));
        EXPECT_EQ(response.GetErrorCode(), c.code);
        EXPECT_EQ(response.GetErrorText(), c.text);
    }
    CMsgResponse response;
    response.SetError(0x80000005, _T("100% wrong"));
    CMemoryStream stream;
    ASSERT_TRUE(response.Write(stream));
    CMsgResponse again;
    ASSERT_TRUE(again.Read(stream));
    EXPECT_EQ(again.GetErrorCode(), 0x80000005u);
    EXPECT_EQ(again.GetErrorText(), _T("100% wrong"));
}

TEST(Stream, ExtendedParametersTravelInTheTrailer)
{
    CMsgRequest request;
    request.SetCommand(_T("x"));
    kvx::RefPtr<CMsgMultipleRowSets> const rowSets(new CMsgMultipleRowSets);
    AddRows(*rowSets);
    request.SetExParams(rowSets.Get());
    for (bool const bCompact : {false, true})
    {
        CMemoryStream stream;
        if (bCompact)
        {
            stream.EnableCompact();
        }
        ASSERT_TRUE(request.Write(stream));
        CMsgRequest again;
        ASSERT_TRUE(again.Read(stream));
        EXPECT_TRUE(again.GetResponse().GetRowSets().IsEmpty());
        CMsgCursor rows(again.GetExParams());
        ASSERT_EQ(rows.GetRowSetCount(), 1);
        EXPECT_EQ(rows.GetRowCount(), 2);
        ASSERT_TRUE(rows.NextRow() && rows.NextRow());
        EXPECT_EQ(rows[_T("c")], _T("v"));
    }
}

TEST(Stream, EveryCutAndEveryAbsurdWordFails)
{
    CMsgRequest request;
    request.SetCommand(_T("a.b"));
    request[_T("x")] = _T("1");
    kvx::RefPtr<CMsgMultipleRowSets> const rowSets(new CMsgMultipleRowSets);
    AddRows(*rowSets);
    AddRows(*rowSets); // what breaks off may hold several references to a text that has gone
    request.SetExParams(rowSets.Get());
    for (auto const & [bCompact, piece] :
         {std::pair(false, 0u), {true, 0u}, {true, 7u}, {false, 65536u}, {true, 65536u}})
    {
        CMemoryStream whole;
        CMemoryStream stream(1, piece);
        if (bCompact)
        {
            whole.EnableCompact();
            stream.EnableCompact();
        }
        ASSERT_TRUE(request.Write(whole));
        for (std::size_t cut = 0; cut < whole.m_bytes.size(); ++cut)
        {
            stream.SetBytes({whole.m_bytes.begin(), whole.m_bytes.begin() + static_cast<std::ptrdiff_t>(cut)});
            CMsgRequest again;
            EXPECT_FALSE(again.Read(stream)) << "cut at " << cut;
        }
        // Any aligned word may be a length or a count: reading must end, and soon.
        for (std::size_t at = 0; at + 4 <= whole.m_bytes.size(); ++at)
        {
            for (BYTE const top : {0x7F, 0xFF, 0x80})
            {
                stream.SetBytes(whole.m_bytes);
                std::fill_n(stream.m_bytes.begin() + static_cast<std::ptrdiff_t>(at), 4, BYTE{0xFF});
                stream.m_bytes[at] = top;
                CMsgRequest again;
                again.Read(stream);
                CMsgMultipleTables tables;
                stream.Rewind();
                try
                {
                    tables.Read(stream);
                }
                catch (CException * failure)
                {
                    failure->Delete();
                }
            }
        }
    }
}

TEST(Stream, BackReferencesAreCheckedAndMeantOnlyWithCompaction)
{
    CMemoryStream stream;
    CString text = _T("old");
    stream.SetHex("80000005");
    EXPECT_FALSE(stream.Read(text)); // a length, without compaction
    EXPECT_TRUE(text.IsEmpty());

    stream.EnableCompact();
    stream.SetHex("00000001 6100 00000000 80000001 80000000 80000002");
    for (LPCTSTR const expected : {_T("a"), _T(""), _T(""), _T("a")})
    {
        ASSERT_TRUE(stream.Read(text));
        EXPECT_EQ(text, expected);
    }
    EXPECT_FALSE(stream.Read(text));
}

TEST(Stream, NumbersCountDistinctTextsByCase)
{
    constexpr int MANY = 3000;
    auto const text = [](int i)
    {
        CString made;
        made.Format(_T("%s%d"), i % 2 ? _T("text") : _T("TEXT"), i / 2 % 500);
        return made;
    };
    CMemoryStream stream;
    CMemoryStream reader;
    stream.EnableCompact();
    reader.EnableCompact();
    // A table of many texts is another one's next, and forgets nothing and remembers nothing.
    for (int const count : {MANY, 20, MANY, MANY})
    {
        stream.SetBytes({});
        {
            CMsgStreamCompactor const message(stream);
            for (int i = 0; i < count; ++i)
            {
                ASSERT_TRUE(stream.Write(text(i)));
            }
        }
        reader.SetBytes(stream.m_bytes);
        CMsgStreamCompactor const message(reader);
        for (int i = 0; i < count; ++i)
        {
            CString read;
            ASSERT_TRUE(reader.Read(read));
            ASSERT_EQ(read, text(i));
        }
    }
    // 1,000 texts stand in full, 2,000 as 4 bytes.
    EXPECT_LT(stream.m_bytes.size(), 1000u * (4 + 14) + 2000u * 4);
}

// Cells that repeat share their characters, on both sides: each goes and changes on its own, also behind the message.
TEST(Stream, RepeatedCellsAreTextsOfTheirOwn)
{
    constexpr int ROWS = 2000;
    constexpr int WORDS = 50;
    auto const index = [](int row) { return row % 7 == 0 ? 0 : row % WORDS; };
    auto const word = [&](int row)
    {
        CString text;
        text.Format(_T("word %d"), index(row));
        return text;
    };
    CMemoryStream stream(1, 1000);
    stream.EnableCompact();
    {
        std::vector<CString> words;
        for (int i = 0; i < WORDS; ++i)
        {
            words.emplace_back().Format(_T("word %d"), i);
        }
        CMsgCursor rows(new CMsgMultipleRowSets);
        for (int row = 0; row < ROWS; ++row)
        {
            rows.AppendRow();
            // Some share the word's characters, some are equal only.
            rows[_T("c")] = row % 3 == 0 ? word(row) : words[static_cast<std::size_t>(index(row))];
        }
        CMsgStreamCompactor const message(stream, true);
        ASSERT_TRUE(rows.GetRowSets()->Write(stream));
    }
    CMsgCursor rows(new CMsgMultipleRowSets);
    {
        CMsgStreamCompactor const message(stream, true);
        ASSERT_TRUE(rows.GetRowSets()->Read(stream));
    }
    rows.RestartCurrentRowSet();
    CMsgCursor copied(new CMsgMultipleRowSets(*rows.GetRowSets()));
    for (int row = 0; rows.NextRow(); ++row)
    {
        CStringValue & cell = rows[_T("c")];
        ASSERT_EQ(CString(cell), word(row));
        cell += _T("!");
    }
    for (int row = 0; copied.NextRow(); ++row)
    {
        ASSERT_EQ(copied[_T("c")], word(row));
    }
    ASSERT_TRUE(rows.SelectRow(reinterpret_cast<POSITION>(INT_PTR{ROWS})));
    EXPECT_EQ(rows[_T("c")], word(ROWS - 1) + _T("!"));
}

TEST(Stream, NarrowStreamsCutAtTheLength)
{
    CMemoryStream stream(0);
    ASSERT_TRUE(stream.Write(CString(_T("caf\u00e9"))));
    EXPECT_EQ(stream.ToHex(), Hex("00000004 636166E9"));
    CString text;
    ASSERT_TRUE(stream.Read(text));
    EXPECT_EQ(text, _T("caf\u00e9"));
}

TEST(Stream, WordsReadAsZeroAfterAFailure)
{
    CMemoryStream stream;
    stream.SetHex("FFFFFFFE 0001");
    LONG negative = 0;
    ASSERT_TRUE(stream.Read(negative));
    EXPECT_EQ(negative, -2);
    DWORD word = 7;
    EXPECT_FALSE(stream.Read(word));
    EXPECT_EQ(word, 0u);
    EXPECT_EQ(stream.Write(nullptr, 0), 1);
}
