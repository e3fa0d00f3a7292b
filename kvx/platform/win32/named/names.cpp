/// How a name leads to an object: the files in the private folder, and what this process has open of them.

#include "kvx/platform/win32/named/names.h"

#include "kvx/platform/Fnv.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/named/named_object.h"
#include "kvx/platform/win32/named/shared_state.h"
#include "kvx/platform/win32/retry.h"
#include "kvx/platform/win32/runtime_dir.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

constexpr char const * NAMES_LOCK = "names.lock";

/// The named objects that this process has open, by key. Small numbers: a list will do.
class Registry
{
public:
    FutexMutex m_mutex;
    NamedObject * Find(std::u16string const & strKey) const noexcept
    {
        for (std::size_t nIndex = 0; nIndex < m_nObjects; ++nIndex)
        {
            if (m_pObjects[nIndex]->GetKey() == strKey)
            {
                return m_pObjects[nIndex];
            }
        }
        return nullptr;
    }

    bool Reserve() noexcept
    {
        if (m_nObjects < m_nCapacity)
        {
            return true;
        }
        std::size_t const nCapacity = std::max<std::size_t>(16, m_nCapacity * 2);
        auto ** const pObjects = new (std::nothrow) NamedObject *[nCapacity];
        if (!pObjects)
        {
            return false;
        }
        std::copy_n(m_pObjects, m_nObjects, pObjects);
        delete[] m_pObjects;
        m_pObjects = pObjects;
        m_nCapacity = nCapacity;
        return true;
    }

    void Add(NamedObject & object) noexcept { m_pObjects[m_nObjects++] = &object; }

    void Remove(NamedObject & object) noexcept
    {
        NamedObject ** const pEnd = m_pObjects + m_nObjects;
        NamedObject ** const pFound = std::find(m_pObjects, pEnd, &object);
        *pFound = m_pObjects[--m_nObjects];
    }

private:
    NamedObject ** m_pObjects = nullptr;
    std::size_t m_nObjects = 0;
    std::size_t m_nCapacity = 0;
};

constinit Registry g_registry;

/// The namespace's letter and the rest of the name, or nothing with last error set.
std::optional<std::u16string> MakeKey(std::u16string_view strName)
{
    auto const fail = [](LONG nError)
    {
        SetLastError(static_cast<DWORD>(nError));
        return std::nullopt;
    };
    if (strName.size() > static_cast<std::size_t>(MAX_PATH))
    {
        return fail(ERROR_FILENAME_EXCED_RANGE);
    }
    char16_t cNamespace = u'l';
    for (std::u16string_view const strPrefix : {u"Global\\", u"Local\\"})
    {
        if (strName.starts_with(strPrefix))
        {
            cNamespace = strPrefix[0] == u'G' ? u'g' : u'l';
            strName.remove_prefix(strPrefix.size());
            break;
        }
    }
    if (strName.empty())
    {
        return fail(ERROR_BAD_PATHNAME);
    }
    if (strName.find(u'\\') != strName.npos)
    {
        return fail(ERROR_PATH_NOT_FOUND);
    }
    return cNamespace + std::u16string(strName);
}

/// A file name that can't lead out of the folder: a readable start, and a hash of the whole.
std::string MakeFileName(std::u16string_view strKey)
{
    constexpr std::size_t READABLE = 48;
    Fnv hash;
    for (char16_t const cUnit : strKey)
    {
        hash.Add(cUnit & 0xFF);
        hash.Add(cUnit >> 8);
    }
    std::string strFile = "name.";
    for (char16_t const cUnit : strKey.substr(0, READABLE))
    {
        bool const bPlain = (cUnit >= u'0' && cUnit <= u'9') || (cUnit >= u'A' && cUnit <= u'Z') ||
                            (cUnit >= u'a' && cUnit <= u'z') || cUnit == u'-';
        strFile += bPlain ? static_cast<char>(cUnit) : '_';
    }
    strFile += '.';
    for (int nShift = 60; nShift >= 0; nShift -= 4)
    {
        strFile += "0123456789abcdef"[hash.Get() >> nShift & 0xF];
    }
    return strFile;
}

/// Holds all processes off from names while it lives.
UniqueFd LockNames(UniqueFd const & folder) noexcept
{
    UniqueFd lock(::openat(folder.Get(), NAMES_LOCK, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (lock && Retry([&] { return ::flock(lock.Get(), LOCK_EX); }) != 0)
    {
        lock = UniqueFd();
    }
    if (!lock)
    {
        SetLastErrorFromErrno();
    }
    return lock;
}

struct OpenedName
{
    UniqueFd file;
    SharedState * pState = nullptr;
    NamedObject::Identity identity{};
    bool bExisted = false;
};

void InitState(SharedState & state, WaitType type, std::u16string_view strKey, bool bSignalled) noexcept
{
    state.nMagic = STATE_MAGIC;
    state.type = type;
    state.bSignalled = bSignalled;
    state.nOwner = -1;
    state.nNameLength = static_cast<std::uint32_t>(strKey.size());
    std::ranges::copy(strKey, state.name);
    InitMutex(state.lock);
}

/// The file of a living name, or a new one. Each process that has a name open holds a shared lock on its file: a file
/// without any such lock was left by processes that are gone, and isn't used again, for a thread of a process that has
/// closed the name may still own the mutex in it.
UniqueFd OpenFile(UniqueFd const & folder, char const * pFile, bool bMayCreate, bool & bExisted) noexcept
{
    UniqueFd file(::openat(folder.Get(), pFile, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (file && ::flock(file.Get(), LOCK_EX | LOCK_NB) == 0)
    {
        ::unlinkat(folder.Get(), pFile, 0);
        file.Reset();
        errno = ENOENT;
    }
    bExisted = static_cast<bool>(file);
    if (!file && errno == ENOENT && bMayCreate)
    {
        file = UniqueFd(
            ::openat(folder.Get(), pFile, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    }
    // Room on the disk is taken now: a full disk must not kill whoever touches the mapping later.
    int nError = file ? 0 : errno;
    if (file && ::flock(file.Get(), LOCK_SH) != 0)
    {
        nError = errno;
    }
    else if (file && !bExisted)
    {
        nError = ::posix_fallocate(file.Get(), 0, sizeof(SharedState));
    }
    if (nError == 0)
    {
        return file;
    }
    if (file && !bExisted)
    {
        ::unlinkat(folder.Get(), pFile, 0);
    }
    errno = nError;
    return {};
}

std::optional<OpenedName> OpenName(WaitType type, std::u16string_view strKey, std::string const & strFile,
                                   bool bSignalled, bool bMayCreate)
{
    UniqueFd const folder = OpenRuntimeFolder();
    UniqueFd const lock = folder ? LockNames(folder) : UniqueFd();
    if (!lock)
    {
        return std::nullopt;
    }
    OpenedName result;
    result.file = OpenFile(folder, strFile.c_str(), bMayCreate, result.bExisted);
    struct stat info
    {
    };
    void * pMemory = MAP_FAILED;
    if (result.file && ::fstat(result.file.Get(), &info) == 0)
    {
        result.identity = {info.st_dev, info.st_ino};
        if (!S_ISREG(info.st_mode) || info.st_size != static_cast<off_t>(sizeof(SharedState)))
        {
            SetLastError(ERROR_INVALID_DATA);
            return std::nullopt;
        }
        pMemory = ::mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE, MAP_SHARED, result.file.Get(), 0);
    }
    if (pMemory == MAP_FAILED)
    {
        SetLastErrorFromErrno();
        if (result.file && !result.bExisted)
        {
            ::unlinkat(folder.Get(), strFile.c_str(), 0);
        }
        return std::nullopt;
    }
    result.pState = static_cast<SharedState *>(pMemory);
    if (!result.bExisted)
    {
        InitState(*result.pState, type, strKey, bSignalled);
        return result;
    }
    SharedState const & state = *result.pState;
    bool const bWhole = state.nMagic == STATE_MAGIC && state.type <= WaitType::Mutex && state.nNameLength <= MAX_PATH &&
                        std::u16string_view(state.name, state.nNameLength) == strKey;
    if (bWhole && GetRow(state.type).namedKind == GetRow(type).namedKind)
    {
        return result;
    }
    ::munmap(pMemory, sizeof(SharedState));
    SetLastError(bWhole ? ERROR_INVALID_HANDLE : ERROR_INVALID_DATA);
    return std::nullopt;
}

/// Under the registry's lock.
Ref<NamedObject> FindOrOpen(WaitType type, std::u16string const & strKey, bool bSignalled, bool bMayCreate,
                            bool & bExisted)
{
    if (NamedObject * const pFound = g_registry.Find(strKey))
    {
        bExisted = true;
        if (GetRow(pFound->GetType()).namedKind == GetRow(type).namedKind)
        {
            return Ref<NamedObject>(pFound);
        }
        SetLastError(ERROR_INVALID_HANDLE);
        return {};
    }
    if (!g_registry.Reserve())
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return {};
    }
    // Memory first: a name that has been made couldn't be taken back, for others may have found it.
    std::string strFile = MakeFileName(strKey);
    std::u16string strOwnKey(strKey);
    void * const pPlace = ::operator new(sizeof(NamedObject));
    std::optional<OpenedName> opened = OpenName(type, strKey, strFile, bSignalled, bMayCreate);
    if (!opened)
    {
        ::operator delete(pPlace);
        return {};
    }
    bExisted = opened->bExisted;
    auto * const pObject = new (pPlace) NamedObject(opened->pState->type, std::move(strOwnKey), std::move(strFile),
                                                    std::move(opened->file), opened->pState, opened->identity);
    g_registry.Add(*pObject);
    return Ref<NamedObject>(pObject);
}

} // namespace

void NamedObject::OnHandleClosed() noexcept
{
    FutexGuard const guard(g_registry.m_mutex);
    if (!m_bOpen || GetHandleCount() != 0)
    {
        return;
    }
    m_bOpen = false;
    g_registry.Remove(*this);
    // In a forked child the lock is the parent's as well, and the name with it.
    if (m_nProcess == ::getpid())
    {
        UniqueFd const folder = OpenRuntimeFolder();
        UniqueFd const lock = folder ? LockNames(folder) : UniqueFd();
        struct stat info
        {
        };
        if (lock && ::flock(m_file.Get(), LOCK_EX | LOCK_NB) == 0 &&
            ::fstatat(folder.Get(), m_strFile.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            Identity{info.st_dev, info.st_ino} == m_identity)
        {
            ::unlinkat(folder.Get(), m_strFile.c_str(), 0);
        }
        m_file = UniqueFd();
    }
    else
    {
        m_file = UniqueFd();
    }
}

HANDLE OpenNamedHandle(WaitType type, LPCWSTR pName, bool bInitial, bool bMayCreate) noexcept
try
{
    ThreadData * const pThread = GetThreadData();
    std::optional<std::u16string> const strKey = MakeKey(pName);
    if (!pThread || !strKey || !ReserveOwnership(*pThread, 1))
    {
        return nullptr;
    }
    Ref<NamedObject> object;
    HANDLE hObject = nullptr;
    bool bExisted = false;
    bool const bOwn = bInitial && type == WaitType::Mutex;
    {
        FutexGuard const guard(g_registry.m_mutex);
        object = FindOrOpen(type, *strKey, bInitial, bMayCreate, bExisted);
        if (!object)
        {
            return nullptr;
        }
        hObject = OpenHandle(object);
        if (hObject && bOwn && !bExisted)
        {
            NamedGuard const state(*object);
            object->Take(*pThread, -1);
        }
    }
    if (!hObject)
    {
        DWORD const dwError = GetLastError();
        object->OnHandleClosed();
        SetLastError(dwError);
        return nullptr;
    }
    SetLastError(bExisted && bMayCreate ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return hObject;
}
catch (std::bad_alloc const &)
{
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

} // namespace kvx::win32
