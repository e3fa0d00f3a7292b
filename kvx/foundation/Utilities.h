#pragma once

/// CUtilities: static helpers that many folders share. It is declared here, and each folder defines the members
/// of its own topic: text/ the splitting of texts, hash/ conversions between encodings, Base64, escapes, the cipher and
/// checksums, files/ paths, system/ the questions about the system.

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

    // Base64 (kvx/hash/UtilitiesBase64.cpp), the standard alphabet. Flags: 1 leaves out the "=" at the end, 2 the line
    // ends, which else (CR LF) stand between lines of 76 characters; none stands at the end of the text.

    /// The characters that the encoders want room for: never less than they write, mostly some more, no NUL among them.
    /// 0 for a negative size or one whose text would pass 2 GiB, which the encoders refuse too.
    static int Base64EncodeGetRequiredLength(int size, ULONG flags);
    /// `*outSize` becomes the number of characters written, no NUL among them. Whatever it was before isn't looked at:
    /// `out` has the required length. 0 for null pointers and what is told above.
    static int Base64Encode(unsigned char const * data, int size, LPTSTR out, int * outSize, ULONG flags);
    /// The same to bytes; but here `*outSize` is the room, and one below the required length is refused, even if the
    /// text would fit.
    static int Base64Encode(unsigned char const * data, int size, char * out, int * outSize, ULONG flags);
    /// Decodes up to a NUL or `length`. Passes over whatever is no digit, "=" and line ends among them, and takes up to
    /// four digits for their whole bytes. `*outSize` is the room, and becomes the size of all the data; 0 if that is
    /// more than the room (what fitted has been written), or `out` is null, which is a way to ask for the size.
    static int Base64Decode(char const * text, int length, unsigned char * out, int * outSize);

    /// The same as a text of its own.
    static CString ToBase64(void const * data, std::size_t size, ULONG flags = 0);
    /// Takes what the encoders write, in lines of any length, and nothing else: -1, or the index of the first character
    /// that doesn't belong there (the length, if the text breaks off). `bytes` is what came before.
    static int FromBase64(CString const & text, CByteArray & bytes);

    // Escapes (kvx/hash/UtilitiesEscapes.cpp)

    /// Each blank becomes the character `blank`; what is in `escapeSet`, or isn't printable ASCII, becomes a percent
    /// sign and four digits, as "%00E9". By contract DecodeString doesn't undo it; CHttpFormatter::EncodeUtf8 has an
    /// inverse.
    static CString EncodeString(CString const & text, CString const & escapeSet, WCHAR blank);
    /// The character `blank` becomes a blank. By contract, of the two digits that a percent sign takes the first stands
    /// for both: "%41" is the character 0x44. A percent sign at the very end stays.
    static CString DecodeString(CString const & text, WCHAR blank);
    /// A percent sign becomes two, a character above 0xFF a percent sign and four digits, any other a byte of its
    /// value.
    static CStringA EscapeUnicode(LPCTSTR text);
    /// The inverse. By contract any character is taken for a digit, by its distance from the digits; a percent sign
    /// with fewer than four behind it stays.
    static CString UnescapeUnicode(char const * text);
    /// A percent sign and four upper-case digits.
    static CString FormatEscape(WCHAR c);
    /// The value of a hexadecimal digit; 0 for any other character.
    static int UnformatEscape(WCHAR c);
    /// Of hexadecimal digits, the last eight of which count; other characters are digits 0. 0 for null.
    static int HexStr2Int(LPCTSTR text);

    // The cipher, checksums, sizes (kvx/hash/UtilitiesCrypto.cpp)

    /// Blowfish in ECB mode, with the key as it is. By contract only whole blocks of 8 bytes are written: up to 7 bytes
    /// at the end are left out, so fill the data up. `output` may be `input`. Each call makes its tables from the key,
    /// which costs as much as some KiB of data. CInvalidArgException for an empty key or a null pointer.
    static void BlowfishEncrypt(unsigned char * key, LONG keySize, unsigned char * output, unsigned char * input,
                                LONG size);
    static void BlowfishDecrypt(unsigned char * key, LONG keySize, unsigned char * output, unsigned char * input,
                                LONG size);
    /// Null if the cipher gives what its author published, else which of four steps didn't.
    static char const * BlowfishSelfTest();
    /// CRC-32 (IEEE 802.3) of at least one byte; of none it is 0. kvx::hash::Crc32 goes on from another's.
    static ULONG ComputeCRC32(char * data, ULONG size);
    /// The size of a hash table for so many entries: the first above a fifth of them in a fixed list, which has 1024
    /// among its primes and ends with 800011.
    static LONG GetHashSize(LONG entries);

    // Texts and numbers in archives and files (kvx/hash/UtilitiesTransfer.cpp): a text is the number of its characters
    // in 32 bits, and its UTF-16 units; a number 4 bytes. Exceptions of the archive or file go on to the caller.

    /// 0, with the value as it was, if the data end before; a false length costs no memory.
    static int Read(CArchive & archive, CString & text);
    static int Read(CArchive & archive, ULONG & value);
    static int Read(CFile & file, CString & text);
    static int Read(CFile & file, ULONG & value);
    /// 1.
    static int Write(CArchive & archive, CString const & text);
    static int Write(CArchive & archive, ULONG value);
    static int Write(CFile & file, CString const & text);
    static int Write(CFile & file, ULONG value);

    // Single files and folders (kvx/files/UtilitiesFiles.cpp). All take paths of any length, by the prefix "\\?\", and
    // tell failure by 0 with the last error. The hooks are plain statics: set them before any other thread runs.

    /// Whether there is anything of that name, a folder too; a pattern such as "c:\*.*" if anything matches.
    static int FileExists(LPCTSTR path);
    static int DirectoryExists(LPCTSTR path);
    /// Makes the folder and those on the way to it; failures but 183 are logged, and those on the way go no further. By
    /// contract an empty path gives 1, as does one that exists, be it a file; but a folder that another thread makes
    /// meanwhile gives 0.
    static int CreateDirectoryW(LPCTSTR path);
    /// With `force` also a read-only file. A symbolic link goes itself.
    static int DeleteFileW(LPCTSTR path, int force);
    /// Clears the read-only attribute; of a symbolic link its own, not its target's.
    static int EnsureWritableFile(LPCTSTR path);
    /// Whether an existing file can be opened for reading.
    static int TestFileOpen(LPCTSTR path);

    /// A hook is called first; its result 0 says that it has answered, by `result`.
    using FileExistsProc = int(__stdcall *)(LPCTSTR path, int & result);
    using DeleteFileProc = int(__stdcall *)(LPCTSTR path, int force, int & result);
    /// The hook that was set before; null is none.
    static FileExistsProc SetFileExistsProc(FileExistsProc proc);
    static DeleteFileProc SetDeleteFileProc(DeleteFileProc proc);

    // Many files (kvx/files/UtilitiesFolders.cpp). `pattern` is a path with wildcards in its last part; walks go as
    // deep as the system lets folders nest. Symbolic links are taken for files, and never followed.

    /// Deletes what matches, read-only files too, and no folders; the first failure, which is logged, ends it. 0 also
    /// if nothing matches, 87 for an empty pattern, 14 for a path of more than 32000 characters. `unused` isn't looked
    /// at.
    static int DeleteUnicodeFile(LPCTSTR pattern, int unused);
    /// Adds the paths of the matching files at the tail. By contract 1 when there are none; 0 with 87 for an empty
    /// pattern, with 14 as above.
    static int FindUnicodeFile(LPCTSTR pattern, CStringList & out);
    static int FindFile(LPCTSTR pattern, CStringList & out) { return FindUnicodeFile(pattern, out); }

    /// Empties a folder, and removes it with `removeIt`; then a link to a folder goes alone. What can't be deleted
    /// stays. By contract only the last step counts: 0 with its error if the folder itself was to go and couldn't be
    /// removed, as when it isn't there; 1 with last error 0 otherwise. 0 with 87 for an empty path.
    static int ClearDirectory(LPCTSTR directory, int removeIt);
    /// Add the full paths at the tail, with `recursive` those of all folders below, each behind its folder's. 1 if
    /// every folder could be read; else 0, with the last failure as the last error, and what could be read is there.
    static int GetFilesInDirectory(LPCTSTR directory, CStringList & out, int recursive);
    static int GetSubDirectories(LPCTSTR directory, CStringList & out, int recursive);
    /// The number of files whose names match, with `recursive` also in the folders below. Null is "*".
    static int GetDirectoryFileCount(LPCTSTR directory, LPCTSTR pattern, int recursive);

    // Paths (kvx/files/UtilitiesPaths.cpp)

    /// Puts "\\?\" in front of a path of 260 or more characters that doesn't begin with it; whether it did.
    static int CheckFixLongFilePathPrefix(CString & path);
    /// Takes it off a text of 5 or more characters; whether it did.
    static int StripLongFilePathPrefix(CString & path);
    /// Whether the path has a drive, or begins with "\\?\". By contract "\\server\share\x" isn't absolute, and neither
    /// is "/usr/x" on a POSIX host.
    static int IsAbsolutePath(LPCTSTR path);
    static int IsRelativePath(LPCTSTR path) { return !IsAbsolutePath(path); }
    /// Adds a backslash unless one stands at the end, also to an empty text; the buffer has room for it.
    static void AppendBackslash(CString & path);
    static void AppendBackslash(LPTSTR path);

    // Empty, with the last error, for what the system doesn't give, or gives longer than 259 characters.
    static CString GetCurrentDirectoryW();
    static CString GetWindowsDirectoryW();
    /// With a backslash at its end.
    static CString GetTempDirectory();
    /// Null is the program.
    static CString GetModuleFileNameW(HINSTANCE module);
    /// Drive and directory of the module's file.
    static CString GetLocalDirectory(HINSTANCE module);

    /// `relative` below `base`, or `relative` itself if it is absolute. Each "..\" at its head takes a folder from the
    /// base; empty if there are too many, or for a path of more than 32766 characters.
    static CString BuildAbsolutePath(CString const & base, CString const & relative);
    // `name` in a folder; with `force` 0 empty for an absolute name, which is to be used as it stands.
    static CString BuildCurrentPath(CString const & name, int force);
    static CString BuildTempPath(CString const & name, int force);
    static CString BuildSystemPath(CString const & name, int force);
    static CString BuildWindowsPath(CString const & name, int force);
    /// In the folder of a module; null is the program.
    static CString BuildLocalPath(CString const & name, int force, HINSTANCE module);
    /// Where the system's search for programs finds the name; empty if nowhere.
    static CString BuildLibraryPath(CString const & name, int force);
    /// In the folder for all users' data. `unused` isn't looked at. With `createDirectory` the folder of the result is
    /// made; whether that worked isn't told.
    static CString BuildCommonAppDataPath(CString const & name, int unused, int createDirectory);
    /// In a folder of another user: see GetSpecialDirectory.
    static CString BuildUserPathFromSID(CString const & relative, LPCTSTR sid, LPCTSTR valueName);
    /// A name that isn't taken in `directory`, or in GetTempDirectory() if that is empty; with `unique` 0 the file is
    /// made, else it is built of that number and needn't be free. Empty, with the last error, on failure.
    static CString BuildTempFileName(CString const & prefix, UINT unique, CString const & directory);

    // Tokens and special directories (kvx/files/UtilitiesExpand.cpp, with the tables of PathTokens.h)

    enum ExpandPathOption
    {
        expandDefault,  ///< tokens as the system has them for this process
        expand32Bit,    ///< on a 64-bit system the folders of its 32-bit side
        expand64Bit,    ///< and those of its 64-bit side
        expandMoved,    ///< with the 64-bit folders in the result replaced by the 32-bit ones
        expandExisting, ///< the first of 64-bit, 32-bit and default view in which there is such a file
    };
    /// Replaces a token at the very start ("%appdata%\x"), then variables of the environment anywhere. The result is in
    /// lower case, whatever came in. What can't be replaced stays. By contract "\\?\c:\x" gives "\c:\x", and the views
    /// expand32Bit and expandMoved put the 32-bit system folder also in the place of a path that leads to the 64-bit
    /// one
    /// ("c:\").
    static CString ExpandPath(LPCTSTR path, ExpandPathOption option);
    /// One path for each user ("%appdata%\x", with SIDs in `users`), temporary folder ("%temp%\x") or drive ("\x"). By
    /// contract those of users and a path without any token are added at the head of `out`, others at its tail; the
    /// result is a number of paths, but 0 for one without any percent sign. The tokens: kvx/files/PathTokens.cpp.
    static int ExpandPaths(LPCTSTR path, CStringList & users, CStringList & out);
    /// ExpandPath of the text in lower case. With bit 2 of `flags` (value 2) "%programfiles%" and
    /// "%programfilescommon%" are the folders on the system drive by their usual names.
    static CString ExpandEnvironmentPath(CString text, ULONG flags);
    /// Whether the text contains the token of a folder of users' profiles.
    static int IsUserProfileDirectoryTemplate(LPCTSTR text);
    /// Whether this is one of the folders that no program should clear. By contract spelled ISProtectedDirectory.
    static int ISProtectedDirectory(CString const & path);

    /// The folder with an identifier of SHGetFolderPath, with a backslash at its end; empty if there is none.
    static CString GetSpecialDirectory(int id, int create = 0);
    /// SHGetFolderPath itself, into a buffer of 260 characters: 0 or the system's error. 1, with a line in the log, if
    /// the system hasn't got it.
    static HRESULT GetSpecialDirectory(HWND owner, int id, void * token, ULONG flags, LPTSTR buffer);
    /// A folder of the user with that SID, by the name that the registry has for it, with a backslash at its end. With
    /// `create` it is made if it is missing. Empty on any failure.
    static CString GetSpecialDirectory(LPCTSTR valueName, LPCTSTR sid, int create);
    /// A variable of that user's environment (percent signs around the name don't matter); empty on failure. By
    /// contract spelled so.
    static CString GetUserEvironmentVariable(LPCTSTR name, LPCTSTR sid);
    static CString GetUserProfileVariable(LPCTSTR sid);
    /// Adds what TEMP and TMP of this process (`sid` null) or of a user say, both even if they are the same, at the
    /// tail; before each its subfolders of any depth with `withSubdirectories`. 1.
    static int GetAllTempPaths(CStringList & out, LPCTSTR sid, int withSubdirectories);

    /// "Global\".
    static CString GetGlobalPrefix();
    /// The name of the event that a server sets when it has started; null is the default server's.
    static void GetServerActivatedEventName(CString & name, LPCTSTR server);

    // Command lines, with the file system's help (kvx/files/UtilitiesCommandLine.cpp)

    /// Splits a line into the program's full path and what follows; both in lower case, percent tokens replaced.
    /// Without quotes the program is found by trying what the blanks leave. Non-zero if it was found. By contract a
    /// line without quotes whose program isn't found is split by its looks, and gives 1 as well.
    static int SplitCommandLine(LPCTSTR line, CString & program, CString & arguments)
    {
        return SplitCommandLine2(line, program, arguments);
    }
    static int SplitCommandLine2(LPCTSTR line, CString & program, CString & arguments);
    /// Finds a program of the search path in a text: as it stands, with one of GetExecutableExtensions, or with
    /// blank-separated parts cut off its end. `cut` is then the index of the blank where it was cut, else -1. The
    /// length of the path in `buffer` (`size` characters with the NUL), 0 if there is none.
    static DWORD SearchPathAllExt(CString const & text, int & cut, LPTSTR buffer, DWORD size);
    /// The same with the extension ".exe" alone.
    static DWORD SearchPathW(CString const & text, int & cut, LPTSTR buffer, DWORD size);
    /// Lower case, each with its dot; made at the first call.
    static CStringArray const & GetExecutableExtensions();
    /// Looks for the first of them that ends a word of `text`, which is in lower case: its index, with the extension;
    /// else 0.
    static int ContainsExecutableExt(CString & text, CString & extension);

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

private:
    static int GetDrives(CStringList & drives); // the roots of fixed drives, at the tail; how many
};
