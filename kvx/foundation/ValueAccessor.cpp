#include "kvx/foundation/ValueAccessor.h"

#include "kvx/foundation/Utilities.h"

#include <utility>

int CValueAccessor::RenameValue(CString const & oldName, CString const & newName)
{
    if (!HasValue(oldName))
    {
        return 0;
    }
    CStringValue const value = GetValue(oldName);
    CString const fresh = newName; // which may be the text of the value that goes
    RemoveValue(oldName);
    CreateValue(fresh) = value;
    return 1;
}

void CValueAccessor::CopyValues(CValueAccessor const & source)
{
    if (&source != this)
    {
        RemoveAllValues();
        MergeValues(source);
    }
}

void CValueAccessor::MergeValues(CValueAccessor const & source)
{
    if (&source == this)
    {
        return;
    }
    CString name;
    CString value;
    for (POSITION pos = source.GetStartValuePosition(); pos;)
    {
        source.GetNextValue(pos, name, value);
        CreateValue(name) = value;
    }
}

void CValueAccessor::ShowDebug()
{
    CString text = ToString(1, _T(" "));
    text += _T("\n");
    OutputDebugStringW(text);
}

CStringValue CValueAccessor::GetValue(CString const & name) const
{
    CString value;
    GetValue(name, value);
    return value;
}

int CValueAccessor::GetValue(CString const & name, CString & out) const
{
    if (!HasValue(name))
    {
        return 0;
    }
    out = const_cast<CValueAccessor *>(this)->CreateValue(name); // it exists, so nothing is created
    return 1;
}

CString CValueAccessor::BuildStringValue(CString const & name, CString const & value, int forceQuotes) const
{
    CString pair;
    if (!forceQuotes && value.Find(_T(' ')) < 0)
    {
        pair.Format(_T("%s=%s"), name, value);
        return pair;
    }
    CString quoted = value;
    quoted.Replace(_T("\""), _T("\\\""));
    pair.Format(_T("%s=\"%s\""), name, quoted);
    return pair;
}

void CValueAccessor::ToString(CString & out, int forceQuotes, CString const & separator) const
{
    POSITION pos = GetStartValuePosition();
    if (!pos)
    {
        return;
    }
    CString all; // `out` may be a value of this set
    CString name;
    CString value;
    for (bool bFirst = true; pos; bFirst = false)
    {
        GetNextValue(pos, name, value);
        if (!bFirst)
        {
            all += separator;
        }
        all += BuildStringValue(name, value, forceQuotes);
    }
    out = std::move(all);
}

CString CValueAccessor::ToString(int forceQuotes, CString const & separator) const
{
    CString out;
    ToString(out, forceQuotes, separator);
    return out;
}

namespace
{
/// Index of the quote that ends a quoted value, or the text's length.
int FindClosingQuote(CString const & text, WCHAR quote, int start)
{
    for (int at = text.Find(quote, start); at >= 0; at = text.Find(quote, at + 1))
    {
        if (at == 0 || text[at - 1] != '\\')
        {
            return at;
        }
    }
    return text.GetLength();
}
} // namespace

void CValueAccessor::FromString(CString const & source)
{
    CString const text = source; // which may be a value of this set
    int const length = text.GetLength();
    int start = 0;
    for (int equals = text.Find(_T('='), start); equals >= 0; equals = start <= length ? text.Find(_T('='), start) : -1)
    {
        CString name = text.Mid(start, equals - start);
        CString value;
        int const first = equals + 1;
        int end = first;
        if (first < length && (text[first] == '"' || text[first] == '\''))
        {
            WCHAR const quote = text[first];
            end = FindClosingQuote(text, quote, first + 1);
            value = text.Mid(first + 1, end - first - 1);
            WCHAR const escaped[] = {'\\', quote, 0};
            WCHAR const plain[] = {quote, 0};
            value.Replace(escaped, plain);
        }
        else if (first < length)
        {
            int const blank = text.Find(_T(' '), first);
            end = blank < 0 ? length : blank;
            value = text.Mid(first, end - first);
        }
        CreateValue(name.Trim()) = value.Trim();
        start = end + 1;
    }
}

void CValueAccessor::FromString(CStringA const & text)
{
    FromString(CUtilities::AnsiToString(text.GetString()));
}
