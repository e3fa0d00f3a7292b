#include "kvx/foundation/StringValue.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/text/StringFile.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <functional>
#include <limits>
#include <string_view>
#include <vector>

namespace
{
using View = std::basic_string_view<WCHAR>;

template <class T>
CString NumberText(T value)
{
    std::array<char, 24> digits;
    auto const end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    std::array<WCHAR, 24> wide;
    std::copy(digits.data(), end, wide.data());
    return CString(View(wide.data(), static_cast<std::size_t>(end - digits.data())));
}

View SkipSpace(View text)
{
    while (!text.empty() && kvx::IsSpace(text.front()))
    {
        text.remove_prefix(1);
    }
    return text;
}

template <class T>
T ParseInteger(View text)
{
    text = SkipSpace(text);
    bool const bNegative = !text.empty() && text.front() == '-';
    if (!text.empty() && (text.front() == '-' || text.front() == '+'))
    {
        text.remove_prefix(1);
    }
    constexpr T LOWEST = std::numeric_limits<T>::min();
    constexpr T HIGHEST = std::numeric_limits<T>::max();
    T value = 0; // kept negative: the range below 0 is the larger one
    for (WCHAR const c : text)
    {
        if (!kvx::IsDigit(c))
        {
            break;
        }
        T const digit = static_cast<T>(c - '0');
        if (value < (LOWEST + digit) / 10)
        {
            return bNegative ? LOWEST : HIGHEST;
        }
        value = value * 10 - digit;
    }
    if (bNegative)
    {
        return value;
    }
    return value == LOWEST ? HIGHEST : -value;
}
/// Tells a number that is too large for a double from one that is too small.
bool IsTooLarge(View number)
{
    std::size_t const end = std::min(number.find_first_of(_T("eE")), number.size());
    View const mantissa = number.substr(0, end);
    auto const point = static_cast<LONGLONG>(std::min(mantissa.find('.'), mantissa.size()));
    auto const first = static_cast<LONGLONG>(mantissa.find_first_of(_T("123456789")));
    int const exponent = end < number.size() ? ParseInteger<int>(number.substr(end + 1)) : 0;
    return (first < point ? point - first : point - first + 1) + exponent > 0;
}

// An archive asks for bytes, and a wide file counts and moves characters: twice as many bytes as there is room for.
// This one gives as many of them as were asked for; the rest of each piece is lost.
class CharactersAsBytes : public CStringFile
{
public:
    using CStringFile::CStringFile;

    UINT GetUnitSize() const override { return 1; }
    UINT Read(void * lpBuf, UINT nCount) override
    {
        ULONGLONG const left = GetPosition() < GetLength() ? GetLength() - GetPosition() : 0;
        std::vector<WCHAR> characters(static_cast<std::size_t>(std::min<ULONGLONG>(nCount, left)));
        UINT const count = CStringFile::Read(characters.data(), static_cast<UINT>(characters.size()));
        std::copy_n(reinterpret_cast<BYTE const *>(characters.data()), count, static_cast<BYTE *>(lpBuf));
        return count;
    }
};

constexpr int OBJECT_BUFFER = 4096;

void ReadObject(CObject & object, CFile & file)
{
    CArchive archive(&file, CArchive::load, OBJECT_BUFFER);
    object.Serialize(archive);
    archive.Close();
}
} // namespace

void CStringValue::FromObject(CObject & object)
{
    CStringA bytes;
    CStringFileA file(bytes);
    CArchive archive(&file, CArchive::store, OBJECT_BUFFER);
    object.Serialize(archive);
    archive.Close();
    *this = CUtilities::AnsiToString(bytes);
}

void CStringValue::ToObject(CObject & object) const
{
    CString characters = *this;
    CharactersAsBytes file(characters);
    ReadObject(object, file);
}

void CStringValue::RestoreObject(CObject & object) const
{
    CStringA bytes = CUtilities::StringToAnsi(*this);
    CStringFileA file(bytes);
    ReadObject(object, file);
}

void CStringValue::FromInteger(int value)
{
    *this = NumberText(value);
}

void CStringValue::FromInteger64(LONGLONG value)
{
    *this = NumberText(value);
}

void CStringValue::FromDouble(double value)
{
    Format(_T("%f"), value);
}

void CStringValue::FromBuffer(void const * data, DWORD bytes)
{
    int const length = static_cast<int>(bytes / sizeof(WCHAR));
    if (length == 0)
    {
        Empty();
        return;
    }
    auto const bytesKept = static_cast<std::size_t>(length) * sizeof(WCHAR);
    void const * const begin = GetString();
    void const * const end = GetString() + GetLength();
    if (std::less<>()(data, end) && !std::less<>()(data, begin))
    {
        CString fresh; // from this very text, which a change would take away
        std::memcpy(fresh.GetBufferSetLength(length), data, bytesKept);
        *this = std::move(fresh);
        return;
    }
    std::memcpy(GetBufferSetLength(length), data, bytesKept);
}

int CStringValue::ToInteger() const
{
    return ParseInteger<int>(*this);
}

LONGLONG CStringValue::ToInteger64() const
{
    return ParseInteger<LONGLONG>(*this);
}

double CStringValue::ToDouble() const
{
    View text = SkipSpace(*this);
    bool const bNegative = !text.empty() && text.front() == '-';
    if (!text.empty() && (text.front() == '-' || text.front() == '+'))
    {
        text.remove_prefix(1);
    }
    std::size_t const end = std::min(text.find_first_not_of(_T("0123456789.eE+-")), text.size());
    text = text.substr(0, end);
    if (text.empty() || text.front() == '-')
    {
        return 0; // one sign is enough
    }
    std::string number;
    number.reserve(end);
    for (WCHAR const c : text)
    {
        number.push_back(static_cast<char>(c));
    }
    double value = 0;
    auto const error = std::from_chars(number.data(), number.data() + number.size(), value).ec;
    if (error == std::errc::result_out_of_range)
    {
        value = IsTooLarge(text) ? std::numeric_limits<double>::infinity() : 0.0;
    }
    return bNegative ? -value : value;
}

DWORD CStringValue::ToBuffer(void * target, DWORD size) const
{
    DWORD const bytes = std::min<DWORD>(size, static_cast<DWORD>(GetLength()) * sizeof(WCHAR));
    if (bytes > 0)
    {
        std::memcpy(target, GetString(), bytes);
    }
    return bytes;
}

void CStringValue::FromWindow(CWnd * window)
{
    if (window)
    {
        window->GetWindowText(*this);
    }
    else
    {
        Empty();
    }
}
