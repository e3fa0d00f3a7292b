#include "kvx/platform/win32/codepages.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/low_descriptors.h"
#include "kvx/platform/win32/utf8.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include <iconv.h>

using namespace kvx::win32;

namespace
{

constexpr UINT ANSI_DEFAULT = 1252;

/// What 0x80 to 0x9F mean in page 1252. The five holes stand for the control characters of their value.
constexpr std::array<char16_t, 32> WINDOWS1252 = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                                  0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                                  0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                                  0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

constinit std::atomic<UINT> g_nAnsiCodePage{0};

/// Collects converted units in a buffer, or only counts them when there is none.
template <typename Unit>
class Output
{
public:
    Output(Unit * pTarget, std::size_t nCapacity) : m_pTarget(pTarget), m_nCapacity(nCapacity) {}

    bool IsCounting() const { return m_nCapacity == 0; }
    bool IsFull() const { return m_bFull; }
    std::size_t Count() const { return m_nCount; }
    /// Room for plain runs: how many units may be put by PutRun.
    std::size_t Room() const { return IsCounting() ? SIZE_MAX : m_nCapacity - m_nCount; }

    /// Puts a sequence whole or not at all.
    bool Put(Unit const * pUnits, std::size_t nUnits)
    {
        if (nUnits > Room())
        {
            m_bFull = true;
            return false;
        }
        if (!IsCounting())
        {
            std::copy_n(pUnits, nUnits, m_pTarget + m_nCount);
        }
        m_nCount += nUnits;
        return true;
    }

    bool Put(Unit nUnit) { return Put(&nUnit, 1); }

    template <typename Source>
    void PutRun(Source const * pSource, std::size_t nUnits)
    {
        if (!IsCounting())
        {
            Unit * pTarget = m_pTarget + m_nCount;
            for (std::size_t i = 0; i < nUnits; ++i)
            {
                pTarget[i] = static_cast<Unit>(pSource[i]);
            }
        }
        m_nCount += nUnits;
    }

private:
    Unit * m_pTarget;
    std::size_t m_nCapacity;
    std::size_t m_nCount = 0;
    bool m_bFull = false;
};

enum class Result
{
    Done,
    Full,
    Malformed
};

/// Copies the ASCII run at `nPos` as far as there is room, in blocks that the compiler makes vectors of.
template <typename Source, typename Unit>
std::size_t CopyAscii(std::basic_string_view<Source> source, std::size_t nPos, Output<Unit> & out)
{
    constexpr std::size_t BLOCK = 16;
    std::size_t const nEnd = nPos + std::min(source.size() - nPos, out.Room());
    Source const * const p = source.data();
    std::size_t n = nPos;
    while (nEnd - n >= BLOCK)
    {
        unsigned nBits = 0;
        for (std::size_t i = 0; i < BLOCK; ++i)
        {
            nBits |= static_cast<std::make_unsigned_t<Source>>(p[n + i]);
        }
        if (nBits >= 0x80)
        {
            break;
        }
        n += BLOCK;
    }
    while (n < nEnd && static_cast<std::make_unsigned_t<Source>>(p[n]) < 0x80)
    {
        ++n;
    }
    out.PutRun(p + nPos, n - nPos);
    return n;
}

Result EncodeUtf8(std::u16string_view source, Output<char> & out, bool bStrict)
{
    std::size_t n = 0;
    while (n < source.size())
    {
        char32_t c = source[n];
        if (c < 0x80)
        {
            if (out.Room() == 0)
            {
                return Result::Full;
            }
            n = CopyAscii(source, n, out);
            continue;
        }
        std::size_t nUsed = 1;
        if ((c & 0xF800) == 0xD800)
        {
            if (IsHighSurrogate(source[n]) && n + 1 < source.size() && IsLowSurrogate(source[n + 1]))
            {
                c = JoinSurrogates(source[n], source[n + 1]);
                nUsed = 2;
            }
            else if (bStrict)
            {
                return Result::Malformed;
            }
            else
            {
                c = REPLACEMENT;
            }
        }
        char szBytes[4];
        std::size_t const nBytes = EncodeUtf8Char(c, szBytes);
        if (!out.Put(szBytes, nBytes))
        {
            return Result::Full;
        }
        n += nUsed;
    }
    return Result::Done;
}

Result DecodeUtf8(std::string_view source, Output<char16_t> & out, bool bStrict)
{
    std::size_t n = 0;
    while (n < source.size())
    {
        if (static_cast<unsigned char>(source[n]) < 0x80)
        {
            if (out.Room() == 0)
            {
                return Result::Full;
            }
            n = CopyAscii(source, n, out);
            continue;
        }
        auto const decoded = DecodeUtf8Char(source, n);
        if (!decoded.bValid && bStrict)
        {
            return Result::Malformed;
        }
        char16_t units[2];
        if (!out.Put(units, EncodeUtf16Char(decoded.nChar, units)))
        {
            return Result::Full;
        }
        n += decoded.nBytes;
    }
    return Result::Done;
}

/// What stands in for units that the target page lacks, and whether it was needed.
struct Fallback
{
    char nByte = '?';
    bool bUsed = false;
};

bool IsSingleByte(UINT nCodePage)
{
    return nCodePage == 1252 || nCodePage == 20127 || nCodePage == 28591;
}

/// The byte for a unit of 0x80 or more in one of the built-in single-byte pages, or -1.
int EncodeSingleByte(UINT nCodePage, char16_t c)
{
    if (nCodePage == 20127)
    {
        return -1;
    }
    if (c <= 0xFF && (nCodePage == 28591 || c >= 0xA0))
    {
        return c;
    }
    if (nCodePage == 1252)
    {
        if (auto const it = std::ranges::find(WINDOWS1252, c); it != WINDOWS1252.end())
        {
            return 0x80 + static_cast<int>(it - WINDOWS1252.begin());
        }
    }
    return -1;
}

Result EncodeSingleByte(UINT nCodePage, std::u16string_view source, Output<char> & out, Fallback & fallback)
{
    std::size_t n = 0;
    while (n < source.size())
    {
        if (source[n] < 0x80)
        {
            if (out.Room() == 0)
            {
                return Result::Full;
            }
            n = CopyAscii(source, n, out);
            continue;
        }
        int const nByte = EncodeSingleByte(nCodePage, source[n++]);
        fallback.bUsed |= nByte < 0;
        if (!out.Put(nByte < 0 ? fallback.nByte : static_cast<char>(nByte)))
        {
            return Result::Full;
        }
    }
    return Result::Done;
}

Result DecodeSingleByte(UINT nCodePage, std::string_view source, Output<char16_t> & out, bool bStrict)
{
    std::size_t n = 0;
    while (n < source.size())
    {
        auto const nByte = static_cast<unsigned char>(source[n]);
        if (nByte < 0x80)
        {
            if (out.Room() == 0)
            {
                return Result::Full;
            }
            n = CopyAscii(source, n, out);
            continue;
        }
        char16_t c = nByte;
        if (nCodePage == 1252 && nByte < 0xA0)
        {
            c = WINDOWS1252[nByte - 0x80];
        }
        else if (nCodePage == 20127)
        {
            if (bStrict)
            {
                return Result::Malformed;
            }
            c = REPLACEMENT;
        }
        if (!out.Put(c))
        {
            return Result::Full;
        }
        ++n;
    }
    return Result::Done;
}

/// An iconv descriptor of this thread, kept for the page that was used last in its direction.
class Converter
{
public:
    Converter() = default;
    Converter(Converter const &) = delete;
    Converter & operator=(Converter const &) = delete;
    ~Converter() { Close(); }

    bool Open(UINT nCodePage, bool bToUnicode)
    {
        if (m_nCodePage == nCodePage)
        {
            iconv(m_hIconv, nullptr, nullptr, nullptr, nullptr);
            return true;
        }
        Close();
        char szName[16] = "CP";
        *std::to_chars(szName + 2, szName + sizeof szName - 1, nCodePage).ptr = 0;
        LowDescriptorGuard const guard; // of the tables that it reads
        m_hIconv = bToUnicode ? iconv_open("UTF-16LE", szName) : iconv_open(szName, "UTF-16LE");
        if (m_hIconv == Closed())
        {
            return false;
        }
        m_nCodePage = nCodePage;
        return true;
    }

    iconv_t Get() const { return m_hIconv; }

private:
    static iconv_t Closed() { return reinterpret_cast<iconv_t>(-1); }

    void Close()
    {
        if (m_hIconv != Closed())
        {
            iconv_close(m_hIconv);
        }
        m_hIconv = Closed();
        m_nCodePage = 0;
    }

    UINT m_nCodePage = 0;
    iconv_t m_hIconv = Closed();
};

thread_local Converter t_toUnicode;
thread_local Converter t_fromUnicode;

Result Decode(iconv_t hIconv, std::string_view source, Output<char16_t> & out, bool bStrict)
{
    char * pSource = const_cast<char *>(source.data());
    std::size_t nSource = source.size();
    // The call with no source at the end hands out what a page with combining characters has held back.
    for (bool bFlushed = false; !bFlushed;)
    {
        char16_t buffer[256];
        char * pTarget = reinterpret_cast<char *>(buffer);
        std::size_t nTarget = sizeof buffer;
        bFlushed = nSource == 0;
        std::size_t const nResult = bFlushed ? iconv(hIconv, nullptr, nullptr, &pTarget, &nTarget)
                                             : iconv(hIconv, &pSource, &nSource, &pTarget, &nTarget);
        int const nError = nResult == static_cast<std::size_t>(-1) ? errno : 0;
        std::size_t const nUnits = (sizeof buffer - nTarget) / sizeof(char16_t);
        for (std::size_t i = 0; i < nUnits; ++i)
        {
            if (!out.Put(buffer[i]))
            {
                return Result::Full;
            }
        }
        if (nError == 0 || nError == E2BIG)
        {
            continue;
        }
        if (bStrict)
        {
            return Result::Malformed;
        }
        if (!out.Put(REPLACEMENT))
        {
            return Result::Full;
        }
        if (nSource > 0)
        {
            ++pSource;
            --nSource;
        }
    }
    return Result::Done;
}

Result Encode(iconv_t hIconv, std::u16string_view source, Output<char> & out, Fallback & fallback)
{
    char * pSource = reinterpret_cast<char *>(const_cast<char16_t *>(source.data()));
    std::size_t nSource = source.size() * sizeof(char16_t);
    for (bool bFlushed = false; !bFlushed;)
    {
        char buffer[256];
        char * pTarget = buffer;
        std::size_t nTarget = sizeof buffer;
        bFlushed = nSource == 0;
        std::size_t const nResult = bFlushed ? iconv(hIconv, nullptr, nullptr, &pTarget, &nTarget)
                                             : iconv(hIconv, &pSource, &nSource, &pTarget, &nTarget);
        int const nError = nResult == static_cast<std::size_t>(-1) ? errno : 0;
        if (!out.Put(buffer, sizeof buffer - nTarget))
        {
            // The tail is made of whole characters of up to a few bytes; as much as fits is as good as
            // any other cut, since the caller is told that the text isn't complete.
            out.Put(buffer, std::min(out.Room(), sizeof buffer - nTarget));
            return Result::Full;
        }
        if (nError == 0 || nError == E2BIG)
        {
            continue;
        }
        fallback.bUsed = true;
        if (!out.Put(fallback.nByte))
        {
            return Result::Full;
        }
        if (nSource >= sizeof(char16_t))
        {
            char16_t const * const pUnit = reinterpret_cast<char16_t const *>(pSource);
            bool const bPair = nSource >= 2 * sizeof(char16_t) && IsHighSurrogate(pUnit[0]) && IsLowSurrogate(pUnit[1]);
            if (bPair && !out.Put(fallback.nByte))
            {
                return Result::Full;
            }
            std::size_t const nSkipped = (bPair ? 2 : 1) * sizeof(char16_t);
            pSource += nSkipped;
            nSource -= nSkipped;
        }
    }
    return Result::Done;
}

/// The page that a number stands for, or 0 when there is none.
UINT Resolve(UINT nCodePage)
{
    if (nCodePage == CP_ACP || nCodePage == CP_THREAD_ACP)
    {
        return GetACP();
    }
    // UTF-7 and the wide pages have no place in this interface; numbers below 37 are no pages at all.
    if (nCodePage < 37 || nCodePage == 65000 || nCodePage == 1200 || nCodePage == 1201 || nCodePage == 12000 ||
        nCodePage == 12001)
    {
        return 0;
    }
    return nCodePage;
}

bool IsKnown(UINT nCodePage)
{
    nCodePage = Resolve(nCodePage);
    return nCodePage == CP_UTF8 || IsSingleByte(nCodePage) || (nCodePage != 0 && t_toUnicode.Open(nCodePage, true));
}

int Finish(Result result, std::size_t nCount)
{
    if (result == Result::Done && nCount <= INT_MAX)
    {
        return static_cast<int>(nCount);
    }
    SetLastError(result == Result::Full        ? ERROR_INSUFFICIENT_BUFFER
                 : result == Result::Malformed ? ERROR_NO_UNICODE_TRANSLATION
                                               : ERROR_INVALID_PARAMETER);
    return 0;
}

UINT AnsiFromEnvironment()
{
    char const * const pszValue = std::getenv("KVX_ANSI_CODE_PAGE");
    if (!pszValue)
    {
        return ANSI_DEFAULT;
    }
    UINT nCodePage = 0;
    char const * const pEnd = pszValue + std::strlen(pszValue);
    auto const [pStop, error] = std::from_chars(pszValue, pEnd, nCodePage);
    bool const bNumber = error == std::errc() && pStop == pEnd && nCodePage != CP_ACP && nCodePage != CP_THREAD_ACP;
    return bNumber && IsKnown(nCodePage) ? nCodePage : ANSI_DEFAULT;
}

} // namespace

UINT GetACP()
{
    if (UINT const nCodePage = g_nAnsiCodePage.load(std::memory_order_relaxed))
    {
        return nCodePage;
    }
    UINT nExpected = 0;
    UINT const nCodePage = AnsiFromEnvironment();
    return g_nAnsiCodePage.compare_exchange_strong(nExpected, nCodePage) ? nCodePage : nExpected;
}

int MultiByteToWideChar(UINT nCodePage, DWORD dwFlags, LPCSTR pszSource, int nSource, LPWSTR pszTarget, int nTarget)
{
    if (!pszSource || nSource == 0 || nSource < -1 || nTarget < 0 || (nTarget > 0 && !pszTarget) ||
        static_cast<void const *>(pszSource) == pszTarget)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    UINT const nPage = Resolve(nCodePage);
    if (nPage == 0)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    if (dwFlags & ~(MB_ERR_INVALID_CHARS | (nPage == CP_UTF8 ? 0 : MB_PRECOMPOSED)))
    {
        return Refuse(ERROR_INVALID_FLAGS);
    }
    std::string_view const source(pszSource,
                                  nSource < 0 ? std::strlen(pszSource) + 1 : static_cast<std::size_t>(nSource));
    bool const bStrict = dwFlags & MB_ERR_INVALID_CHARS;
    Output<char16_t> out(pszTarget, static_cast<std::size_t>(nTarget));
    Result result;
    if (nPage == CP_UTF8)
    {
        result = DecodeUtf8(source, out, bStrict);
    }
    else if (IsSingleByte(nPage))
    {
        result = DecodeSingleByte(nPage, source, out, bStrict);
    }
    else if (t_toUnicode.Open(nPage, true))
    {
        result = Decode(t_toUnicode.Get(), source, out, bStrict);
    }
    else
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    return Finish(result, out.Count());
}

int WideCharToMultiByte(UINT nCodePage, DWORD dwFlags, LPCWSTR pszSource, int nSource, LPSTR pszTarget, int nTarget,
                        LPCSTR pszDefault, LPBOOL pbUsedDefault)
{
    if (!pszSource || nSource == 0 || nSource < -1 || nTarget < 0 || (nTarget > 0 && !pszTarget) ||
        static_cast<void const *>(pszSource) == pszTarget)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    UINT const nPage = Resolve(nCodePage);
    if (nPage == 0 || (nPage == CP_UTF8 && (pszDefault || pbUsedDefault)))
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    if (dwFlags & ~(nPage == CP_UTF8 ? WC_ERR_INVALID_CHARS : WC_NO_BEST_FIT_CHARS))
    {
        return Refuse(ERROR_INVALID_FLAGS);
    }
    std::u16string_view const source(pszSource, nSource < 0 ? std::char_traits<char16_t>::length(pszSource) + 1
                                                            : static_cast<std::size_t>(nSource));
    Output<char> out(pszTarget, static_cast<std::size_t>(nTarget));
    Fallback fallback{pszDefault ? *pszDefault : '?', false};
    Result result;
    if (nPage == CP_UTF8)
    {
        result = EncodeUtf8(source, out, dwFlags & WC_ERR_INVALID_CHARS);
    }
    else if (IsSingleByte(nPage))
    {
        result = EncodeSingleByte(nPage, source, out, fallback);
    }
    else if (t_fromUnicode.Open(nPage, false))
    {
        result = Encode(t_fromUnicode.Get(), source, out, fallback);
    }
    else
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    if (pbUsedDefault)
    {
        *pbUsedDefault = fallback.bUsed;
    }
    return Finish(result, out.Count());
}

namespace kvx::win32
{

BOOL SetAnsiCodePage(UINT nCodePage)
{
    if (nCodePage == CP_THREAD_ACP || (nCodePage != 0 && !IsKnown(nCodePage)))
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    g_nAnsiCodePage.store(nCodePage, std::memory_order_relaxed);
    return TRUE;
}

std::string ToUtf8(std::u16string_view source)
{
    // Three bytes a unit are the most there can be; short texts are the rule here.
    std::string target(source.size() * 3, '\0');
    Output<char> out(target.data(), target.size());
    EncodeUtf8(source, out, false);
    target.resize(out.Count());
    return target;
}

std::u16string FromUtf8(std::string_view source)
{
    std::u16string target(source.size(), u'\0');
    Output<char16_t> out(target.data(), target.size());
    DecodeUtf8(source, out, false);
    target.resize(out.Count());
    return target;
}

} // namespace kvx::win32
