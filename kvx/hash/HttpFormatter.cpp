#include "kvx/hash/HttpFormatter.h"

#include "kvx/foundation/Utilities.h"

#include <string_view>

namespace
{
constexpr WCHAR BLANK = '+';

/// From or to UTF-8 with nothing lost; false with the last error.
bool ToBytes(CString const & text, CStringA & bytes)
{
    int const length = text.GetLength();
    auto const convert = [&](char * room, int size)
    { return WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text, length, room, size, nullptr, nullptr); };
    int const size = length == 0 ? 0 : convert(nullptr, 0);
    if (size > 0)
    {
        convert(bytes.GetBufferSetLength(size), size);
    }
    return size > 0 || length == 0;
}

bool ToText(CStringA const & bytes, CString & text)
{
    int const size = bytes.GetLength();
    CString read;
    if (size > 0)
    {
        WCHAR * const room = read.GetBuffer(size);
        read.ReleaseBuffer(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, bytes, size, room, size));
        if (read.IsEmpty())
        {
            return false;
        }
    }
    text = std::move(read);
    return true;
}

bool IsUnreserved(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || kvx::IsDigit(c) || c == '-' || c == '.' || c == '_' ||
           c == '~';
}

bool IsHexDigit(char c)
{
    return kvx::IsDigit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}
} // namespace

CStringA CHttpFormatter::Encode(CStringA const & text)
{
    CString const wide = CUtilities::AnsiToString(text.GetString());
    return CUtilities::StringToAnsi(CUtilities::EncodeString(wide, _T(";/?:@&=+\"#%<>."), BLANK));
}

CStringA CHttpFormatter::Decode(CStringA const & text)
{
    CString const wide = CUtilities::AnsiToString(text.GetString());
    return CUtilities::StringToAnsi(CUtilities::DecodeString(wide, BLANK));
}

int CHttpFormatter::EncodeUtf8(CString const & text, CStringA & encoded)
{
    CStringA bytes;
    if (!ToBytes(text, bytes))
    {
        return 0;
    }
    CStringA out;
    for (char const c : bytes.AsView())
    {
        if (IsUnreserved(c))
        {
            out.AppendChar(c);
        }
        else
        {
            constexpr char DIGITS[] = "0123456789ABCDEF";
            auto const byte = static_cast<unsigned char>(c);
            char const escape[] = {'%', DIGITS[byte >> 4], DIGITS[byte & 15]};
            out.Append(CStringA::View(escape, std::size(escape)));
        }
    }
    encoded = std::move(out);
    return 1;
}

int CHttpFormatter::DecodeUtf8(CStringA const & encoded, CString & text)
{
    std::string_view const view = encoded.AsView();
    CStringA bytes;
    bytes.Preallocate(encoded.GetLength());
    for (std::size_t i = 0; i < view.size(); ++i)
    {
        if (view[i] != '%')
        {
            bytes.AppendChar(view[i]);
            continue;
        }
        if (view.size() - i < 3 || !IsHexDigit(view[i + 1]) || !IsHexDigit(view[i + 2]))
        {
            SetLastError(ERROR_INVALID_DATA);
            return 0;
        }
        auto const value = [&](std::size_t at)
        { return CUtilities::UnformatEscape(static_cast<unsigned char>(view[at])); };
        bytes.AppendChar(static_cast<char>(value(i + 1) * 16 + value(i + 2)));
        i += 2;
    }
    return ToText(bytes, text);
}
