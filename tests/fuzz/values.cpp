// Reads arbitrary text as `name=value` pairs. What is read is written, and reads back the same.

#include "Require.h"

#include "kvx/foundation/Dictionary.h"

#include <cstdint>
#include <cstring>

namespace
{
using View = CString::View;

/// Whether the text form can carry the set: it has no way to tell a backslash from the one before a quote, nor, without
/// quotes forced, a quote that begins a word.
bool CanCarry(CAttributeSet const & values, bool bForceQuotes)
{
    CString name;
    CString value;
    for (POSITION pos = values.GetStartValuePosition(); pos;)
    {
        values.GetNextValue(pos, name, value);
        View const text = value.AsView();
        bool const bQuoted = bForceQuotes || text.find(u' ') != View::npos;
        if (text.empty())
        {
            continue;
        }
        if (bQuoted ? text.back() == u'\\' : text.front() == u'"' || text.front() == u'\'')
        {
            return false;
        }
    }
    return true;
}

void RoundTrip(CAttributeSet const & values, bool bForceQuotes)
{
    CString const text = values.ToString(bForceQuotes, _T(" "));
    CAttributeSet again;
    again.FromString(text);
    if (!CanCarry(values, bForceQuotes))
    {
        return;
    }
    Require(again.GetValueCount() == values.GetValueCount());
    CString name;
    CString value;
    for (POSITION pos = values.GetStartValuePosition(); pos;)
    {
        values.GetNextValue(pos, name, value);
        Require(again.HasValue(name) && again.GetValue(name) == value);
    }
    Require(again.ToString(bForceQuotes, _T(" ")) == text);
}
} // namespace

// A byte that says which form the rest has: UTF-16, or bytes for the narrow form.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    CAttributeSet values;
    if (data[0] & 1)
    {
        CString text;
        std::size_t const nLength = (size - 1) / sizeof(WCHAR);
        std::memcpy(text.GetBuffer(static_cast<int>(nLength)), data + 1, nLength * sizeof(WCHAR));
        text.ReleaseBuffer(static_cast<int>(nLength));
        values.FromString(text);
    }
    else
    {
        values.FromString(CStringA(reinterpret_cast<char const *>(data + 1), static_cast<int>(size - 1)));
    }
    RoundTrip(values, false);
    RoundTrip(values, true);
    return 0;
}
