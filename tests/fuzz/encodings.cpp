// Arbitrary text as Base64, percent escapes, versions, identifiers and URLs. What is read and written again reads the
// same, and every way that the processor offers says what the portable one does.

#include "Require.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/hash/Base64.h"
#include "kvx/hash/Base64Paths.h"
#include "kvx/hash/HttpFormatter.h"
#include "kvx/system/InternetUrl.h"
#include "kvx/system/UniqueID.h"
#include "kvx/system/VersionNumber.h"

#include <cstring>
#include <string_view>
#include <vector>

namespace
{
using namespace kvx::hash;

/// UTF-16 of the bytes as they are, halves of pairs among them.
CString ToWide(std::string_view bytes)
{
    CString text;
    int const length = static_cast<int>(bytes.size() / sizeof(WCHAR));
    if (length > 0)
    {
        std::memcpy(text.GetBufferSetLength(length), bytes.data(), static_cast<std::size_t>(length) * sizeof(WCHAR));
    }
    return text;
}

void ReadBase64(std::string_view text)
{
    std::vector<char> const exact(text.begin(), text.end());
    std::size_t const room = text.empty() ? 0 : static_cast<unsigned char>(text[0]) * text.size() / 255;
    std::vector<std::uint8_t> expected(room);
    Base64Decoded const wanted = DecodeBase64On(DecodePortable, exact.data(), exact.size(), expected.data(), room);
    Require(wanted.nWritten <= room && wanted.nWritten <= wanted.nSize);
    for (auto const & path : DECODE_PATHS)
    {
        if (path.IsOpen())
        {
            std::vector<std::uint8_t> found(room);
            Base64Decoded const got = DecodeBase64On(path.pFunction, exact.data(), exact.size(), found.data(), room);
            Require(got.nSize == wanted.nSize && got.nWritten == wanted.nWritten);
            Require(
                std::equal(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(got.nWritten), expected.begin()));
        }
    }
    CByteArray bytes;
    CString const wide(CStringA(text.data(), static_cast<int>(text.size())));
    int const fault = CUtilities::FromBase64(wide, bytes);
    Require(fault >= -1 && fault <= wide.GetLength());
    if (fault == -1)
    {
        // A strict text has one reading, which the loose decoder shares.
        CString again = CUtilities::ToBase64(bytes.GetData(), static_cast<std::size_t>(bytes.GetSize()),
                                             BASE64_NO_FILL | BASE64_NO_LINES);
        CString plain = wide;
        plain.Remove('\r');
        plain.Remove('\n');
        plain.Remove('=');
        Require(again == plain);
        Require(static_cast<std::size_t>(bytes.GetSize()) == DecodeBase64Loosely(text, nullptr, 0).nSize);
    }
}

void WriteBase64(std::string_view data)
{
    for (std::uint32_t flags = 0; flags < 4; ++flags)
    {
        CByteArray bytes;
        Require(CUtilities::FromBase64(CUtilities::ToBase64(data.data(), data.size(), flags), bytes) == -1);
        Require(static_cast<std::size_t>(bytes.GetSize()) == data.size() &&
                (data.empty() || std::memcmp(bytes.GetData(), data.data(), data.size()) == 0));
    }
}

void ReadEscapes(std::string_view bytes)
{
    CString const wide = ToWide(bytes);
    CStringA const narrow(bytes.data(), static_cast<int>(bytes.size()));
    CString text;
    CStringA encoded;
    if (CHttpFormatter::DecodeUtf8(narrow, text))
    {
        Require(CHttpFormatter::EncodeUtf8(text, encoded));
    }
    if (CHttpFormatter::EncodeUtf8(wide, encoded))
    {
        Require(CHttpFormatter::DecodeUtf8(encoded, text) && text == wide);
    }
    CString const upToNul(wide.GetString());
    Require(CUtilities::UnescapeUnicode(CUtilities::EscapeUnicode(wide)) == upToNul);
    (void)CUtilities::UnescapeUnicode(narrow);
    Require(CUtilities::DecodeString(CUtilities::EncodeString(wide, _T("%+"), '+'), '+').GetLength() >=
            wide.GetLength());
    (void)CHttpFormatter::Decode(narrow);
    (void)CHttpFormatter::Encode(narrow);
    (void)CUtilities::HexStr2Int(wide);
}

void ReadIdentifiers(std::string_view bytes)
{
    CString const text(CStringA(bytes.data(), static_cast<int>(bytes.size())));
    CVersionNumber const version(text);
    bool bReadable = true; // numbers beyond an int aren't
    for (int i = 0; i < 4; ++i)
    {
        bReadable = bReadable && version[i] <= 0x7FFFFFFF;
    }
    Require(!bReadable || CVersionNumber(version.ToString()) == version);
    CUniqueID const id(text);
    Require(CUniqueID(id.ToString(1, 1)) == id);
    CUniqueID other;
    Require(other.FromMSIComponentID(id.ToMSIComponentID()) && other == id);
    (void)other.FromMSIComponentID(text);
}

void ReadUrl(std::string_view bytes)
{
    CInternetUrl url;
    if (!url.Decode(kvx::FromUtf8(bytes), CInternetUrl::ALL))
    {
        DWORD const code = GetLastError();
        Require(code == ERROR_INVALID_PARAMETER || code == ERROR_INSUFFICIENT_BUFFER ||
                code == ERROR_INTERNET_INVALID_URL || code == ERROR_INTERNET_UNRECOGNIZED_SCHEME);
        return;
    }
    CString const text = url.Encode();
    CInternetUrl again;
    if (!text.IsEmpty() && again.Decode(text, CInternetUrl::ALL))
    {
        Require(again.GetScheme() == url.GetScheme() && again.GetHost() == url.GetHost());
        Require(again.Encode() == text);
    }
}
} // namespace

// The first byte says what the rest is.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    if (size > 0)
    {
        constexpr void (*READERS[])(std::string_view) = {ReadBase64, WriteBase64, ReadEscapes, ReadIdentifiers,
                                                         ReadUrl};
        READERS[data[0] % std::size(READERS)](std::string_view(reinterpret_cast<char const *>(data + 1), size - 1));
    }
    return 0;
}
