#pragma once

/// Text: `CString` (wide, UTF-16 units) and `CStringA` (narrow, bytes of a code page).
///
/// A string is one pointer wide. Copies share their characters and count them; the first change through one
/// of them makes its own copy. The empty text needs no memory. Characters may include NUL: lengths are
/// counted, and the NUL behind the last character is there for callers of C interfaces.
///
/// Threads: different strings may be used by different threads, also when they share characters; one string
/// belongs to one thread at a time.
///
/// Errors: an index out of range raises CInvalidArgException *, a length that can't be had
/// CMemoryException *.

#include "kvx/platform/host.h"
#include "kvx/platform/mfc/BlockPool.h"
#include "kvx/platform/mfc/CharTypes.h"
#include "kvx/platform/mfc/Format.h"

#include <atomic>
#include <bit>
#include <cstdint>
#include <cstring>
#include <ext/atomicity.h>
#include <string>
#include <string_view>
#include <utility>

namespace kvx
{
/// Head of the characters that strings share; the characters and a NUL follow it in memory.
struct TextHead
{
    std::int32_t nRefs;
    std::int32_t nLength;
    std::int32_t nCapacity; // characters, without the NUL; 0 only in the shared empty text
};

class TextReferences;

template <class XCHAR>
struct EmptyText
{
    TextHead head;
    XCHAR terminator;
};

/// The text that empty strings point to. Its count is never touched. Each module of a program has one of its own, so it
/// is known by its capacity and not by its address.
template <class XCHAR>
KVX_PER_MODULE inline constexpr EmptyText<XCHAR> EMPTY_TEXT{{0, 0, 0}, 0};

/// Memory for `capacity` characters, with a count of 1 and length 0.
KVX_API TextHead * AllocateText(std::size_t capacity, std::size_t charSize);
KVX_API void FreeText(TextHead * head) noexcept;
[[noreturn]] KVX_API void ThrowTextIndex();
[[noreturn]] KVX_API void ThrowTextLength();

/// -1, 0 or 1 by the value of the units, as unsigned numbers; eight bytes at a time.
template <class XCHAR>
int CompareUnits(std::basic_string_view<XCHAR> a, std::basic_string_view<XCHAR> b) noexcept
{
    static_assert(std::endian::native == std::endian::little, "the first of several units is the lowest");
    using Block = std::uint64_t;
    using Unit = std::conditional_t<sizeof(XCHAR) == 1, std::uint8_t, std::uint16_t>;
    constexpr std::size_t STEP = sizeof(Block) / sizeof(XCHAR);
    std::size_t const common = a.size() < b.size() ? a.size() : b.size();
    std::size_t i = 0;
    for (; i + STEP <= common; i += STEP)
    {
        Block theirs = 0;
        Block ours = 0;
        std::memcpy(&ours, a.data() + i, sizeof(Block));
        std::memcpy(&theirs, b.data() + i, sizeof(Block));
        if (ours != theirs)
        {
            auto const shift =
                static_cast<std::size_t>(std::countr_zero(ours ^ theirs)) / (8 * sizeof(XCHAR)) * (8 * sizeof(XCHAR));
            return static_cast<Unit>(ours >> shift) < static_cast<Unit>(theirs >> shift) ? -1 : 1;
        }
    }
    for (; i < common; ++i)
    {
        if (a[i] != b[i])
        {
            return static_cast<Unit>(a[i]) < static_cast<Unit>(b[i]) ? -1 : 1;
        }
    }
    return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

/// Well-formed UTF-16 to UTF-8; a lone surrogate becomes U+FFFD.
KVX_API std::string ToUtf8(std::basic_string_view<WCHAR> text);
} // namespace kvx

template <class XCHAR>
class CStringT
{
public:
    using View = std::basic_string_view<XCHAR>;
    using Other = std::conditional_t<std::is_same_v<XCHAR, char>, WCHAR, char>;
    using PCXSTR = XCHAR const *;

    CStringT() noexcept : m_pText(Nil()) {}
    CStringT(CStringT const & other) noexcept : m_pText(other.m_pText) { Share(); }
    CStringT(CStringT && other) noexcept : m_pText(std::exchange(other.m_pText, Nil())) {}
    CStringT(PCXSTR text) : m_pText(Nil()) { Init(ToView(text)); }
    CStringT(PCXSTR text, int length) : m_pText(Nil()) { Init(Checked(text, length)); }
    explicit CStringT(View text) : m_pText(Nil()) { Init(text); }
    CStringT(XCHAR c, int repeat) : m_pText(Nil())
    {
        if (repeat > 0)
        {
            std::char_traits<XCHAR>::assign(InitLength(repeat), static_cast<std::size_t>(repeat), c);
        }
    }
    explicit CStringT(XCHAR c) : m_pText(Nil()) { Init(View(&c, 1)); }

    /// Converts with the ANSI code page.
    CStringT(Other const * text) : m_pText(Nil())
    {
        Convert(text ? std::basic_string_view<Other>(text) : std::basic_string_view<Other>());
    }
    CStringT(CStringT<Other> const & text) : m_pText(Nil()) { Convert(std::basic_string_view<Other>(text)); }

    ~CStringT() { Release(); }

    CStringT & operator=(CStringT const & other) noexcept
    {
        if (m_pText != other.m_pText)
        {
            Release();
            m_pText = other.m_pText;
            Share();
        }
        return *this;
    }
    CStringT & operator=(CStringT && other) noexcept
    {
        std::swap(m_pText, other.m_pText);
        return *this;
    }
    CStringT & operator=(PCXSTR text)
    {
        Assign(ToView(text));
        return *this;
    }
    CStringT & operator=(XCHAR c)
    {
        Assign(View(&c, 1));
        return *this;
    }
    CStringT & operator=(Other const * text) { return *this = CStringT(text); }

    int GetLength() const noexcept { return Head()->nLength; }
    bool IsEmpty() const noexcept { return GetLength() == 0; }
    PCXSTR GetString() const noexcept { return m_pText; }
    operator PCXSTR() const noexcept { return m_pText; }
    operator View() const noexcept { return View(m_pText, static_cast<std::size_t>(GetLength())); }
    View AsView() const noexcept { return *this; }

    XCHAR GetAt(int index) const
    {
        if (index < 0 || index > GetLength())
        {
            kvx::ThrowTextIndex();
        }
        return m_pText[index];
    }
    XCHAR operator[](int index) const { return GetAt(index); }
    void SetAt(int index, XCHAR c)
    {
        if (index < 0 || index >= GetLength())
        {
            kvx::ThrowTextIndex();
        }
        Own(GetLength())[index] = c;
    }

    void Empty() noexcept
    {
        Release();
        m_pText = Nil();
    }
    void SetString(PCXSTR text) { *this = text; }
    void SetString(PCXSTR text, int length) { Assign(Checked(text, length)); }
    void Assign(View text);
    void Truncate(int length)
    {
        if (length < GetLength())
        {
            SetLength(length);
        }
    }

    /// Room for at least `minimum` characters, the present ones included, and a NUL behind them, which nobody else
    /// sees: the empty text gets its own here too. The caller ends the access with ReleaseBuffer and must not keep the
    /// pointer.
    XCHAR * GetBuffer(int minimum = 0)
    {
        if (minimum < 0)
        {
            kvx::ThrowTextLength();
        }
        return Own(minimum > GetLength() ? minimum : GetLength());
    }
    XCHAR * GetBufferSetLength(int length)
    {
        XCHAR * const buffer = GetBuffer(length);
        SetLength(length);
        return buffer;
    }
    /// Takes over what was written; -1 finds the length by the NUL.
    void ReleaseBuffer(int length = -1)
    {
        if (length == -1)
        {
            int const capacity = Head()->nCapacity;
            length = 0;
            while (length < capacity && m_pText[length] != 0)
            {
                ++length;
            }
        }
        SetLength(length);
    }
    void ReleaseBufferSetLength(int length) { ReleaseBuffer(length); }
    int GetAllocLength() const noexcept { return Head()->nCapacity; }
    void Preallocate(int length) { (void)GetBuffer(length); }
    void FreeExtra()
    {
        if (GetAllocLength() != GetLength())
        {
            *this = CStringT(AsView());
        }
    }

    void Append(View text)
    {
        if (text.empty())
        {
            return;
        }
        std::size_t const length = static_cast<std::size_t>(GetLength());
        if (text.size() <= static_cast<std::size_t>(Head()->nCapacity) - length && !IsNil() && !IsShared())
        {
            std::memcpy(m_pText + length, text.data(), text.size() * sizeof(XCHAR));
            m_pText[length + text.size()] = 0;
            Head()->nLength = static_cast<std::int32_t>(length + text.size());
            return;
        }
        AppendGrowing(text);
    }
    void Append(PCXSTR text) { Append(ToView(text)); }
    void Append(PCXSTR text, int length) { Append(Checked(text, length)); }
    void Append(CStringT const & text)
    {
        constexpr int WORTH_SHARING = 32;
        if (IsNil() && text.GetLength() >= WORTH_SHARING)
        {
            *this = text;
            return;
        }
        Append(View(text));
    }
    void AppendChar(XCHAR c) { Append(View(&c, 1)); }
    CStringT & operator+=(CStringT const & text)
    {
        Append(text);
        return *this;
    }
    CStringT & operator+=(PCXSTR text)
    {
        Append(text);
        return *this;
    }
    CStringT & operator+=(XCHAR c)
    {
        AppendChar(c);
        return *this;
    }

    /// Orders by the value of the units.
    int Compare(View other) const noexcept { return kvx::CompareUnits(AsView(), other); }
    int Compare(CStringT const & other) const noexcept { return Compare(View(other)); }
    int CompareNoCase(CStringT const & other) const noexcept { return CompareNoCase(View(other)); }
    int Compare(PCXSTR other) const noexcept { return Compare(ToView(other)); }
    int CompareNoCase(View other) const noexcept;
    int CompareNoCase(PCXSTR other) const noexcept { return CompareNoCase(ToView(other)); }
    int Collate(PCXSTR other) const noexcept { return Compare(other); }

    /// Index of the first occurrence at or behind `start`, or -1.
    int Find(PCXSTR part, int start = 0) const { return Find(ToView(part), start); }
    int Find(CStringT const & part, int start = 0) const noexcept { return Find(View(part), start); }
    int Find(View part, int start = 0) const noexcept;
    int Find(XCHAR c, int start = 0) const noexcept;
    int ReverseFind(XCHAR c) const noexcept { return ToIndex(AsView().rfind(c)); }
    int FindOneOf(PCXSTR set) const { return ToIndex(AsView().find_first_of(ToView(set))); }

    CStringT Left(int count) const { return Mid(0, count); }
    CStringT Right(int count) const
    {
        count = count < 0 ? 0 : count;
        return count >= GetLength() ? *this : Mid(GetLength() - count);
    }
    CStringT Mid(int first) const { return Mid(first, GetLength()); }
    CStringT Mid(int first, int count) const;
    CStringT SpanIncluding(PCXSTR set) const;
    CStringT SpanExcluding(PCXSTR set) const;

    CStringT & MakeLower();
    CStringT & MakeUpper();
    CStringT & MakeReverse();
    CStringT & Trim() { return TrimRight().TrimLeft(); }
    CStringT & Trim(XCHAR c) { return TrimRight(c).TrimLeft(c); }
    CStringT & Trim(PCXSTR set) { return TrimRight(set).TrimLeft(set); }
    CStringT & TrimLeft();
    CStringT & TrimLeft(XCHAR c);
    CStringT & TrimLeft(PCXSTR set);
    CStringT & TrimRight();
    CStringT & TrimRight(XCHAR c);
    CStringT & TrimRight(PCXSTR set);

    /// The number of replacements, removals; the new length.
    int Replace(XCHAR from, XCHAR to);
    int Replace(PCXSTR from, PCXSTR to);
    int Remove(XCHAR c);
    int Insert(int index, PCXSTR text);
    int Insert(int index, XCHAR c);
    int Delete(int index, int count = 1);

    /// The next token at or behind `position`, delimited by characters of the set; `position` becomes -1 at the
    /// end.
    CStringT Tokenize(PCXSTR delimiters, int & position) const;

    /// See kvx::FormatText for the rules and errors.
    template <class... T>
    void Format(PCXSTR format, T const &... values)
    {
        FormatV(format, FormatArgStore<sizeof...(T)>(values...));
    }
    template <class... T>
    void AppendFormat(PCXSTR format, T const &... values)
    {
        FormatArgStore<sizeof...(T)> const store(values...);
        Append(kvx::FormatText<XCHAR>(CheckedFormat(format), store));
    }
    void FormatV(PCXSTR format, FormatArgs const & args)
    {
        *this = kvx::FormatText<XCHAR>(CheckedFormat(format), args);
    }

    friend CStringT operator+(CStringT const & a, CStringT const & b) { return Join(a, b); }
    friend CStringT operator+(CStringT const & a, PCXSTR b) { return Join(a, ToView(b)); }
    friend CStringT operator+(PCXSTR a, CStringT const & b) { return Join(ToView(a), b); }
    friend CStringT operator+(CStringT const & a, XCHAR b) { return Join(a, View(&b, 1)); }
    friend CStringT operator+(XCHAR a, CStringT const & b) { return Join(View(&a, 1), b); }

    friend bool operator==(CStringT const & a, CStringT const & b) noexcept
    {
        return a.m_pText == b.m_pText || Equal(a, b);
    }
    friend bool operator==(CStringT const & a, PCXSTR b) noexcept { return Equal(a, ToView(b)); }
    friend bool operator==(CStringT const & a, View b) noexcept { return Equal(a, b); }
    // Spelled out beside <=>: the comparisons of the ranges library would else take a string for the pointer that it
    // converts to.
    friend bool operator<(CStringT const & a, CStringT const & b) noexcept { return a.Compare(View(b)) < 0; }
    friend bool operator>(CStringT const & a, CStringT const & b) noexcept { return a.Compare(View(b)) > 0; }
    friend bool operator<=(CStringT const & a, CStringT const & b) noexcept { return a.Compare(View(b)) <= 0; }
    friend bool operator>=(CStringT const & a, CStringT const & b) noexcept { return a.Compare(View(b)) >= 0; }
    friend auto operator<=>(CStringT const & a, CStringT const & b) noexcept { return a.Compare(View(b)) <=> 0; }
    friend auto operator<=>(CStringT const & a, PCXSTR b) noexcept { return a.Compare(b) <=> 0; }

private:
    friend class kvx::TextReferences;

    XCHAR * m_pText;

    static XCHAR * Nil() noexcept { return const_cast<XCHAR *>(&kvx::EMPTY_TEXT<XCHAR>.terminator); }
    bool IsNil() const noexcept { return Head()->nCapacity == 0; }
    static XCHAR * Characters(kvx::TextHead * head) noexcept { return reinterpret_cast<XCHAR *>(head + 1); }
    static int ToIndex(std::size_t index) noexcept { return index == View::npos ? -1 : static_cast<int>(index); }
    static bool Equal(View a, View b) noexcept
    {
        return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(XCHAR)) == 0;
    }
    /// A null pointer is the empty text; never a null view, which the memory functions don't take.
    static View ToView(PCXSTR text) noexcept { return text ? View(text) : View(Nil(), 0); }
    static View Checked(PCXSTR text, int length)
    {
        if (length < 0 || (!text && length > 0))
        {
            kvx::ThrowTextIndex();
        }
        return text ? View(text, static_cast<std::size_t>(length)) : ToView(text);
    }
    static View CheckedFormat(PCXSTR format)
    {
        if (!format)
        {
            kvx::ThrowTextIndex();
        }
        return View(format);
    }
    static CStringT Join(View a, View b);

    kvx::TextHead * Head() const noexcept { return reinterpret_cast<kvx::TextHead *>(m_pText) - 1; }
    void Share() const noexcept
    {
        if (!IsNil())
        {
            __gnu_cxx::__atomic_add_dispatch(&Head()->nRefs, 1);
        }
    }
    void Release() noexcept
    {
        if (!IsNil())
        {
            kvx::TextHead * const head = Head();
            // Nobody else can raise a count of 1, so the last owner needs no locked operation.
            if (__atomic_load_n(&head->nRefs, __ATOMIC_ACQUIRE) == 1 ||
                __gnu_cxx::__exchange_and_add_dispatch(&head->nRefs, -1) == 1)
            {
                kvx::FreeText(head);
            }
        }
    }
    bool IsShared() const noexcept { return __atomic_load_n(&Head()->nRefs, __ATOMIC_ACQUIRE) != 1; }

    /// For construction only: memory of that length, not yet written.
    XCHAR * InitLength(std::size_t length)
    {
        kvx::TextHead * const head = kvx::AllocateText(length, sizeof(XCHAR));
        head->nLength = static_cast<std::int32_t>(length);
        m_pText = Characters(head);
        m_pText[length] = 0;
        return m_pText;
    }
    void Init(View text)
    {
        if (!text.empty())
        {
            std::memcpy(InitLength(text.size()), text.data(), text.size() * sizeof(XCHAR));
        }
    }
    void Convert(std::basic_string_view<Other> text);
    void AppendGrowing(View text);
    void SetLength(int length)
    {
        if (length < 0 || length > Head()->nCapacity)
        {
            kvx::ThrowTextIndex();
        }
        if (length == GetLength() && m_pText[length] == 0)
        {
            return; // never writes to the shared empty text, nor to one that others read
        }
        Own(length > GetLength() ? length : GetLength())[length] = 0;
        Head()->nLength = length;
    }
    /// Characters of this string alone, with room for `capacity`.
    XCHAR * Own(int capacity);
};

KVX_INSTANCES(class, CStringT<WCHAR>);
KVX_INSTANCES(class, CStringT<char>);

using CString = CStringT<WCHAR>;
using CStringW = CString;
using CStringA = CStringT<char>;

namespace kvx
{
/// Reads UTF-8; bytes that are none become U+FFFD.
KVX_API CString FromUtf8(std::string_view text);
} // namespace kvx
