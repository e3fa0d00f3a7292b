#pragma once

/// What somebody asked to have logged: a format and its arguments, which may be formatted later and on another thread.

#include "kvx/platform/mfc/Afx.h"

#include <array>
#include <cstddef>
#include <span>

namespace kvx
{
/// A view, valid for the length of the call that it was made for, or as long as the memory that it was kept in.
struct LogCall
{
    CObject const * pSource = nullptr; ///< its address stands in front of the text
    LPCTSTR pFormat = nullptr;         ///< null gives a text that says so
    FormatArgs args;

    /// The text. A format that can't be carried out gives "LOG ERROR: " and the format.
    CString Format() const;
};

/// A call that is small enough to be kept as it is. Keeping it costs a fraction of formatting it.
class KVX_API KeepableCall
{
public:
    explicit KeepableCall(LogCall const & call);
    /// Refers to itself.
    KeepableCall(KeepableCall const &) = delete;
    KeepableCall & operator=(KeepableCall const &) = delete;

    /// The bytes that Keep asks for; 0 if the call is to be formatted at once.
    std::size_t GetSize() const { return m_nSize; }
    /// Copies everything into memory that is aligned as a FormatArg is.
    void Keep(std::span<std::byte> memory) const;
    static LogCall Find(std::byte const * memory);

private:
    static constexpr std::size_t MAX_ARGS = 8;
    static constexpr std::size_t MAX_SIZE = 4096; // bytes: formatting may need the head of a long text only

    struct alignas(FormatArg) Head
    {
        CObject const * pSource;
        LPCTSTR pFormat;
        std::size_t nArgs;
    };

    Head m_head;
    std::size_t m_nFormat = 0; // bytes, with the end
    std::size_t m_nSize = 0;
    std::array<FormatArg, MAX_ARGS> m_args; // with the lengths of all texts
};
} // namespace kvx
