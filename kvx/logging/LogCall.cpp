#include "kvx/logging/LogCall.h"

#include <cstring>
#include <string>

namespace kvx
{
namespace
{
using WideView = std::basic_string_view<WCHAR>;

/// What a text is rounded up to, so that each begins where a character may.
constexpr std::size_t RoundUp(std::size_t bytes)
{
    return (bytes + sizeof(WCHAR) - 1) / sizeof(WCHAR) * sizeof(WCHAR);
}

std::size_t BytesOf(FormatArg const & arg)
{
    switch (arg.GetKind())
    {
    case FormatArg::Kind::WideText:
        return arg.GetWideText().size() * sizeof(WCHAR);
    case FormatArg::Kind::NarrowText:
        return RoundUp(arg.GetNarrowText().size());
    default:
        return 0;
    }
}

/// The argument with its text at another place, which moves on behind it.
template <class XCHAR>
FormatArg CopyText(std::basic_string_view<XCHAR> text, std::byte *& to)
{
    std::size_t const bytes = text.size() * sizeof(XCHAR);
    std::memcpy(to, text.data(), bytes);
    auto const * const copy = reinterpret_cast<XCHAR const *>(to);
    to += RoundUp(bytes);
    return FormatArg::Capture(std::basic_string_view<XCHAR>(copy, text.size()));
}
} // namespace

CString LogCall::Format() const
{
    CString text;
    try
    {
        text.FormatV(pFormat, args);
    }
    catch (CException * failure)
    {
        failure->Delete();
        text = CString(_T("LOG ERROR: ")) + (pFormat ? pFormat : _T("<EMPTY FORMAT STRING>"));
    }
    if (pSource)
    {
        CString prefixed;
        prefixed.Format(_T("[%08X] %s"), pSource, text);
        return prefixed;
    }
    return text;
}

KeepableCall::KeepableCall(LogCall const & call) : m_head{call.pSource, call.pFormat, call.args.GetCount()}
{
    if (m_head.nArgs > m_args.size())
    {
        return;
    }
    m_nFormat = call.pFormat ? (std::char_traits<WCHAR>::length(call.pFormat) + 1) * sizeof(WCHAR) : 0;
    std::size_t size = sizeof(Head) + m_head.nArgs * sizeof(FormatArg) + m_nFormat;
    for (std::size_t i = 0; i < m_head.nArgs && size <= MAX_SIZE; ++i)
    {
        m_args[i] = call.args[i].Counted();
        size += BytesOf(m_args[i]);
    }
    m_nSize = size <= MAX_SIZE ? size : 0;
}

void KeepableCall::Keep(std::span<std::byte> memory) const
{
    std::byte * const args = memory.data() + sizeof(Head);
    std::byte * to = args + m_head.nArgs * sizeof(FormatArg);
    Head head = m_head;
    if (m_head.pFormat)
    {
        head.pFormat = reinterpret_cast<LPCTSTR>(to);
        std::memcpy(to, m_head.pFormat, m_nFormat);
        to += m_nFormat;
    }
    new (memory.data()) Head(head);
    for (std::size_t i = 0; i < m_head.nArgs; ++i)
    {
        FormatArg const & arg = m_args[i];
        auto const kind = arg.GetKind();
        new (args + i * sizeof(FormatArg))
            FormatArg(kind == FormatArg::Kind::WideText     ? CopyText(arg.GetWideText(), to)
                      : kind == FormatArg::Kind::NarrowText ? CopyText(arg.GetNarrowText(), to)
                                                            : arg);
    }
}

LogCall KeepableCall::Find(std::byte const * memory)
{
    auto const & head = *std::launder(reinterpret_cast<Head const *>(memory));
    auto const * const args = std::launder(reinterpret_cast<FormatArg const *>(memory + sizeof(Head)));
    return {head.pSource, head.pFormat, FormatArgs(args, head.nArgs)};
}
} // namespace kvx
