#include "kvx/platform/mfc/Text.h"

#include "kvx/platform/mfc/Exception.h"
#include "kvx/platform/mfc/TextReferences.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace
{
constexpr std::size_t MAX_LENGTH = std::numeric_limits<std::int32_t>::max() - 64;

/// Widens or narrows a text through a code page; an empty result where the system refuses it.
CString Widen(std::string_view text, UINT codePage)
{
    CString out;
    if (text.empty())
    {
        return out;
    }
    if (text.size() > MAX_LENGTH)
    {
        kvx::ThrowTextLength();
    }
    // No code page makes more UTF-16 units than it has bytes.
    int const size = static_cast<int>(text.size());
    WCHAR * const buffer = out.GetBuffer(size);
    out.ReleaseBuffer(MultiByteToWideChar(codePage, 0, text.data(), size, buffer, size));
    return out;
}

CStringA Narrow(std::basic_string_view<WCHAR> text, UINT codePage)
{
    CStringA out;
    if (text.empty())
    {
        return out;
    }
    int const size = static_cast<int>(text.size());
    int const needed = WideCharToMultiByte(codePage, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    if (needed > 0)
    {
        char * const buffer = out.GetBuffer(needed);
        out.ReleaseBuffer(WideCharToMultiByte(codePage, 0, text.data(), size, buffer, needed, nullptr, nullptr));
    }
    return out;
}
} // namespace

namespace kvx
{
TextHead * AllocateText(std::size_t capacity, std::size_t charSize)
{
    if (capacity > MAX_LENGTH)
    {
        ThrowTextLength();
    }
    // Fills the 16-byte steps in which memory is handed out, so that short appends stay in place.
    std::size_t const bytes = (sizeof(TextHead) + (capacity + 1) * charSize + 8 + 15) / 16 * 16 - 8;
    auto * const head = static_cast<TextHead *>(std::malloc(bytes));
    if (!head)
    {
        ThrowTextLength();
    }
    head->nRefs = 1;
    head->nLength = 0;
    head->nCapacity = static_cast<std::int32_t>((bytes - sizeof(TextHead)) / charSize - 1);
    return head;
}

void FreeText(TextHead * head) noexcept
{
    if (!SmallPieces::Free(head))
    {
        std::free(head);
    }
}

TextPool::TextPool(std::size_t firstBlock, std::size_t largestBlock)
    : m_pieces(firstBlock, largestBlock),
      m_nLongest(std::min(LONGEST, firstBlock / (4 * sizeof(WCHAR)))) // no text takes most of a block
{
}

TextHead * TextPool::Allocate(std::size_t capacity)
{
    static_assert(alignof(TextHead) <= 4 &&
                  sizeof(TextHead) + (LONGEST + 1) * sizeof(WCHAR) <= SmallPieces::LARGEST_PIECE);
    if (capacity > m_nLongest)
    {
        return AllocateText(capacity, sizeof(WCHAR));
    }
    void * const memory = m_pieces.Allocate(sizeof(TextHead) + (capacity + 1) * sizeof(WCHAR));
    if (!memory)
    {
        ThrowTextLength();
    }
    return new (memory) TextHead{1, 0, static_cast<std::int32_t>(capacity)};
}

void ThrowTextIndex()
{
    AfxThrowInvalidArgException();
}

void ThrowTextLength()
{
    AfxThrowMemoryException();
}

std::string ToUtf8(std::basic_string_view<WCHAR> text)
{
    CStringA const narrow = Narrow(text, CP_UTF8);
    return std::string(narrow.AsView());
}

CString FromUtf8(std::string_view text)
{
    return Widen(text, CP_UTF8);
}
} // namespace kvx

template <class XCHAR>
void CStringT<XCHAR>::Convert(std::basic_string_view<Other> text)
{
    if constexpr (std::is_same_v<XCHAR, char>)
    {
        *this = Narrow(text, CP_ACP);
    }
    else
    {
        *this = Widen(text, CP_ACP);
    }
}

template <class XCHAR>
XCHAR * CStringT<XCHAR>::Own(int capacity)
{
    int const length = GetLength();
    if (!IsNil() && !IsShared() && capacity <= Head()->nCapacity)
    {
        return m_pText;
    }
    // Buffers that are asked for in steps grow by half, so that many steps cost linear time.
    std::size_t wanted = static_cast<std::size_t>(std::max(capacity, length));
    if (length > 0 && capacity > Head()->nCapacity)
    {
        wanted = std::max(wanted, static_cast<std::size_t>(length) + static_cast<std::size_t>(length) / 2);
    }
    kvx::TextHead * const head =
        kvx::AllocateText(std::min(wanted, std::max(MAX_LENGTH, static_cast<std::size_t>(capacity))), sizeof(XCHAR));
    XCHAR * const characters = Characters(head);
    std::memcpy(characters, m_pText, (static_cast<std::size_t>(length) + 1) * sizeof(XCHAR));
    head->nLength = length;
    Release();
    m_pText = characters;
    return m_pText;
}

template <class XCHAR>
void CStringT<XCHAR>::Assign(View text)
{
    if (text.empty())
    {
        Empty();
        return;
    }
    if (!IsNil() && !IsShared() && text.size() <= static_cast<std::size_t>(Head()->nCapacity))
    {
        // The new text may be a piece of the old one.
        std::memmove(m_pText, text.data(), text.size() * sizeof(XCHAR));
        m_pText[text.size()] = 0;
        Head()->nLength = static_cast<std::int32_t>(text.size());
        return;
    }
    CStringT fresh(text);
    std::swap(m_pText, fresh.m_pText);
}

template <class XCHAR>
void CStringT<XCHAR>::AppendGrowing(View text)
{
    constexpr std::size_t SMALLEST = 12;
    std::size_t const length = static_cast<std::size_t>(GetLength());
    if (text.size() > MAX_LENGTH - length)
    {
        kvx::ThrowTextLength();
    }
    // A text of one's own doubles, so that many appends cost linear time.
    std::size_t const grown = IsNil() ? SMALLEST : (IsShared() ? 0 : std::min(2 * length, MAX_LENGTH));
    kvx::TextHead * const head = kvx::AllocateText(std::max(length + text.size(), grown), sizeof(XCHAR));
    XCHAR * const characters = Characters(head);
    std::memcpy(characters, m_pText, length * sizeof(XCHAR));
    // What is appended may be a piece of this very text, so that goes last.
    std::memcpy(characters + length, text.data(), text.size() * sizeof(XCHAR));
    characters[length + text.size()] = 0;
    head->nLength = static_cast<std::int32_t>(length + text.size());
    Release();
    m_pText = characters;
}

template <class XCHAR>
CStringT<XCHAR> CStringT<XCHAR>::Join(View a, View b)
{
    CStringT out;
    if (a.size() + b.size() > 0)
    {
        XCHAR * const characters = out.InitLength(a.size() + b.size());
        std::memcpy(characters, a.data(), a.size() * sizeof(XCHAR));
        std::memcpy(characters + a.size(), b.data(), b.size() * sizeof(XCHAR));
    }
    return out;
}

template <class XCHAR>
int CStringT<XCHAR>::CompareNoCase(View other) const noexcept
{
    using Unit = std::make_unsigned_t<std::conditional_t<sizeof(XCHAR) == 1, char, std::int16_t>>;
    View const self = *this;
    std::size_t const common = std::min(self.size(), other.size());
    for (std::size_t i = 0; i < common; ++i)
    {
        XCHAR const a = kvx::ToLower(self[i]);
        XCHAR const b = kvx::ToLower(other[i]);
        if (a != b)
        {
            return static_cast<Unit>(a) < static_cast<Unit>(b) ? -1 : 1;
        }
    }
    return self.size() == other.size() ? 0 : (self.size() < other.size() ? -1 : 1);
}

template <class XCHAR>
int CStringT<XCHAR>::Find(View part, int start) const noexcept
{
    if (start < 0 || start > GetLength())
    {
        return -1;
    }
    return ToIndex(AsView().find(part, static_cast<std::size_t>(start)));
}

template <class XCHAR>
int CStringT<XCHAR>::Find(XCHAR c, int start) const noexcept
{
    if (start < 0 || start > GetLength())
    {
        return -1;
    }
    return ToIndex(AsView().find(c, static_cast<std::size_t>(start)));
}

template <class XCHAR>
CStringT<XCHAR> CStringT<XCHAR>::Mid(int first, int count) const
{
    int const length = GetLength();
    first = std::clamp(first, 0, length);
    count = std::clamp(count, 0, length - first);
    if (count == length)
    {
        return *this;
    }
    return CStringT(AsView().substr(static_cast<std::size_t>(first), static_cast<std::size_t>(count)));
}

template <class XCHAR>
CStringT<XCHAR> CStringT<XCHAR>::SpanIncluding(PCXSTR set) const
{
    std::size_t const end = AsView().find_first_not_of(ToView(set));
    return end == View::npos ? *this : Left(static_cast<int>(end));
}

template <class XCHAR>
CStringT<XCHAR> CStringT<XCHAR>::SpanExcluding(PCXSTR set) const
{
    std::size_t const end = AsView().find_first_of(ToView(set));
    return end == View::npos ? *this : Left(static_cast<int>(end));
}

namespace
{
// Leaves a text alone, and shared, that the mapping doesn't change.
template <class XCHAR, class MAP>
void MapInPlace(CStringT<XCHAR> & text, MAP map)
{
    auto const view = text.AsView();
    auto const changed = std::ranges::find_if(view, [&](XCHAR c) { return map(c) != c; });
    if (changed == view.end())
    {
        return;
    }
    auto const first = static_cast<int>(changed - view.begin());
    int const length = text.GetLength();
    XCHAR * const characters = text.GetBuffer(length);
    std::transform(characters + first, characters + length, characters + first, map);
    text.ReleaseBuffer(length);
}
} // namespace

template <class XCHAR>
CStringT<XCHAR> & CStringT<XCHAR>::MakeLower()
{
    MapInPlace(*this, [](XCHAR c) { return kvx::ToLower(c); });
    return *this;
}

template <class XCHAR>
CStringT<XCHAR> & CStringT<XCHAR>::MakeUpper()
{
    MapInPlace(*this, [](XCHAR c) { return kvx::ToUpper(c); });
    return *this;
}

template <class XCHAR>
CStringT<XCHAR> & CStringT<XCHAR>::MakeReverse()
{
    if (int const length = GetLength(); length > 1)
    {
        XCHAR * const characters = Own(length);
        std::reverse(characters, characters + length);
    }
    return *this;
}

namespace
{
template <class XCHAR, class TEST>
void TrimHead(CStringT<XCHAR> & text, TEST drop)
{
    auto const view = text.AsView();
    auto const first = std::ranges::find_if_not(view, drop);
    if (first != view.begin())
    {
        text = text.Mid(static_cast<int>(first - view.begin()));
    }
}

template <class XCHAR, class TEST>
void TrimTail(CStringT<XCHAR> & text, TEST drop)
{
    int length = text.GetLength();
    while (length > 0 && drop(text.GetString()[length - 1]))
    {
        --length;
    }
    text.Truncate(length);
}
} // namespace

template <class XCHAR>
CStringT<XCHAR> & CStringT<XCHAR>::TrimLeft()
{
    TrimHead(*this, [](XCHAR c) { return kvx::IsSpace(c); });
    return *this;
}

template <class XCHAR>
CStringT<XCHAR> & CStringT<XCHAR>::TrimLeft(XCHAR drop)
{
    TrimHead(*this, [drop](XCHAR c) { return c == drop; });
    return *this;
}

template <class XCHAR>
CStringT<XCHAR> & CStringT<XCHAR>::TrimLeft(PCXSTR set)
{
    TrimHead(*this, [drop = ToView(set)](XCHAR c) { return drop.find(c) != View::npos; });
    return *this;
}

template <class XCHAR>
CStringT<XCHAR> & CStringT<XCHAR>::TrimRight()
{
    TrimTail(*this, [](XCHAR c) { return kvx::IsSpace(c); });
    return *this;
}

template <class XCHAR>
CStringT<XCHAR> & CStringT<XCHAR>::TrimRight(XCHAR drop)
{
    TrimTail(*this, [drop](XCHAR c) { return c == drop; });
    return *this;
}

template <class XCHAR>
CStringT<XCHAR> & CStringT<XCHAR>::TrimRight(PCXSTR set)
{
    TrimTail(*this, [drop = ToView(set)](XCHAR c) { return drop.find(c) != View::npos; });
    return *this;
}

template <class XCHAR>
int CStringT<XCHAR>::Replace(XCHAR from, XCHAR to)
{
    int const count = static_cast<int>(std::ranges::count(AsView(), from));
    if (count > 0 && from != to)
    {
        XCHAR * const characters = Own(GetLength());
        std::replace(characters, characters + GetLength(), from, to);
    }
    return from == to ? 0 : count;
}

template <class XCHAR>
int CStringT<XCHAR>::Replace(PCXSTR from, PCXSTR to)
{
    View const old = ToView(from);
    View const fresh = ToView(to);
    View const self = *this;
    std::size_t found = old.empty() ? View::npos : self.find(old);
    if (found == View::npos)
    {
        return 0;
    }
    CStringT out;
    int count = 0;
    std::size_t start = 0;
    for (; found != View::npos; found = self.find(old, start))
    {
        out.Append(self.substr(start, found - start));
        out.Append(fresh);
        start = found + old.size();
        ++count;
    }
    out.Append(self.substr(start));
    *this = std::move(out);
    return count;
}

template <class XCHAR>
int CStringT<XCHAR>::Remove(XCHAR c)
{
    int const count = static_cast<int>(std::ranges::count(AsView(), c));
    if (count > 0)
    {
        int const length = GetLength();
        XCHAR * const characters = Own(length);
        SetLength(static_cast<int>(std::remove(characters, characters + length, c) - characters));
    }
    return count;
}

template <class XCHAR>
int CStringT<XCHAR>::Insert(int index, PCXSTR text)
{
    View const part = ToView(text);
    std::size_t const at = static_cast<std::size_t>(std::clamp(index, 0, GetLength()));
    if (!part.empty())
    {
        CStringT out = Join(AsView().substr(0, at), part);
        out.Append(AsView().substr(at));
        *this = std::move(out);
    }
    return GetLength();
}

template <class XCHAR>
int CStringT<XCHAR>::Insert(int index, XCHAR c)
{
    XCHAR const text[] = {c, 0};
    return Insert(index, text);
}

template <class XCHAR>
int CStringT<XCHAR>::Delete(int index, int count)
{
    int const length = GetLength();
    index = std::max(index, 0);
    if (index < length && count > 0)
    {
        count = std::min(count, length - index);
        XCHAR * const characters = Own(length);
        std::memmove(characters + index, characters + index + count,
                     static_cast<std::size_t>(length - index - count) * sizeof(XCHAR));
        SetLength(length - count);
    }
    return GetLength();
}

template <class XCHAR>
CStringT<XCHAR> CStringT<XCHAR>::Tokenize(PCXSTR delimiters, int & position) const
{
    View const self = *this;
    View const set = ToView(delimiters);
    if (position < 0)
    {
        kvx::ThrowTextIndex();
    }
    std::size_t const first = self.find_first_not_of(set, static_cast<std::size_t>(position));
    if (first == View::npos)
    {
        position = -1;
        return {};
    }
    std::size_t const end = std::min(self.find_first_of(set, first), self.size());
    position = static_cast<int>(std::min(end + 1, self.size()));
    return CStringT(self.substr(first, end - first));
}

template class CStringT<WCHAR>;
template class CStringT<char>;
