#pragma once

/// CUtilities: static helpers that many folders share. It is declared here, and each folder defines the members
/// of its own topic: text/ the splitting of texts, hash/ the conversions between encodings, system/ the questions about
/// the system.

#include "kvx/platform/mfc/Afx.h"

class CValueAccessor;

/// A processor.
struct CpuIdent
{
    char szVendor[13];     ///< as "GenuineIntel"
    char szHypervisor[13]; ///< empty on a bare machine, and under a hypervisor that hides
    DWORD nFamily;
    DWORD nModel;
    DWORD nStepping;
    DWORD nFeatures;  ///< of leaf 1: register edx
    DWORD nFeatures2; ///< and ecx
};

class KVX_API CUtilities
{
public:
    CUtilities() = delete;

    // Splitting (kvx/text/UtilitiesText.cpp)

    /// Splits at the first occurrence of `delimiter`, or at the last with `fromEnd`. The index of the delimiter;
    /// without it -1, with `left` the whole text and `right` empty. `left` and `right` may be `text` itself.
    static int SplitString(CString text, CString & left, CString & right, CString const & delimiter, int fromEnd);

    /// The last occurrence of `part`, or null; an empty `part` is found at the end.
    static LPCTSTR FindLastSubstring(LPCTSTR text, LPCTSTR part);

    /// Appends the words of a command line: separated by white space, or in double quotes; there is no escape.
    /// @return the size of `tokens`.
    static int TokenizeCommandLine(LPCTSTR line, CStringArray & tokens);
    /// The same into named values: `-name=value`, `/name=value`, or a name alone with the value 1.
    /// @return the number of values.
    static int TokenizeCommandLine(LPCTSTR line, CValueAccessor & values);

    // Processes (kvx/transport/Msg9XPipeConnection.cpp)

    /// A handle of this process to what a handle of another one refers to, with the same access; the caller closes it.
    /// INVALID_HANDLE_VALUE with last error on failure.
    static HANDLE DuplicateHandle(DWORD processId, HANDLE handle);

    // Conversions (kvx/hash/UtilitiesConversions.cpp). The names don't say what they do: the two AnsiToString read
    // different encodings.

    /// To the ANSI code page, cut to as many bytes as the text has characters.
    static CStringA StringToAnsi(CString const & text);
    static CStringA StringToAnsi(LPCTSTR text);
    /// From the ANSI code page.
    static CString AnsiToString(CStringA const & text);
    static CString AnsiToString(CStringA & text) { return AnsiToString(static_cast<CStringA const &>(text)); }
    /// From UTF-8.
    static CString AnsiToString(char const * text);
    static CStringA UnicodeToAnsi(CString const & text);
    static CString UnicodeToString(CString const & text) { return text; }
    static CString StringToUnicode(CString const & text) { return text; }
    /// Between a code page and wide text, of any length; empty where the system refuses.
    static CString MB2W(CStringA const & text, UINT codePage);
    static CStringA W2MB(CString const & text, UINT codePage);
    static CStringA MB2MB(CStringA const & text, UINT from, UINT to);
    static CString MB2T(CStringA const & text, UINT codePage) { return MB2W(text, codePage); }
    static CStringA T2MB(CString const & text, UINT codePage) { return W2MB(text, codePage); }

    // The system (kvx/system/UtilitiesSystem.cpp)

    // The tests of CWinVersion on this system's version.
    static int IsSupportedOS();
    static int IsUnsupportedOS();
    static int IsWin98();
    static int IsWin98SE();
    static int IsWinME();
    static int IsWinNT40();
    static int IsWin2000();
    static int IsWinXP();
    static int IsWin2003();
    static int IsVista();
    static int IsWin7();
    static int IsWin8();
    static int IsVistaOrGreater();

    static int Is32BitOS();
    /// Whether this is a process of 32 bits on a system of 64.
    static int IsWow64();
    /// 1 on a system of 32 bits. Null is this process.
    static int Is32BitProcess(HANDLE process);
    /// Whether the user is an administrator, also one who runs with reduced rights at the moment.
    static int IsCurrentUserLocalAdministrator();
    /// Whether there is memory at the address that may be accessed in some way. Not cheap.
    static int IsValidAddress(void * address);
    /// The base of the region at the address: the handle of the module that it belongs to, if any.
    static HMODULE ModuleFromAddress(void * address);
    /// The path of a class's module; 0 with the last error and an empty path if it has none.
    static int GetClassInprocServerPath(CString const & clsid, CString & path);

    /// The bytes of a resource, which live as long as its module (null: the executable). Null and size 0, with a line
    /// in the log, if there is none.
    static void * LoadResource(ULONG & size, LPCTSTR name, CString const & type, HINSTANCE module);
    /// The same as text, narrow as it stands or UTF-16; 0, with an empty text, if there is none.
    static int LoadResource(CStringA & bytes, LPCTSTR name, CString const & type, HINSTANCE module);
    static int LoadResource(CString & text, LPCTSTR name, CString const & type, HINSTANCE module);

    /// What the processor says of itself; 0, with all zero, if it says nothing.
    static int ReadCPUID(CpuIdent * cpu);
    /// By the name that the hypervisor gives itself.
    static int IsInsideVMWare();
    static int IsInsideVPC();
};
