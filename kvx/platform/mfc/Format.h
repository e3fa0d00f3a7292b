#pragma once

/// Format arguments captured with their types.
///
/// A format directive never reads memory on trust: every argument is stored with its kind, and a directive
/// that finds no argument or one of a wrong kind raises the invalid-argument exception. A format that came
/// from outside the program is therefore harmless.
///
/// `FormatArgs` is a view, valid for the length of the call that it was made for.

#include "kvx/platform/host.h"

#include <array>
#include <concepts>
#include <cstdint>
#include <string_view>
#include <type_traits>

template <class XCHAR>
class CStringT;

/// One captured argument.
class FormatArg
{
public:
    enum class Kind : std::uint8_t
    {
        Integer,
        Float,
        WideText,
        NarrowText,
        Pointer
    };

    constexpr FormatArg() : m_integer(0), m_nLength(0), m_kind(Kind::Integer), m_nSize(sizeof(int)), m_bSigned(true) {}

    template <class T>
    static FormatArg Capture(T const & value);

    Kind GetKind() const { return m_kind; }

    /// The integer, sign-extended or zero-extended from its own width.
    std::int64_t GetInteger() const { return m_integer; }
    double GetFloat() const { return m_float; }
    void const * GetPointer() const { return m_pointer; }

    /// The text; a null pointer gives "(null)".
    std::basic_string_view<WCHAR> GetWideText() const;
    std::string_view GetNarrowText() const;

    /// The same, and the length of a text is known.
    FormatArg Counted() const;

private:
    union
    {
        std::int64_t m_integer;
        double m_float;
        void const * m_pointer;
    };
    std::size_t m_nLength; // of a text, in characters; NUL_TERMINATED where nobody has counted yet
    Kind m_kind;
    std::uint8_t m_nSize;
    bool m_bSigned;

    static constexpr std::size_t NUL_TERMINATED = static_cast<std::size_t>(-1);

    void SetText(Kind kind, void const * text, std::size_t length)
    {
        m_kind = kind;
        m_pointer = text;
        m_nLength = length;
    }
};

/// A view of captured arguments: what an "argument list" parameter takes.
class FormatArgs
{
public:
    constexpr FormatArgs() = default;
    constexpr FormatArgs(FormatArg const * args, std::size_t count) : m_pArgs(args), m_nCount(count) {}

    std::size_t GetCount() const { return m_nCount; }
    FormatArg const & operator[](std::size_t index) const { return m_pArgs[index]; }

private:
    FormatArg const * m_pArgs = nullptr;
    std::size_t m_nCount = 0;
};

/// Captures the arguments of one call; converts to the view.
template <std::size_t COUNT>
class FormatArgStore
{
public:
    template <class... T>
    explicit FormatArgStore(T const &... values) : m_args{FormatArg::Capture(values)...}
    {
    }

    operator FormatArgs() const { return {m_args.data(), COUNT}; }

private:
    std::array<FormatArg, (COUNT > 0 ? COUNT : 1)> m_args;
};

template <class... T>
FormatArgStore(T const &...) -> FormatArgStore<sizeof...(T)>;

namespace kvx
{
/// The whole formatted text: the Windows rules for directives (%s is text of the format's own width, %S of the
/// other, %hs narrow, %ls wide, %I64d, %08X, %c, %*d, ...).
/// @throws CInvalidArgException * for a directive that is unknown, lacks its argument or finds a wrong kind.
template <class XCHAR>
KVX_API CStringT<XCHAR> FormatText(std::basic_string_view<XCHAR> format, FormatArgs const & args);
} // namespace kvx

template <class T>
FormatArg FormatArg::Capture(T const & value)
{
    using U = std::decay_t<T>;
    FormatArg arg;
    if constexpr (std::is_base_of_v<CStringT<WCHAR>, U>)
    {
        arg.SetText(Kind::WideText, value.GetString(), static_cast<std::size_t>(value.GetLength()));
    }
    else if constexpr (std::is_base_of_v<CStringT<char>, U>)
    {
        arg.SetText(Kind::NarrowText, value.GetString(), static_cast<std::size_t>(value.GetLength()));
    }
    else if constexpr (std::is_same_v<U, WCHAR *> || std::is_same_v<U, WCHAR const *>)
    {
        arg.SetText(Kind::WideText, static_cast<WCHAR const *>(value), NUL_TERMINATED);
    }
    else if constexpr (std::is_same_v<U, char *> || std::is_same_v<U, char const *>)
    {
        arg.SetText(Kind::NarrowText, static_cast<char const *>(value), NUL_TERMINATED);
    }
    else if constexpr (std::is_same_v<U, std::basic_string_view<WCHAR>>)
    {
        arg.SetText(Kind::WideText, value.empty() ? _T("") : value.data(), value.size());
    }
    else if constexpr (std::is_same_v<U, std::string_view>)
    {
        arg.SetText(Kind::NarrowText, value.empty() ? "" : value.data(), value.size());
    }
    else if constexpr (std::is_floating_point_v<U>)
    {
        arg.m_kind = Kind::Float;
        arg.m_float = static_cast<double>(value);
    }
    else if constexpr (std::is_enum_v<U>)
    {
        return Capture(static_cast<std::underlying_type_t<U>>(value));
    }
    else if constexpr (std::is_integral_v<U>)
    {
        arg.m_kind = Kind::Integer;
        arg.m_integer = static_cast<std::int64_t>(value);
        arg.m_nSize = sizeof(U);
        arg.m_bSigned = std::is_signed_v<U>;
    }
    else if constexpr (std::is_null_pointer_v<U>)
    {
        arg.m_kind = Kind::Pointer;
        arg.m_pointer = nullptr;
    }
    else
    {
        static_assert(std::is_pointer_v<U>, "a format argument is a number, a text or a pointer");
        arg.m_kind = Kind::Pointer;
        if constexpr (std::is_function_v<std::remove_pointer_t<U>>)
        {
            arg.m_pointer = reinterpret_cast<void const *>(value);
        }
        else
        {
            arg.m_pointer = const_cast<void const *>(static_cast<void const volatile *>(value));
        }
    }
    return arg;
}

inline FormatArg FormatArg::Counted() const
{
    return m_kind == Kind::WideText     ? Capture(GetWideText())
           : m_kind == Kind::NarrowText ? Capture(GetNarrowText())
                                        : *this;
}
