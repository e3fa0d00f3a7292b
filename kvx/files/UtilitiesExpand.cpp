#include "kvx/foundation/Utilities.h"

#include "kvx/files/PathTokens.h"
#include "kvx/logging/LogManager.h"
#include "kvx/system/WinModule.h"

namespace
{
constexpr int LONGEST_EXPANSION = 32767; // with the NUL
constexpr int SYSTEM64_FOLDER = 37;
constexpr int SYSTEM32_FOLDER = 41;
constexpr int PROGRAM_FILES32_FOLDER = 42;
constexpr REGSAM VIEW32 = 0x200;
constexpr REGSAM VIEW64 = 0x100;

bool StartsWith(CString const & text, CString::View start)
{
    return text.AsView().starts_with(start);
}

CString ToLower(CString text)
{
    return text.MakeLower();
}

CString CutBackslashes(CString text)
{
    return text.TrimRight(_T('\\'));
}

/// Empty for a value that isn't there or is no text. Variables in it stay as they are.
CString ReadRegistryText(HKEY root, CString const & path, LPCTSTR name, REGSAM access)
{
    HKEY key = nullptr;
    if (RegOpenKeyExW(root, path, 0, access, &key) != 0)
    {
        return {};
    }
    CString text;
    DWORD type = REG_NONE;
    DWORD size = 0;
    LONG code = RegQueryValueExW(key, name, nullptr, &type, nullptr, &size);
    // Another process may change it between the calls.
    for (int tries = 0; tries < 10 && (code == 0 || code == ERROR_MORE_DATA) && size > 0; ++tries)
    {
        int const length = static_cast<int>(size / sizeof(WCHAR));
        auto * const room = reinterpret_cast<BYTE *>(text.GetBuffer(length + 1));
        code = RegQueryValueExW(key, name, nullptr, &type, room, &size);
        text.ReleaseBufferSetLength(code == 0 ? static_cast<int>(size / sizeof(WCHAR)) : 0);
        if (code != ERROR_MORE_DATA)
        {
            break;
        }
    }
    RegCloseKey(key);
    if (code != 0 || (type != REG_SZ && type != REG_EXPAND_SZ))
    {
        return {};
    }
    return CString(text.GetString()); // up to the first NUL
}

CString ReadSystemFolder(LPCTSTR name, REGSAM view)
{
    return CutBackslashes(ReadRegistryText(HKEY_LOCAL_MACHINE, _T("SOFTWARE\\Microsoft\\Windows\\CurrentVersion"), name,
                                           KEY_READ | view));
}

/// What doesn't fit stays as it was.
CString ExpandEnvironment(CString const & text)
{
    if (text.Find(_T('%')) < 0 || text.GetLength() >= LONGEST_EXPANSION)
    {
        return text;
    }
    CString expanded;
    DWORD const size = ExpandEnvironmentStringsW(text, expanded.GetBuffer(LONGEST_EXPANSION - 1), LONGEST_EXPANSION);
    bool const bFits = size > 0 && size <= LONGEST_EXPANSION;
    expanded.ReleaseBuffer(bFits ? static_cast<int>(size) - 1 : 0);
    return bFits ? expanded : text;
}

/// Takes off what the system's own names for paths have in front.
CString StripNativePrefix(CString text)
{
    constexpr CString::View GLOBAL_ROOT = _T("globalroot");
    if (StartsWith(text, _T("\\??\\")))
    {
        text.Delete(0, 4);
    }
    else if (StartsWith(text, _T("\\\\?\\")))
    {
        text.Delete(0, 3);
    }
    int const root = ToLower(text.Left(static_cast<int>(GLOBAL_ROOT.size()) + 1)).Find(GLOBAL_ROOT);
    if (root == 0 || (root == 1 && text[0] == '\\'))
    {
        text.Delete(0, root + static_cast<int>(GLOBAL_ROOT.size()));
    }
    return text;
}

struct NativeForm
{
    CString::View start; // in lower case
    LPCTSTR text;
};
constexpr NativeForm NATIVE_FORMS[] = {
    {_T("\\systemroot\\"), _T("%SystemRoot%\\")},
    {_T("system32\\"), _T("%system64%\\")},
    {_T("syswow64\\"), _T("%systemx86%\\")},
};

/// Replaces the system's own name for a folder at the start; whether there was one.
bool ReplaceNativeForm(CString & path)
{
    CString const lower = ToLower(path);
    for (NativeForm const & form : NATIVE_FORMS)
    {
        if (StartsWith(lower, form.start))
        {
            path = form.text + path.Mid(static_cast<int>(form.start.size()));
            return true;
        }
    }
    return false;
}

/// For a 64-bit system: the tokens whose meaning depends on the view, in the order in which they are tried.
void TranslateViewTokens(CString & path, CUtilities::ExpandPathOption option)
{
    struct ViewToken
    {
        CString::View token;
        LPCTSTR value; // of the registry; null: `in32` and `in64` stand for it
        LPCTSTR in32;
        LPCTSTR in64;
        bool bAlways64;
    };
    constexpr LPCTSTR PROGRAMS = _T("ProgramFilesDir");
    constexpr LPCTSTR COMMON = _T("CommonFilesDir");
    static constexpr ViewToken TOKENS[] = {
        {_T("%commonprogramfiles%"), COMMON, nullptr, nullptr, false},
        {_T("%commonprogramfiles64%"), COMMON, nullptr, nullptr, true},
        {_T("%programfiles%"), PROGRAMS, nullptr, nullptr, false},
        {_T("%programfiles64%"), PROGRAMS, nullptr, nullptr, true},
        {_T("%programfilescommon%"), COMMON, nullptr, nullptr, false},
        {_T("%programfilescommon64%"), COMMON, nullptr, nullptr, true},
        {_T("%system%"), nullptr, _T("%systemx86%"), _T("%system64%"), false},
    };
    CString const lower = ToLower(path);
    for (ViewToken const & row : TOKENS)
    {
        if (!StartsWith(lower, row.token))
        {
            continue;
        }
        bool const b64 = row.bAlways64 || option == CUtilities::expand64Bit;
        if (b64 || option == CUtilities::expand32Bit)
        {
            CString const folder =
                row.value ? ReadSystemFolder(row.value, b64 ? VIEW64 : VIEW32) : CString(b64 ? row.in64 : row.in32);
            if (!folder.IsEmpty())
            {
                path = folder + path.Mid(static_cast<int>(row.token.size()));
            }
        }
        return;
    }
}

void ReplaceFolderToken(CString & path)
{
    if (path.Find(_T('%')) < 0)
    {
        return;
    }
    CString const lower = ToLower(path);
    for (PathToken const & row : GetPathTokens())
    {
        if (!StartsWith(lower, row.token))
        {
            continue;
        }
        CString const folder = CutBackslashes(CUtilities::GetSpecialDirectory(row.folder, 0));
        if (!folder.IsEmpty())
        {
            path = folder + path.Mid(static_cast<int>(CString::View(row.token).size()));
            return;
        }
    }
}

/// For a 64-bit system: what lies in its 64-bit folders is looked for in those of 32 bits.
void MoveTo32Bit(CString & path, CUtilities::ExpandPathOption option)
{
    if (option == CUtilities::expandMoved)
    {
        CString const programs = ToLower(ReadSystemFolder(_T("ProgramFilesDir"), VIEW64));
        if (!programs.IsEmpty() && StartsWith(path, programs + _T('\\')))
        {
            path = CutBackslashes(ToLower(CUtilities::GetSpecialDirectory(PROGRAM_FILES32_FOLDER, 0))) +
                   path.Mid(programs.GetLength());
        }
    }
    if (option == CUtilities::expandMoved || option == CUtilities::expand32Bit)
    {
        CString const system = ToLower(CUtilities::GetSpecialDirectory(SYSTEM64_FOLDER, 0));
        if (!system.IsEmpty() && (StartsWith(path, system) || StartsWith(system, path)))
        {
            path = ToLower(CUtilities::GetSpecialDirectory(SYSTEM32_FOLDER, 0)) + path.Mid(system.GetLength());
        }
    }
}

bool IsThere(CString path)
{
    CUtilities::CheckFixLongFilePathPrefix(path);
    return GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES;
}

CString ProfileKey(LPCTSTR sid, LPCTSTR below)
{
    return CString(sid) + below;
}

/// Adds a text for each folder that stands for the token of a user's profile; how many.
int AddProfilePaths(CString const & path, ProfileTemplate const & row, CString const & sid, CStringList & out)
{
    CString const folder = CutBackslashes(CUtilities::GetSpecialDirectory(row.valueName, sid, 0));
    if (folder.IsEmpty())
    {
        return 0;
    }
    CStringList folders;
    if (CString::View(row.token) == CString::View(_T("%internetcache%")))
    {
        CUtilities::GetSubDirectories(folder, folders, 1);
    }
    else
    {
        folders.AddTail(folder);
    }
    for (POSITION position = folders.GetHeadPosition(); position;)
    {
        CString text = path;
        text.Replace(row.token, folders.GetNext(position));
        out.AddHead(text);
    }
    return static_cast<int>(folders.GetCount());
}
} // namespace

CString CUtilities::ExpandPath(LPCTSTR path, ExpandPathOption option)
{
    CString const given(path);
    if (given.IsEmpty())
    {
        return {};
    }
    bool const b64 = !Is32BitOS();
    if (option == expandExisting)
    {
        for (ExpandPathOption const view : {expand64Bit, expand32Bit})
        {
            if (CString const expanded = b64 ? ExpandPath(path, view) : CString();
                !expanded.IsEmpty() && IsThere(expanded))
            {
                return expanded;
            }
        }
        option = expandDefault;
    }
    CString text = StripNativePrefix(given);
    if (!ReplaceNativeForm(text) && b64 && option != expandMoved)
    {
        TranslateViewTokens(text, option);
    }
    ReplaceFolderToken(text);
    text = ToLower(ExpandEnvironment(text));
    if (b64)
    {
        MoveTo32Bit(text, option);
    }
    text.TrimRight(_T('\\'));
    return given.AsView().ends_with('\\') ? text + _T('\\') : text;
}

int CUtilities::ExpandPaths(LPCTSTR path, CStringList & users, CStringList & out)
{
    if (!path)
    {
        return 0;
    }
    CString text(path);
    if (text.Find(_T("%downloadedprogramfiles%")) >= 0)
    {
        text.Replace(_T("%downloadedprogramfiles%"), BuildWindowsPath(_T("downloaded program files"), 1));
    }
    static CStringList const & s_drives = []() -> CStringList const &
    {
        auto * const drives = new CStringList; // never goes: other statics may still expand paths
        GetDrives(*drives);
        return *drives;
    }();
    if (StartsWith(text, _T("\\")) && !StartsWith(text, _T("\\\\")))
    {
        text.TrimLeft(_T('\\'));
        for (POSITION position = s_drives.GetHeadPosition(); position;)
        {
            out.AddTail(s_drives.GetNext(position) + text);
        }
        return static_cast<int>(out.GetCount());
    }
    if (text.Find(_T('%')) < 0)
    {
        out.AddHead(text);
        return 0;
    }
    text.MakeLower();
    if (constexpr CString::View TEMP = _T("%temp%"); StartsWith(text, TEMP))
    {
        CStringList folders;
        for (POSITION position = users.GetHeadPosition(); position;)
        {
            GetAllTempPaths(folders, users.GetNext(position), 1);
        }
        if (users.IsEmpty())
        {
            GetAllTempPaths(folders, nullptr, 1);
        }
        for (POSITION position = folders.GetHeadPosition(); position;)
        {
            out.AddTail(CutBackslashes(folders.GetNext(position)) + text.Mid(static_cast<int>(TEMP.size())));
        }
        return static_cast<int>(folders.GetCount());
    }
    for (ProfileTemplate const & row : GetProfileTemplates())
    {
        if (text.Find(row.token) < 0)
        {
            continue;
        }
        int count = 0;
        for (POSITION position = users.GetHeadPosition(); position;)
        {
            count += AddProfilePaths(text, row, users.GetNext(position), out);
        }
        return count;
    }
    out.AddHead(ExpandPath(text, expandDefault));
    return 1;
}

CString CUtilities::ExpandEnvironmentPath(CString text, ULONG flags)
{
    constexpr ULONG USUAL_PROGRAM_FILES = 2;
    text.MakeLower();
    if (flags & USUAL_PROGRAM_FILES)
    {
        text.Replace(_T("%programfiles%"), _T("%systemdrive%\\program files"));
        text.Replace(_T("%programfilescommon%"), _T("%systemdrive%\\program files\\common files"));
    }
    return ExpandPath(text, expandDefault);
}

int CUtilities::IsUserProfileDirectoryTemplate(LPCTSTR text)
{
    CString const lower = ToLower(text);
    for (ProfileTemplate const & row : GetProfileTemplates())
    {
        if (lower.Find(row.token) >= 0)
        {
            return 1;
        }
    }
    return 0;
}

int CUtilities::ISProtectedDirectory(CString const & path)
{
    CString const folder = CutBackslashes(path);
    if (path.IsEmpty())
    {
        return 0;
    }
    for (LPCTSTR const token : GetProtectedTokens())
    {
        if (CutBackslashes(ExpandPath(token, expandDefault)).CompareNoCase(folder) == 0)
        {
            return 1;
        }
    }
    return 0;
}

CString CUtilities::GetSpecialDirectory(int id, int)
{
    WCHAR buffer[MAX_PATH] = {};
    if (GetSpecialDirectory(nullptr, id, nullptr, 0, buffer) != S_OK || !*buffer)
    {
        return {};
    }
    CString folder(buffer);
    AppendBackslash(folder);
    return folder;
}

HRESULT CUtilities::GetSpecialDirectory(HWND owner, int id, void * token, ULONG flags, LPTSTR buffer)
{
    using GetFolderPath = HRESULT(WINAPI *)(HWND, int, HANDLE, DWORD, LPTSTR);
    static GetFolderPath const s_pGetFolderPath = []() -> GetFolderPath
    {
        static CWinModule & s_module = *new CWinModule; // stays loaded
        FARPROC const address =
            s_module.Load(_T("shfolder.dll")) ? s_module.GetProcAddress(_T("SHGetFolderPathW")) : nullptr;
        return reinterpret_cast<GetFolderPath>(reinterpret_cast<void *>(address));
    }();
    if (!s_pGetFolderPath)
    {
        LogError(_T("CUtilities::GetSpecialDirectory - failed to load SHGetFolderPath"));
        return 1;
    }
    return s_pGetFolderPath(owner, id, token, flags, buffer);
}

CString CUtilities::GetSpecialDirectory(LPCTSTR valueName, LPCTSTR sid, int create)
{
    constexpr REGSAM ACCESS = 0xF001F;
    CString folder = ReadRegistryText(
        HKEY_USERS, ProfileKey(sid, _T("\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Shell Folders")),
        valueName, ACCESS);
    if (folder.IsEmpty())
    {
        return {};
    }
    AppendBackslash(folder);
    return create && !CreateDirectoryW(folder) ? CString() : folder;
}

CString CUtilities::GetUserEvironmentVariable(LPCTSTR name, LPCTSTR sid)
{
    CString plain(name);
    plain.Remove(_T('%'));
    CString value = ReadRegistryText(HKEY_USERS, ProfileKey(sid, _T("\\Environment")), plain, KEY_READ);
    if (value.Find(_T("%USERPROFILE%")) >= 0)
    {
        value.Replace(_T("%USERPROFILE%"), GetUserProfileVariable(sid));
    }
    return value;
}

CString CUtilities::GetUserProfileVariable(LPCTSTR sid)
{
    CString const folder = ReadRegistryText(
        HKEY_LOCAL_MACHINE, CString(_T("SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList\\")) + sid,
        _T("ProfileImagePath"), KEY_READ);
    return ExpandEnvironment(folder); // it begins with %SystemDrive%
}

int CUtilities::GetAllTempPaths(CStringList & out, LPCTSTR sid, int withSubdirectories)
{
    for (LPCTSTR const variable : {_T("%TEMP%"), _T("%TMP%")})
    {
        CString folder;
        if (sid)
        {
            folder = GetUserEvironmentVariable(variable, sid);
        }
        else
        {
            WCHAR buffer[MAX_PATH] = {};
            DWORD const size = ExpandEnvironmentStringsW(variable, buffer, MAX_PATH);
            folder = size > 0 && size <= MAX_PATH && CString::View(buffer) != variable ? CString(buffer) : CString();
        }
        if (folder.IsEmpty())
        {
            continue;
        }
        if (withSubdirectories)
        {
            GetSubDirectories(folder, out, 1);
        }
        out.AddTail(folder);
    }
    return 1;
}

int CUtilities::GetDrives(CStringList & drives)
{
    constexpr DWORD ROOTS = 64;
    constexpr UINT FIXED = 3;
    WCHAR roots[ROOTS] = {};
    DWORD const length = GetLogicalDriveStringsW(ROOTS, roots);
    int count = 0;
    for (LPCTSTR root = roots; length < ROOTS && *root; root += CString::View(root).size() + 1)
    {
        WCHAR device[1024] = {};
        if (GetDriveTypeW(root) != FIXED || !QueryDosDeviceW(CutBackslashes(root), device, std::size(device)) ||
            CString::View(device).find(_T("??")) != CString::View::npos)
        {
            continue;
        }
        drives.AddTail(root);
        ++count;
    }
    if (count == 0)
    {
        drives.AddTail(GetWindowsDirectoryW().Left(2) + _T('\\'));
        count = 1;
    }
    return count;
}

CString CUtilities::GetGlobalPrefix()
{
    return _T("Global\\");
}

void CUtilities::GetServerActivatedEventName(CString & name, LPCTSTR server)
{
    name.Format(_T("Global\\activated_%s"), server ? server : _T("bxserver"));
}
