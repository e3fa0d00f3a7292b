#pragma once

/// Addresses of resources (RFC 3986), taken apart and put together. All calls may come from any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

using INTERNET_PORT = WORD;

/// What is known about a scheme by its number. One that isn't here has no default port.
enum INTERNET_SCHEME
{
    INTERNET_SCHEME_PARTIAL = -2,
    INTERNET_SCHEME_UNKNOWN = -1,
    INTERNET_SCHEME_DEFAULT = 0,
    INTERNET_SCHEME_FTP = 1,
    INTERNET_SCHEME_GOPHER = 2,
    INTERNET_SCHEME_HTTP = 3,
    INTERNET_SCHEME_HTTPS = 4,
    INTERNET_SCHEME_FILE = 5,
    INTERNET_SCHEME_NEWS = 6,
    INTERNET_SCHEME_MAILTO = 7,
};

/// The parts of a URL. Taking apart: a part with a null pointer and the length 0 isn't wanted. One with a buffer of
/// `dwXxxLength` characters gets the part and a NUL, and the length without it. With a null pointer and another length
/// the pointer becomes the part's place in the URL, which isn't decoded then. Putting together: a part with a null
/// pointer is left out, and a length of 0 means that the text ends with a NUL.
struct URL_COMPONENTSW
{
    DWORD dwStructSize; ///< bytes: to be set by the caller
    LPWSTR lpszScheme;
    DWORD dwSchemeLength;
    INTERNET_SCHEME nScheme;
    LPWSTR lpszHostName;
    DWORD dwHostNameLength;
    INTERNET_PORT nPort; ///< the scheme's if the URL has none; 0: unknown
    LPWSTR lpszUserName;
    DWORD dwUserNameLength;
    LPWSTR lpszPassword;
    DWORD dwPasswordLength;
    LPWSTR lpszUrlPath;
    DWORD dwUrlPathLength;
    LPWSTR lpszExtraInfo; ///< from the first "?" or "#" on
    DWORD dwExtraInfoLength;
};

inline constexpr DWORD ICU_DECODE = 0x10000000;
inline constexpr DWORD ICU_ESCAPE = 0x80000000;

/// Takes a URL of so many characters (0: up to the NUL) apart. With either flag the percent signs with two digits in
/// user, password, path and extra information become characters: of UTF-8 where they are that, else one for each byte.
/// The path holds the extra information too where that isn't asked for by itself. What isn't `scheme://...` is
/// a path behind its scheme, as in `mailto:somebody`.
///
/// FALSE with last error, and no text changed: ERROR_INSUFFICIENT_BUFFER, with the lengths of the parts that didn't fit
/// as the room that they need; ERROR_INTERNET_INVALID_URL for a port that is none, or no host where the scheme wants
/// one; ERROR_INTERNET_UNRECOGNIZED_SCHEME for a text that doesn't begin with a scheme; ERROR_INVALID_PARAMETER for
/// null, an empty text, another flag or a wrong structure size, or a pointer into the URL wanted together with a flag.
KVX_API BOOL InternetCrackUrlW(LPCWSTR pszUrl, DWORD nLength, DWORD dwFlags, URL_COMPONENTSW * pParts);

/// Puts a URL together: the scheme by its text, else by its number. The port is left out if it is 0 or the scheme's
/// own. A path behind a host begins with "/". With ICU_ESCAPE, what may not stand in a path or in extra information
/// becomes percent signs with digits, of UTF-8, percent signs too; "?" and "#" stay. `*pnLength` is the room in
/// characters, and becomes the length without the NUL.
///
/// FALSE with last error: ERROR_INSUFFICIENT_BUFFER with `*pnLength` the room needed, ERROR_INVALID_PARAMETER for null,
/// another flag, a wrong structure size, or neither a scheme's text nor its number.
KVX_API BOOL InternetCreateUrlW(URL_COMPONENTSW * pParts, DWORD dwFlags, LPWSTR pszUrl, DWORD * pnLength);
