#include "kvx/foundation/Utilities.h"
#include "kvx/hash/Base64.h"

#include <limits>

using namespace kvx::hash;

namespace
{
constexpr std::size_t BASE64_MOST = std::numeric_limits<int>::max();

/// Whether the encoders take so many bytes.
bool IsEncodable(int size, ULONG flags)
{
    return size >= 0 && CUtilities::Base64EncodeGetRequiredLength(size, flags) > 0;
}
} // namespace

int CUtilities::Base64EncodeGetRequiredLength(int size, ULONG flags)
{
    if (size < 0)
    {
        return 0;
    }
    long long length = size * 4LL / 3;
    length += (flags & BASE64_NO_FILL) == 0 ? size % 3 : 0;
    long long const ends = length / 76 + 1;
    length = (length + 3) / 4 * 4;
    length += (flags & BASE64_NO_LINES) == 0 ? 2 * ends : 0;
    return length <= static_cast<long long>(BASE64_MOST) ? static_cast<int>(length) : 0;
}

int CUtilities::Base64Encode(unsigned char const * data, int size, LPTSTR out, int * outSize, ULONG flags)
{
    if (!data || !out || !outSize || (size != 0 && !IsEncodable(size, flags)))
    {
        return 0;
    }
    *outSize = static_cast<int>(EncodeBase64(data, static_cast<std::size_t>(size), out, flags));
    return 1;
}

int CUtilities::Base64Encode(unsigned char const * data, int size, char * out, int * outSize, ULONG flags)
{
    if (!data || !out || !outSize || (size != 0 && !IsEncodable(size, flags)) ||
        *outSize < Base64EncodeGetRequiredLength(size, flags))
    {
        return 0;
    }
    *outSize = static_cast<int>(EncodeBase64(data, static_cast<std::size_t>(size), out, flags));
    return 1;
}

int CUtilities::Base64Decode(char const * text, int length, unsigned char * out, int * outSize)
{
    if (!text || !outSize)
    {
        return 0;
    }
    std::size_t const room = *outSize > 0 ? static_cast<std::size_t>(*outSize) : 0;
    std::string_view const view(text, length > 0 ? static_cast<std::size_t>(length) : 0);
    Base64Decoded const decoded = DecodeBase64Loosely(view, out, room);
    *outSize = static_cast<int>(decoded.nSize);
    return out && decoded.nWritten == decoded.nSize;
}

CString CUtilities::ToBase64(void const * data, std::size_t size, ULONG flags)
{
    CString text;
    std::size_t const length = size <= BASE64_MOST ? GetBase64Length(size, flags) : size;
    if (length > BASE64_MOST)
    {
        AfxThrowMemoryException();
    }
    if (length > 0)
    {
        EncodeBase64(static_cast<std::uint8_t const *>(data), size, text.GetBufferSetLength(static_cast<int>(length)),
                     flags);
    }
    return text;
}

int CUtilities::FromBase64(CString const & text, CByteArray & bytes)
{
    // What isn't ASCII is no digit either as 0xFF.
    CStringA narrow;
    char * out = narrow.GetBufferSetLength(text.GetLength());
    for (WCHAR const c : text.AsView())
    {
        *out++ = static_cast<char>(c < 0x80 ? c : 0xFF);
    }
    std::size_t size = static_cast<std::size_t>(text.GetLength()) / 4 * 3 + 3;
    bytes.SetSize(static_cast<INT_PTR>(size));
    std::size_t const fault = DecodeBase64Strictly(narrow.AsView(), bytes.GetData(), size);
    bytes.SetSize(static_cast<INT_PTR>(size));
    return fault == NO_FAULT ? -1 : static_cast<int>(fault);
}
