#pragma once

/// The text value: all data in requests, rows and dictionaries is text with typed conversions in and out.

#include "kvx/foundation/Stringable.h"
#include "kvx/platform/mfc/Afx.h"

#include <concepts>

class CWnd;

namespace kvx
{
/// The integers that a value converts from and to. `char` is a small one; wide characters are none, for a text is
/// meant there.
template <class T>
concept ValueInteger = std::integral<T> && !std::same_as<T, char16_t> && !std::same_as<T, char32_t> &&
                       !std::same_as<T, wchar_t> && !std::same_as<T, char8_t>;

/// An enumeration that is an integer by itself.
template <class T>
concept ValueEnum = std::is_enum_v<T> && std::convertible_to<T, long long>;
} // namespace kvx

/// A CString with conversions; it adds no field, and a CString can be used in its place and the reverse.
///
/// Integers up to 32 bits are written with "%d", whatever their sign: the unsigned value 4294967295 is the
/// text -1, and reads back through an unsigned type as 4294967295. 64-bit integers go through "%I64d",
/// a floating-point number through "%f", a bool is 0 or 1, an unscoped enumerator is its number. What would only become
/// a number on the way, a wide character or an object that converts to one, doesn't compile.
///
/// Reading stops at the first character that can't continue a number, and gives 0 where there is none; a
/// number out of the 32-bit (64-bit) range gives the nearest one in it.
class KVX_API CStringValue : public CString
{
public:
    CStringValue() = default;
    CStringValue(CStringValue const &) = default;
    CStringValue(CStringValue &&) = default;
    CStringValue(CString const & text) : CString(text) {}
    CStringValue(CString && text) : CString(std::move(text)) {}
    CStringValue(LPCTSTR text) : CString(text) {}
    CStringValue(CStringable const & source) : CString(source.ToString()) {}
    CStringValue(CWnd & window) { FromWindow(&window); }
    CStringValue(CWnd * window) { FromWindow(window); }
    template <std::floating_point T>
    CStringValue(T value)
    {
        FromDouble(static_cast<double>(value));
    }
    template <kvx::ValueInteger T>
    CStringValue(T value)
    {
        FromAnyInteger(value);
    }
    template <kvx::ValueEnum T>
    CStringValue(T value)
    {
        FromAnyInteger(static_cast<std::underlying_type_t<T>>(value));
    }

    CStringValue & operator=(CStringValue const &) = default;
    CStringValue & operator=(CStringValue &&) = default;
    CStringValue & operator=(CString const & text)
    {
        CString::operator=(text);
        return *this;
    }
    CStringValue & operator=(CString && text)
    {
        CString::operator=(std::move(text));
        return *this;
    }
    CStringValue & operator=(LPCTSTR text)
    {
        CString::operator=(text);
        return *this;
    }
    CStringValue & operator=(CStringable const & source) { return *this = source.ToString(); }
    CStringValue & operator=(CWnd & window)
    {
        FromWindow(&window);
        return *this;
    }
    CStringValue & operator=(CWnd * window)
    {
        FromWindow(window);
        return *this;
    }
    template <std::floating_point T>
    CStringValue & operator=(T value)
    {
        FromDouble(static_cast<double>(value));
        return *this;
    }
    template <kvx::ValueInteger T>
    CStringValue & operator=(T value)
    {
        FromAnyInteger(value);
        return *this;
    }
    template <kvx::ValueEnum T>
    CStringValue & operator=(T value)
    {
        FromAnyInteger(static_cast<std::underlying_type_t<T>>(value));
        return *this;
    }

    void FromInteger(int value);
    void FromInteger64(LONGLONG value);
    void FromDouble(double value);
    void FromString(CString const & text) { CString::operator=(text); }
    /// Takes the bytes as raw UTF-16 units; an odd last byte is lost. They may be a part of this value.
    void FromBuffer(void const * data, DWORD bytes);

    /// The object's archive, each byte as a character of the ANSI code page. The object's exceptions pass through.
    void FromObject(CObject & object);
    /// By contract not the inverse of `FromObject`, as it reads the characters through a wide file (CStringFile): what
    /// the object gets, for each piece of up to 4096 characters, is the first half of their bytes in UTF-16. See
    /// `RestoreObject`.
    void ToObject(CObject & object) const;
    /// Fills the object from what `FromObject` gave. The object's exceptions pass through.
    void RestoreObject(CObject & object) const;

    int ToInteger() const;
    LONGLONG ToInteger64() const;
    double ToDouble() const;
    /// The text; valid while the value lives and is not changed.
    LPCTSTR ToString() const { return GetString(); }
    /// Copies the units as bytes, at most `size`; the number of bytes copied.
    DWORD ToBuffer(void * target, DWORD size) const;

    template <kvx::ValueInteger T>
    operator T() const
    {
        if constexpr (std::same_as<T, bool>)
        {
            return ToInteger() != 0;
        }
        else if constexpr (sizeof(T) <= sizeof(int))
        {
            return static_cast<T>(ToInteger());
        }
        else
        {
            return static_cast<T>(ToInteger64());
        }
    }
    template <std::floating_point T>
    operator T() const
    {
        return static_cast<T>(ToDouble());
    }
    bool operator!() const { return ToInteger() == 0; }

private:
    template <class T>
    void FromAnyInteger(T value)
    {
        if constexpr (sizeof(T) <= sizeof(int))
        {
            FromInteger(static_cast<int>(value));
        }
        else
        {
            FromInteger64(static_cast<LONGLONG>(value));
        }
    }
    void FromWindow(CWnd * window);
};
