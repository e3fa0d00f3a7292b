#pragma once

#include "kvx/platform/mfc/Text.h"

/// Texts for addresses. Any thread.
class KVX_API CHttpFormatter
{
public:
    CHttpFormatter() = delete;

    /// UTF-8 through CUtilities::EncodeString, with a plus sign for a blank and escapes of four digits for
    /// `;/?:@&=+"#%<>.` and all that isn't printable ASCII.
    static CStringA Encode(CStringA const & text);
    /// UTF-8 through CUtilities::DecodeString, to the ANSI code page. By contract this is not Encode's inverse: see
    /// there.
    static CStringA Decode(CStringA const & text);

    /// Percent-encodes the UTF-8 form of a text (RFC 3986, section 2): all but letters, figures and `-._~` of ASCII
    /// become a percent sign and two digits. 0, with last error 1113, for a text with half a surrogate pair.
    static int EncodeUtf8(CString const & text, CStringA & encoded);
    /// The inverse of EncodeUtf8, also of texts that escape less. 0, with `text` as it was, for what isn't well-formed:
    /// last error 13 for a percent sign without two digits, 1113 for bytes that aren't UTF-8.
    static int DecodeUtf8(CStringA const & encoded, CString & text);
};
