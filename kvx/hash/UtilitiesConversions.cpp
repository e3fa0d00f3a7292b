#include "kvx/foundation/Utilities.h"

CStringA CUtilities::StringToAnsi(CString const & text)
{
    // The buffer has one byte for each character: code pages with longer characters are cut, by contract.
    CStringA out;
    if (int const length = text.GetLength())
    {
        CStringA const whole = W2MB(text, CP_ACP);
        out = whole.Left(length);
    }
    return out;
}

CStringA CUtilities::StringToAnsi(LPCTSTR text)
{
    return StringToAnsi(CString(text));
}

CString CUtilities::AnsiToString(CStringA const & text)
{
    return MB2W(text, CP_ACP);
}

CString CUtilities::AnsiToString(char const * text)
{
    return text ? kvx::FromUtf8(text) : CString();
}

CStringA CUtilities::UnicodeToAnsi(CString const & text)
{
    return CStringA(text);
}

CString CUtilities::MB2W(CStringA const & text, UINT codePage)
{
    CString out;
    int const size = MultiByteToWideChar(codePage, 0, text, text.GetLength(), nullptr, 0);
    if (!text.IsEmpty() && size > 0)
    {
        WCHAR * const buffer = out.GetBuffer(size);
        out.ReleaseBuffer(MultiByteToWideChar(codePage, 0, text, text.GetLength(), buffer, size));
    }
    return out;
}

CStringA CUtilities::W2MB(CString const & text, UINT codePage)
{
    CStringA out;
    int const size = WideCharToMultiByte(codePage, 0, text, text.GetLength(), nullptr, 0, nullptr, nullptr);
    if (!text.IsEmpty() && size > 0)
    {
        char * const buffer = out.GetBuffer(size);
        out.ReleaseBuffer(WideCharToMultiByte(codePage, 0, text, text.GetLength(), buffer, size, nullptr, nullptr));
    }
    return out;
}

CStringA CUtilities::MB2MB(CStringA const & text, UINT from, UINT to)
{
    return W2MB(MB2W(text, from), to);
}
