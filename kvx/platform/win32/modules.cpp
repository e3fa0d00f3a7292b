#include "kvx/platform/win32/modules.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/low_descriptors.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/processes.h"
#include "kvx/platform/win32/security.h"
#include "kvx/platform/win32/shell_folders.h"
#include "kvx/platform/win32/system.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/unique_fd.h"
#include "kvx/platform/win32/upcase.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

/// All tables of the process. Constant-initialised: modules come and go when they like.
struct ResourceTables
{
    static constinit inline ResourceTable * sm_pFirst = nullptr;
    static constinit inline std::mutex sm_lock{};

    static void Add(ResourceTable & table)
    {
        UninterruptedScope const scope;
        std::scoped_lock const guard(sm_lock);
        table.m_pNext = std::exchange(sm_pFirst, &table);
    }

    static void Remove(ResourceTable & table)
    {
        UninterruptedScope const scope;
        std::scoped_lock const guard(sm_lock);
        for (ResourceTable ** pp = &sm_pFirst; *pp; pp = &(*pp)->m_pNext)
        {
            if (*pp == &table)
            {
                *pp = table.m_pNext;
                return;
            }
        }
    }

    template <class VISIT>
    static void ForEach(HMODULE hModule, VISIT visit);
};

} // namespace kvx::win32

using namespace kvx::win32;

namespace
{

/// What callers look up by name in the system's own modules, to find out whether it is there.
struct SystemExport
{
    std::string_view name;
    FARPROC pProcedure;
};

template <class FUNCTION>
FARPROC AsProcedure(FUNCTION * pFunction)
{
    return reinterpret_cast<FARPROC>(reinterpret_cast<void *>(pFunction));
}

struct SystemModule
{
    std::u16string_view name;
    std::vector<SystemExport> exports;
};

std::array<SystemModule, 3> const & GetSystemModules()
{
    static std::array<SystemModule, 3> const & modules = *new std::array<SystemModule, 3>{
        SystemModule{u"kernel32",
                     {{"IsWow64Process", AsProcedure(&IsWow64Process)},
                      {"GetNativeSystemInfo", AsProcedure(&GetNativeSystemInfo)}}},
        SystemModule{u"advapi32",
                     {{"CreateWellKnownSid", AsProcedure(&CreateWellKnownSid)},
                      {"CheckTokenMembership", AsProcedure(&CheckTokenMembership)},
                      {"GetTokenInformation", AsProcedure(&GetTokenInformation)}}},
        SystemModule{u"shfolder", {{"SHGetFolderPathW", AsProcedure(&SHGetFolderPathW)}}},
    };
    return modules;
}

SystemModule const * AsSystemModule(HMODULE hModule)
{
    for (SystemModule const & module : GetSystemModules())
    {
        if (reinterpret_cast<HMODULE>(const_cast<SystemModule *>(&module)) == hModule)
        {
            return &module;
        }
    }
    return nullptr;
}

/// One that LoadLibraryExW has loaded.
struct LoadedModule
{
    void * pLoader; // dlopen's
    HMODULE hModule;
    std::string strPath;
    std::size_t nUses;
};

constinit std::mutex g_lock;

std::vector<LoadedModule> & GetLoadedModules()
{
    static std::vector<LoadedModule> & modules = *new std::vector<LoadedModule>;
    return modules;
}

template <class ACTION>
auto WithModules(ACTION action)
{
    UninterruptedScope const scope;
    std::scoped_lock const guard(g_lock);
    return action(GetLoadedModules());
}

/// Where the object that contains the address is loaded; null if none does.
HMODULE ModuleOf(void const * pAddress)
{
    Dl_info info{};
    return dladdr(pAddress, &info) ? static_cast<HMODULE>(info.dli_fbase) : nullptr;
}

HMODULE ExecutableModule()
{
    static HMODULE const hModule = ModuleOf(reinterpret_cast<void const *>(getauxval(AT_PHDR)));
    return hModule;
}

std::string GetExecutablePath()
{
    char szPath[PATH_MAX];
    ssize_t const nLength = readlink("/proc/self/exe", szPath, sizeof szPath);
    if (nLength < 0)
    {
        SetLastErrorFromErrno();
        return {};
    }
    std::string_view path(szPath, static_cast<std::size_t>(nLength));
    // The kernel's mark on an executable that was replaced while it runs.
    if (constexpr std::string_view DELETED = " (deleted)"; path.ends_with(DELETED))
    {
        if (std::string const strPath(path); access(strPath.c_str(), F_OK) != 0)
        {
            path.remove_suffix(DELETED.size());
        }
    }
    return std::string(path);
}

std::u16string_view LastComponentOf(std::u16string_view path)
{
    std::size_t const nSeparator = path.find_last_of(u"/\\:");
    return nSeparator == path.npos ? path : path.substr(nSeparator + 1);
}

bool EndsWith(std::u16string_view text, std::u16string_view end)
{
    return text.size() > end.size() && IsSameName(text.substr(text.size() - end.size()), end);
}

/// The names a module's file may have.
std::vector<std::u16string> FileNamesOf(std::u16string_view name)
{
    std::vector<std::u16string> names;
    std::u16string_view stem = name;
    if (name.ends_with(u'.'))
    {
        stem.remove_suffix(1);
        names.emplace_back(stem);
        return names;
    }
    if (name.find(u'.') != name.npos)
    {
        names.emplace_back(name);
    }
    if (EndsWith(name, u".dll"))
    {
        stem.remove_suffix(4);
    }
    if (EndsWith(name, u".so"))
    {
        stem.remove_suffix(3);
    }
    for (std::u16string_view const prefix : {u"lib", u""})
    {
        names.push_back(std::u16string(prefix).append(stem).append(u".so"));
    }
    return names;
}

/// Nothing if there is no such file, or it is a folder.
std::optional<struct stat> StatusOf(std::string const & strPath)
{
    struct stat status
    {
    };
    if (stat(strPath.c_str(), &status) != 0 || S_ISDIR(status.st_mode))
    {
        return std::nullopt;
    }
    return status;
}

bool IsSameFile(std::string const & strA, std::string const & strB)
{
    if (strA == strB)
    {
        return true;
    }
    auto const a = StatusOf(strA);
    auto const b = a ? StatusOf(strB) : std::nullopt;
    return a && b && a->st_dev == b->st_dev && a->st_ino == b->st_ino;
}

/// Whether the file is a shared object for this machine.
bool HasModuleHeader(std::string const & strPath)
{
    UniqueFd const file(open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file)
    {
        return errno == EACCES;
    }
    ElfW(Ehdr) header{};
    bool const bRead = read(file.Get(), &header, sizeof header) == static_cast<ssize_t>(sizeof header);
    constexpr unsigned char CLASS = sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32;
    return bRead && std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_ident[EI_CLASS] == CLASS &&
           header.e_type == ET_DYN;
}

LONG ErrorOfLoader(std::string_view text)
{
    if (text.find("undefined symbol") != text.npos || text.find("version `") != text.npos)
    {
        return ERROR_PROC_NOT_FOUND;
    }
    if (text.find("Permission denied") != text.npos)
    {
        return ERROR_ACCESS_DENIED;
    }
    return text.find("cannot open shared object file") != text.npos ? ERROR_MOD_NOT_FOUND : ERROR_BAD_EXE_FORMAT;
}

/// Null with the last error.
void * OpenModule(char const * pszName)
{
    dlerror();
    void * pLoader = nullptr;
    {
        LowDescriptorGuard const guard;
        pLoader = dlopen(pszName, RTLD_NOW | RTLD_LOCAL);
    }
    if (!pLoader)
    {
        char const * const pszText = dlerror();
        SetLastError(static_cast<DWORD>(ErrorOfLoader(pszText ? pszText : "")));
    }
    return pLoader;
}

void * OpenModuleFile(std::string const & strPath)
{
    if (!HasModuleHeader(strPath))
    {
        SetLastError(ERROR_BAD_EXE_FORMAT);
        return nullptr;
    }
    if (strPath.starts_with('/'))
    {
        return OpenModule(strPath.c_str());
    }
    // The loader would look for a name without a slash where libraries are.
    std::unique_ptr<char, decltype(&std::free)> const pszReal(realpath(strPath.c_str(), nullptr), &std::free);
    if (pszReal)
    {
        return OpenModule(pszReal.get());
    }
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

link_map * MapOf(void * pLoader)
{
    link_map * pMap = nullptr;
    return dlinfo(pLoader, RTLD_DI_LINKMAP, &pMap) == 0 ? pMap : nullptr;
}

/// Counts a use of what dlopen gave.
HMODULE Register(void * pLoader)
{
    link_map * const pMap = MapOf(pLoader);
    HMODULE const hModule = pMap ? ModuleOf(pMap->l_ld) : nullptr;
    if (!hModule)
    {
        dlclose(pLoader);
        SetLastError(ERROR_BAD_EXE_FORMAT);
        return nullptr;
    }
    std::string strPath = pMap->l_name;
    return WithModules(
        [&](std::vector<LoadedModule> & modules)
        {
            auto const it = std::ranges::find(modules, pLoader, &LoadedModule::pLoader);
            if (it == modules.end())
            {
                modules.push_back({pLoader, hModule, std::move(strPath), 1});
            }
            else
            {
                ++it->nUses;
            }
            return hModule;
        });
}

SystemModule const * FindSystemModule(std::u16string_view name)
{
    if (EndsWith(name, u".dll"))
    {
        name.remove_suffix(4);
    }
    for (SystemModule const & module : GetSystemModules())
    {
        if (IsSameName(name, module.name))
        {
            return &module;
        }
    }
    return nullptr;
}

HMODULE AsModule(SystemModule const & module)
{
    return reinterpret_cast<HMODULE>(const_cast<SystemModule *>(&module));
}

/// What a module's name means.
struct ModuleName
{
    explicit ModuleName(std::u16string_view name)
        : component(LastComponentOf(name)), folder(name.substr(0, name.size() - component.size()))
    {
        // A folder's name is no module's.
        if (component.find_first_not_of(u'.') == component.npos)
        {
            return;
        }
        if (IsBare())
        {
            pSystem = FindSystemModule(component);
        }
        files = FileNamesOf(component);
    }

    bool IsBare() const { return folder.empty(); }

    std::u16string_view component;
    std::u16string_view folder;             ///< with its separator
    SystemModule const * pSystem = nullptr; ///< one of the system's own
    std::vector<std::u16string> files;      ///< the names that its file may have
};

/// The loader's handle of a module, null for none; `bExecutable` for the executable's.
void * LoaderOf(HMODULE hModule)
{
    return WithModules(
        [&](std::vector<LoadedModule> & modules) -> void *
        {
            auto const it = std::ranges::find(modules, hModule, &LoadedModule::hModule);
            return it == modules.end() ? nullptr : it->pLoader;
        });
}

std::u16string ResourceNameOf(LPCWSTR pszName)
{
    if (!IS_INTRESOURCE(pszName))
    {
        return pszName;
    }
    std::array<char, 8> digits{};
    auto const [pEnd, error] =
        std::to_chars(digits.data(), digits.data() + digits.size(), reinterpret_cast<ULONG_PTR>(pszName));
    return std::u16string(u"#").append(digits.data(), pEnd);
}

template <class T>
DWORD Fail(LONG nError, T result)
{
    SetLastError(static_cast<DWORD>(nError));
    return static_cast<DWORD>(result);
}

} // namespace

template <class VISIT>
void ResourceTables::ForEach(HMODULE hModule, VISIT visit)
{
    UninterruptedScope const scope;
    std::scoped_lock const guard(sm_lock);
    for (ResourceTable const * pTable = sm_pFirst; pTable; pTable = pTable->m_pNext)
    {
        if (ModuleOf(pTable->m_pResources) == hModule)
        {
            for (std::size_t i = 0; i < pTable->m_nResources; ++i)
            {
                visit(pTable->m_pResources[i]);
            }
        }
    }
}

ResourceTable::ResourceTable(Resource const * pResources, std::size_t nResources) noexcept
    : m_pResources(pResources), m_nResources(nResources), m_pNext(nullptr)
{
    ResourceTables::Add(*this);
}

ResourceTable::~ResourceTable()
{
    ResourceTables::Remove(*this);
}

HMODULE LoadLibraryExW(LPCWSTR pszName, HANDLE hFile, DWORD dwFlags)
try
{
    if (!pszName || !*pszName || hFile || (dwFlags & ~LOAD_WITH_ALTERED_SEARCH_PATH))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    ModuleName const name(pszName);
    if (name.pSystem)
    {
        return AsModule(*name.pSystem);
    }
    std::string const strProgram = GetExecutablePath();
    std::u16string const strFolder =
        name.IsBare() ? FromHost(strProgram.substr(0, strProgram.rfind('/') + 1)) : std::u16string(name.folder);
    for (std::u16string const & strFile : name.files)
    {
        std::string const strPath = ToHost(std::u16string(strFolder).append(strFile));
        if (!strPath.empty() && StatusOf(strPath))
        {
            void * const pLoader = OpenModuleFile(strPath);
            return pLoader ? Register(pLoader) : nullptr;
        }
        if (strPath.empty() && GetLastError() == static_cast<DWORD>(ERROR_INVALID_NAME))
        {
            break; // no file can have that name
        }
    }
    SetLastError(ERROR_MOD_NOT_FOUND);
    if (!name.IsBare())
    {
        return nullptr;
    }
    for (std::u16string const & strFile : name.files)
    {
        // The loader's own search takes what is given as it stands.
        if (std::ranges::any_of(strFile, [](char16_t c) { return c < 0x20 || c > 0x7E; }))
        {
            continue;
        }
        if (void * const pLoader = OpenModule(std::string(strFile.begin(), strFile.end()).c_str()))
        {
            return Register(pLoader);
        }
        if (GetLastError() != static_cast<DWORD>(ERROR_MOD_NOT_FOUND))
        {
            return nullptr;
        }
    }
    return nullptr;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<HMODULE>(nullptr);
}

BOOL FreeLibrary(HMODULE hModule)
{
    if (AsSystemModule(hModule) || (hModule && hModule == ExecutableModule()))
    {
        return TRUE;
    }
    void * const pLoader = WithModules(
        [&](std::vector<LoadedModule> & modules) -> void *
        {
            auto const it = std::ranges::find(modules, hModule, &LoadedModule::hModule);
            if (it == modules.end())
            {
                return nullptr;
            }
            void * const pFound = it->pLoader;
            if (--it->nUses == 0)
            {
                modules.erase(it);
            }
            return pFound;
        });
    if (!pLoader)
    {
        return static_cast<BOOL>(Fail(ERROR_MOD_NOT_FOUND, FALSE));
    }
    dlclose(pLoader);
    return TRUE;
}

FARPROC GetProcAddress(HMODULE hModule, LPCSTR pszName)
try
{
    if (IS_INTRESOURCE(pszName))
    {
        SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    if (SystemModule const * const pSystem = AsSystemModule(hModule))
    {
        auto const it = std::ranges::find(pSystem->exports, std::string_view(pszName), &SystemExport::name);
        if (it != pSystem->exports.end())
        {
            return it->pProcedure;
        }
        SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    bool const bExecutable = !hModule || hModule == ExecutableModule();
    void * const pLoader = bExecutable ? RTLD_DEFAULT : LoaderOf(hModule);
    if (!pLoader && !bExecutable)
    {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    void * const pSymbol = dlsym(pLoader, pszName);
    if (!pSymbol || ModuleOf(pSymbol) != (bExecutable ? ExecutableModule() : hModule))
    {
        SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    }
    return reinterpret_cast<FARPROC>(pSymbol);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<FARPROC>(nullptr);
}

HMODULE GetModuleHandleW(LPCWSTR pszName)
try
{
    if (!pszName)
    {
        return ExecutableModule();
    }
    ModuleName const name(pszName);
    if (name.pSystem)
    {
        return AsModule(*name.pSystem);
    }
    auto const isNamed = [&](std::string const & strPath, std::u16string_view file)
    {
        if (name.IsBare())
        {
            return IsSameName(LastComponentOf(FromHost(strPath)), file);
        }
        std::string const strFull = ToHost(std::u16string(name.folder).append(file));
        return !strFull.empty() && IsSameFile(strFull, strPath);
    };
    HMODULE hFound = nullptr;
    for (LoadedModule const & module : WithModules([](auto & modules) { return modules; }))
    {
        if (!hFound &&
            std::ranges::any_of(name.files, [&](auto const & file) { return isNamed(module.strPath, file); }))
        {
            hFound = module.hModule;
        }
    }
    if (!hFound && isNamed(GetExecutablePath(), name.component))
    {
        hFound = ExecutableModule();
    }
    if (!hFound)
    {
        SetLastError(ERROR_MOD_NOT_FOUND);
    }
    return hFound;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<HMODULE>(nullptr);
}

DWORD GetModuleFileNameW(HMODULE hModule, LPWSTR pszBuffer, DWORD nChars)
try
{
    std::string const strPath = !hModule || hModule == ExecutableModule()
                                    ? GetExecutablePath()
                                    : WithModules(
                                          [&](std::vector<LoadedModule> & modules)
                                          {
                                              auto const it =
                                                  std::ranges::find(modules, hModule, &LoadedModule::hModule);
                                              return it == modules.end() ? std::string() : it->strPath;
                                          });
    if (strPath.empty())
    {
        return Fail(ERROR_MOD_NOT_FOUND, 0);
    }
    if (!pszBuffer || nChars == 0)
    {
        return Fail(pszBuffer ? ERROR_INSUFFICIENT_BUFFER : ERROR_INVALID_PARAMETER, 0);
    }
    std::u16string const strModule = FromHost(strPath);
    std::size_t const nCopied = std::min<std::size_t>(strModule.size(), nChars - 1);
    std::copy_n(strModule.data(), nCopied, pszBuffer);
    pszBuffer[nCopied] = 0;
    return nCopied == strModule.size() ? static_cast<DWORD>(nCopied) : Fail(ERROR_INSUFFICIENT_BUFFER, nChars);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(0);
}

HRSRC FindResourceExW(HMODULE hModule, LPCWSTR pszType, LPCWSTR pszName, WORD)
try
{
    if (!pszType || !pszName)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::u16string const strType = ResourceNameOf(pszType);
    std::u16string const strName = ResourceNameOf(pszName);
    LONG nError = ERROR_RESOURCE_DATA_NOT_FOUND;
    Resource const * pFound = nullptr;
    ResourceTables::ForEach(hModule ? hModule : ExecutableModule(),
                            [&](Resource const & resource)
                            {
                                bool const bType = IsSameName(resource.pszType, strType);
                                if (bType && !pFound && IsSameName(resource.pszName, strName))
                                {
                                    pFound = &resource;
                                }
                                if (nError != ERROR_RESOURCE_NAME_NOT_FOUND)
                                {
                                    nError = bType ? ERROR_RESOURCE_NAME_NOT_FOUND : ERROR_RESOURCE_TYPE_NOT_FOUND;
                                }
                            });
    if (!pFound)
    {
        SetLastError(static_cast<DWORD>(nError));
    }
    return reinterpret_cast<HRSRC>(const_cast<Resource *>(pFound));
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<HRSRC>(nullptr);
}

HRSRC FindResourceW(HMODULE hModule, LPCWSTR pszName, LPCWSTR pszType)
{
    return FindResourceExW(hModule, pszType, pszName, 0);
}

HGLOBAL LoadResource(HMODULE, HRSRC hResource)
{
    auto const * const pResource = reinterpret_cast<Resource const *>(hResource);
    if (!pResource)
    {
        SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
        return nullptr;
    }
    return const_cast<unsigned char *>(pResource->pBegin);
}

LPVOID LockResource(HGLOBAL hData)
{
    return hData;
}

DWORD SizeofResource(HMODULE, HRSRC hResource)
{
    auto const * const pResource = reinterpret_cast<Resource const *>(hResource);
    return pResource ? static_cast<DWORD>(pResource->pEnd - pResource->pBegin) : Fail(ERROR_RESOURCE_NAME_NOT_FOUND, 0);
}
