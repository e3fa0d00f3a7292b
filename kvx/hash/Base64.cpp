#include "kvx/hash/Base64.h"

#include "kvx/hash/Base64Paths.h"

#include <array>

namespace kvx::hash
{
namespace
{
constexpr char BASE64_DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t NO_DIGIT = 0xFF;

constexpr std::array<std::uint8_t, 256> VALUES = []
{
    std::array<std::uint8_t, 256> values;
    values.fill(NO_DIGIT);
    for (std::uint8_t i = 0; i < 64; ++i)
    {
        values[static_cast<std::uint8_t>(BASE64_DIGITS[i])] = i;
    }
    return values;
}();

std::uint8_t ValueOf(char c)
{
    return VALUES[static_cast<std::uint8_t>(c)];
}

/// Whole groups.
template <class UNIT>
UNIT * EncodeGroups(std::uint8_t const * data, std::size_t groups, UNIT * out)
{
    for (; groups > 0; --groups, data += 3, out += 4)
    {
        std::uint32_t const bits = static_cast<std::uint32_t>(data[0] << 16 | data[1] << 8 | data[2]);
        out[0] = static_cast<UNIT>(BASE64_DIGITS[bits >> 18]);
        out[1] = static_cast<UNIT>(BASE64_DIGITS[bits >> 12 & 63]);
        out[2] = static_cast<UNIT>(BASE64_DIGITS[bits >> 6 & 63]);
        out[3] = static_cast<UNIT>(BASE64_DIGITS[bits & 63]);
    }
    return out;
}

template <class UNIT>
UNIT * EncodeLines(std::uint8_t const * data, std::size_t lines, UNIT * out, bool ends)
{
    for (; lines > 0; --lines, data += BASE64_LINE_DATA)
    {
        out = EncodeGroups(data, BASE64_LINE / 4, out);
        if (ends)
        {
            *out++ = '\r';
            *out++ = '\n';
        }
    }
    return out;
}

template <class UNIT, class LINES>
std::size_t Encode(LINES encodeLines, std::uint8_t const * data, std::size_t size, UNIT * const out,
                   std::uint32_t flags)
{
    UNIT * end = out;
    if (size > 0)
    {
        // The last line, full or not, has no end.
        std::size_t const last = (size - 1) % BASE64_LINE_DATA + 1;
        bool const ends = (flags & BASE64_NO_LINES) == 0;
        std::size_t const lines = (size - last) / BASE64_LINE_DATA;
        encodeLines(data, lines, end, ends);
        data += size - last;
        end += lines * (BASE64_LINE + (ends ? 2 : 0));
        end = EncodeGroups(data, last / 3, end);
        data += last - last % 3;
        if (last % 3 > 0)
        {
            std::uint32_t const bits = static_cast<std::uint32_t>(data[0] << 16 | (last % 3 == 2 ? data[1] << 8 : 0));
            *end++ = static_cast<UNIT>(BASE64_DIGITS[bits >> 18]);
            *end++ = static_cast<UNIT>(BASE64_DIGITS[bits >> 12 & 63]);
            if (last % 3 == 2)
            {
                *end++ = static_cast<UNIT>(BASE64_DIGITS[bits >> 6 & 63]);
            }
            for (std::size_t i = last % 3; i < 3 && (flags & BASE64_NO_FILL) == 0; ++i)
            {
                *end++ = '=';
            }
        }
    }
    return static_cast<std::size_t>(end - out);
}

/// Up to four digits, wherever they are; the number of digits. The text is behind them then, or at its end or a NUL.
int GatherGroup(char const *& text, char const * end, std::uint32_t & bits)
{
    int digits = 0;
    bits = 0;
    for (; digits < 4 && text != end && *text != 0; ++text)
    {
        std::uint8_t const value = ValueOf(*text);
        if (value != NO_DIGIT)
        {
            bits = bits << 6 | value;
            ++digits;
        }
    }
    bits <<= 6 * (4 - digits);
    return digits;
}
} // namespace

void EncodeNarrowPortable(std::uint8_t const * data, std::size_t lines, char * out, bool ends)
{
    EncodeLines(data, lines, out, ends);
}

void EncodeWidePortable(std::uint8_t const * data, std::size_t lines, WCHAR * out, bool ends)
{
    EncodeLines(data, lines, out, ends);
}

void DecodePortable(DecodeCursor & cursor)
{
    while (cursor.pTextEnd - cursor.pText >= 4 && cursor.pOutEnd - cursor.pOut >= 3)
    {
        char const * const text = cursor.pText;
        std::uint32_t const a = ValueOf(text[0]);
        std::uint32_t const b = ValueOf(text[1]);
        std::uint32_t const c = ValueOf(text[2]);
        std::uint32_t const d = ValueOf(text[3]);
        if ((a | b | c | d) == NO_DIGIT)
        {
            return;
        }
        cursor.pOut[0] = static_cast<std::uint8_t>(a << 2 | b >> 4);
        cursor.pOut[1] = static_cast<std::uint8_t>(b << 4 | c >> 2);
        cursor.pOut[2] = static_cast<std::uint8_t>(c << 6 | d);
        cursor.pText += 4;
        cursor.pOut += 3;
    }
}

Base64Decoded DecodeBase64On(DecodeGroups path, char const * text, std::size_t length, std::uint8_t * out,
                             std::size_t room)
{
    Base64Decoded decoded;
    room = out ? room : 0;
    DecodeCursor cursor{text, text + length, out, out + room};
    bool bFits = true;
    for (;;)
    {
        if (bFits)
        {
            path(cursor);
        }
        std::uint32_t bits = 0;
        int const size = GatherGroup(cursor.pText, cursor.pTextEnd, bits) * 6 / 8;
        if (size == 0)
        {
            break;
        }
        // Once a group didn't fit, no later one is written: there would be a hole.
        bFits = bFits && cursor.pOutEnd - cursor.pOut >= size;
        decoded.nSize += static_cast<std::size_t>(bFits ? 0 : size);
        for (int i = 0; i < size && bFits; ++i)
        {
            *cursor.pOut++ = static_cast<std::uint8_t>(bits >> (16 - 8 * i));
        }
    }
    decoded.nWritten = static_cast<std::size_t>(cursor.pOut - out);
    decoded.nSize += decoded.nWritten;
    return decoded;
}

std::size_t GetBase64Length(std::size_t size, std::uint32_t flags)
{
    std::size_t const tail = size % 3;
    std::size_t length = size / 3 * 4;
    if (tail > 0)
    {
        length += (flags & BASE64_NO_FILL) == 0 ? 4 : tail + 1;
    }
    if ((flags & BASE64_NO_LINES) == 0 && size > 0)
    {
        length += (size - 1) / BASE64_LINE_DATA * 2;
    }
    return length;
}

std::size_t EncodeBase64(std::uint8_t const * data, std::size_t size, char * out, std::uint32_t flags)
{
    static EncodeNarrowLines const s_encode = ChoosePath(ENCODE_NARROW_PATHS);
    return Encode(s_encode, data, size, out, flags);
}

std::size_t EncodeBase64(std::uint8_t const * data, std::size_t size, WCHAR * out, std::uint32_t flags)
{
    static EncodeWideLines const s_encode = ChoosePath(ENCODE_WIDE_PATHS);
    return Encode(s_encode, data, size, out, flags);
}

Base64Decoded DecodeBase64Loosely(std::string_view text, std::uint8_t * out, std::size_t room)
{
    static DecodeGroups const s_decode = ChoosePath(DECODE_PATHS);
    return DecodeBase64On(s_decode, text.data(), text.size(), out, room);
}

std::size_t DecodeBase64Strictly(std::string_view text, std::uint8_t * out, std::size_t & size)
{
    std::uint8_t * const begin = out;
    std::size_t fills = 0;
    std::size_t digits = 0; // of the group
    std::uint32_t bits = 0;
    std::size_t at = 0;
    std::size_t fault = NO_FAULT;
    for (; at < text.size() && fault == NO_FAULT; ++at)
    {
        char const c = text[at];
        std::uint8_t const value = ValueOf(c);
        if (value != NO_DIGIT && fills == 0)
        {
            bits = bits << 6 | value;
            if (++digits == 4)
            {
                *out++ = static_cast<std::uint8_t>(bits >> 16);
                *out++ = static_cast<std::uint8_t>(bits >> 8);
                *out++ = static_cast<std::uint8_t>(bits);
                digits = 0;
                bits = 0;
            }
        }
        else if (c == '=' && digits >= 2 && digits + fills < 4)
        {
            ++fills;
        }
        else if (c != '\n' && !(c == '\r' && at + 1 < text.size() && text[at + 1] == '\n'))
        {
            fault = at;
        }
    }
    // What the last digit has beyond whole bytes is zero.
    std::uint32_t const unused = digits == 2 ? 0xFu : digits == 3 ? 0x3u : 0u;
    if (fault == NO_FAULT && (digits == 1 || (fills > 0 && digits + fills < 4)))
    {
        fault = text.size();
    }
    else if (fault == NO_FAULT && (bits & unused) != 0)
    {
        fault = text.size() - 1;
        while (ValueOf(text[fault]) == NO_DIGIT)
        {
            --fault;
        }
    }
    if (fault == NO_FAULT && digits > 0)
    {
        bits <<= 6 * (4 - digits);
        *out++ = static_cast<std::uint8_t>(bits >> 16);
        if (digits == 3)
        {
            *out++ = static_cast<std::uint8_t>(bits >> 8);
        }
    }
    size = static_cast<std::size_t>(out - begin);
    return fault;
}
} // namespace kvx::hash
