#include "kvx/xml/XmlEntities.h"

#include <algorithm>
#include <cstdint>

namespace kvx
{
namespace
{
constexpr std::uint32_t NO_CODE_POINT = 0xFFFFFFFF;

struct Entity
{
    std::string_view name;
    char character;
};
constexpr Entity ENTITIES[] = {{"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};

template <class XCHAR>
Entity const * FindEntity(std::basic_string_view<XCHAR> text)
{
    for (Entity const & entity : ENTITIES)
    {
        if (text.size() >= entity.name.size() && std::equal(entity.name.begin(), entity.name.end(), text.begin()))
        {
            return &entity;
        }
    }
    return nullptr;
}

int DigitValue(unsigned c)
{
    if (c >= '0' && c <= '9')
    {
        return static_cast<int>(c - '0');
    }
    unsigned const lower = c | 0x20;
    return lower >= 'a' && lower <= 'f' ? static_cast<int>(lower - 'a' + 10) : 99;
}

/// Reads the reference behind `&#`; its length up to and with the `;`, or 0 if it is malformed.
template <class XCHAR>
std::size_t ReadReference(std::basic_string_view<XCHAR> text, std::uint32_t & codePoint)
{
    constexpr std::uint32_t TOO_BIG = 0x200000;
    bool const bHex = !text.empty() && text[0] == 'x';
    int const base = bHex ? 16 : 10;
    std::size_t const start = bHex ? 1 : 0;
    codePoint = 0;
    for (std::size_t i = start; i < text.size(); ++i)
    {
        if (text[i] == ';')
        {
            return i > start ? i + 1 : 0;
        }
        int const digit = DigitValue(static_cast<unsigned>(text[i]));
        if (digit >= base)
        {
            return 0;
        }
        codePoint = std::min(TOO_BIG, codePoint * static_cast<std::uint32_t>(base) + static_cast<std::uint32_t>(digit));
    }
    return 0;
}

void AppendUtf8(std::string & out, std::uint32_t c)
{
    auto const tail = [&](int shift) { out += static_cast<char>(0x80 | ((c >> shift) & 0x3F)); };
    if (c <= 0x7F)
    {
        out += static_cast<char>(c);
    }
    else if (c <= 0x7FF)
    {
        out += static_cast<char>(0xC0 | (c >> 6));
        tail(0);
    }
    else if (c <= 0xFFFF)
    {
        out += static_cast<char>(0xE0 | (c >> 12));
        tail(6);
        tail(0);
    }
    else if (c <= 0x1FFFFF)
    {
        out += static_cast<char>(0xF0 | (c >> 18));
        tail(12);
        tail(6);
        tail(0);
    }
}

std::size_t SequenceLength(unsigned char lead)
{
    if (lead >= 0xC2 && lead <= 0xDF)
    {
        return 2;
    }
    if (lead >= 0xE0 && lead <= 0xEF)
    {
        return 3;
    }
    return lead >= 0xF0 && lead <= 0xF4 ? 4 : 1;
}
} // namespace

std::string DecodeXmlEntities(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty())
    {
        std::size_t used = SequenceLength(static_cast<unsigned char>(text[0]));
        if (text[0] != '&')
        {
            used = std::min(used, text.size());
            out.append(text.substr(0, used));
        }
        else if (text.size() > 1 && text[1] == '#')
        {
            std::uint32_t codePoint = NO_CODE_POINT;
            std::size_t const length = ReadReference(text.substr(2), codePoint);
            if (length == 0)
            {
                break;
            }
            AppendUtf8(out, codePoint);
            used = 2 + length;
        }
        else if (Entity const * const entity = FindEntity(text))
        {
            out += entity->character;
            used = entity->name.size();
        }
        text.remove_prefix(used);
    }
    return out;
}

CString EncodeXmlEntities(CString const & text)
{
    CString out;
    auto const rest = text.AsView();
    for (std::size_t i = 0; i < rest.size(); ++i)
    {
        WCHAR const c = rest[i];
        if (c == '&' && i + 2 < rest.size() && rest[i + 1] == '#' && rest[i + 2] == 'x')
        {
            std::size_t const end = std::min(rest.find(u';', i), rest.size() - 1);
            out.Append(rest.substr(i, end - i + 1));
            i = end;
            continue;
        }
        Entity const * const entity =
            std::ranges::find_if(ENTITIES, [c](Entity const & e) { return static_cast<WCHAR>(e.character) == c; });
        if (entity != std::end(ENTITIES))
        {
            out += CString(CStringA(CStringA::View(entity->name)));
        }
        else if (c < 32)
        {
            out.AppendFormat(_T("&#x%02X;"), static_cast<int>(c));
        }
        else
        {
            out.AppendChar(c);
        }
    }
    return out;
}

CString DecodeXmlReferences(CString const & text)
{
    CString out;
    auto rest = text.AsView();
    while (!rest.empty())
    {
        std::size_t used = 1;
        std::uint32_t codePoint = NO_CODE_POINT;
        if (rest[0] == '&')
        {
            if (Entity const * const entity = FindEntity(rest))
            {
                codePoint = static_cast<std::uint32_t>(entity->character);
                used = entity->name.size();
            }
            else if (std::size_t const length =
                         rest.size() > 1 && rest[1] == '#' ? ReadReference(rest.substr(2), codePoint) : 0)
            {
                used = 2 + length;
            }
        }
        if (used == 1 || codePoint > 0x10FFFF)
        {
            out.Append(rest.substr(0, used));
        }
        else if (codePoint > 0xFFFF)
        {
            out.AppendChar(static_cast<WCHAR>(0xD7C0 + (codePoint >> 10)));
            out.AppendChar(static_cast<WCHAR>(0xDC00 | (codePoint & 0x3FF)));
        }
        else
        {
            out.AppendChar(static_cast<WCHAR>(codePoint));
        }
        rest.remove_prefix(used);
    }
    return out;
}
} // namespace kvx
