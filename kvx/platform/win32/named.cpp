#include "kvx/platform/win32/named.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/runtime_dir.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/termination.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <string_view>

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

enum SlotWord : std::uint32_t
{
    SLOT_FREE,
    SLOT_WAITING,
    SLOT_GRANTED,
    SLOT_GRANTED_ABANDONED,
    SLOT_WATCHING, ///< in a wait for all: takes nothing unless all can be taken
    SLOT_POKED,    ///< a watcher has to look again
    SLOT_OWNER,
};

/// A thread's part in a shared object. While the thread uses the slot it holds the robust mutex, so that any process
/// can tell whether the thread is still alive.
struct alignas(64) SharedSlot
{
    pthread_mutex_t alive;
    std::uint64_t nTicket;
    FutexWord word;
};

constexpr std::uint64_t STATE_MAGIC = 0x314A424F58564BULL << 8 | sizeof(pthread_mutex_t);
constexpr Deadline DEATH_POLL_NS = 100'000'000;
constexpr char const * NAMES_LOCK = "names.lock";

void InitMutex(pthread_mutex_t & mutex) noexcept
{
    pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    ::pthread_mutex_init(&mutex, &attributes);
    ::pthread_mutexattr_destroy(&attributes);
}

/// False if a living thread holds it.
bool TryLockRobust(pthread_mutex_t & mutex) noexcept
{
    int const nResult = ::pthread_mutex_trylock(&mutex);
    if (nResult == EOWNERDEAD)
    {
        ::pthread_mutex_consistent(&mutex);
    }
    return nResult == 0 || nResult == EOWNERDEAD;
}

} // namespace

/// What lies in the mapping. All under the lock, but for the words, on which threads sleep.
struct SharedState
{
    std::uint64_t nMagic;
    WaitType type;
    bool bSignalled;
    bool bAbandoned;
    std::int32_t nOwner; ///< slot of the mutex's owner, -1 for none
    std::int32_t nSlots; ///< slots that were ever used
    std::uint64_t nNextTicket;
    std::uint32_t nNameLength;
    char16_t name[MAX_PATH + 1];
    pthread_mutex_t lock;
    SharedSlot slots[NamedObject::MAX_SLOTS];
};

namespace
{

class NamedGuard
{
public:
    explicit NamedGuard(NamedObject & object) noexcept : m_object(object) { m_object.Lock(); }
    ~NamedGuard() { m_object.Unlock(); }
    NamedGuard(NamedGuard const &) = delete;
    NamedGuard & operator=(NamedGuard const &) = delete;

private:
    NamedObject & m_object;
};

NamedOwnership * FindOwnership(ThreadData const & thread, NamedObject::Identity const & identity) noexcept
{
    std::span const owned(thread.pNamedOwned, thread.nNamedOwned);
    auto const found = std::ranges::find(
        owned, identity, [](NamedOwnership const & ownership) { return ownership.pObject->GetIdentity(); });
    return found == owned.end() ? nullptr : &*found;
}

bool ReserveOwnership(ThreadData & thread, std::size_t nMore) noexcept
{
    std::size_t const nNeeded = thread.nNamedOwned + nMore;
    if (nNeeded <= thread.nNamedCapacity)
    {
        return true;
    }
    auto * const pNew = new (std::nothrow) NamedOwnership[nNeeded];
    if (!pNew)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    std::copy_n(thread.pNamedOwned, thread.nNamedOwned, pNew);
    delete[] thread.pNamedOwned;
    thread.pNamedOwned = pNew;
    thread.nNamedCapacity = static_cast<std::uint32_t>(nNeeded);
    return true;
}

} // namespace

NamedObject::NamedObject(WaitType type, std::u16string strKey, std::string strFile, UniqueFd file, SharedState * pState,
                         Identity identity) noexcept
    : KernelObject(*GetRow(type).namedKind), m_type(type), m_file(std::move(file)), m_pState(pState),
      m_identity(identity), m_strKey(std::move(strKey)), m_strFile(std::move(strFile)), m_nProcess(::getpid())
{
}

NamedObject::~NamedObject()
{
    ::munmap(m_pState, sizeof(SharedState));
}

void NamedObject::Lock() noexcept
{
    if (::pthread_mutex_lock(&m_pState->lock) == EOWNERDEAD)
    {
        ::pthread_mutex_consistent(&m_pState->lock);
    }
}

void NamedObject::Unlock() noexcept
{
    ::pthread_mutex_unlock(&m_pState->lock);
}

bool NamedObject::IsAvailable(ThreadData const & thread) const noexcept
{
    return m_type == WaitType::Mutex ? m_pState->nOwner < 0 || FindOwnership(thread, m_identity) : m_pState->bSignalled;
}

bool NamedObject::IsDead(int nSlot) noexcept
{
    SharedSlot & slot = m_pState->slots[nSlot];
    if (!TryLockRobust(slot.alive))
    {
        return false;
    }
    slot.word.store(SLOT_FREE, std::memory_order_relaxed);
    ::pthread_mutex_unlock(&slot.alive);
    return true;
}

void NamedObject::FreeFromDead() noexcept
{
    if (m_pState->nOwner < 0 || !IsDead(m_pState->nOwner))
    {
        return;
    }
    m_pState->nOwner = -1;
    m_pState->bAbandoned = true;
}

int NamedObject::TakeSlot(std::uint32_t nWord) noexcept
{
    std::span const slots(m_pState->slots, static_cast<std::size_t>(m_pState->nSlots));
    auto const isFree = [](SharedSlot & slot) { return slot.word.load(std::memory_order_relaxed) == SLOT_FREE; };
    auto nSlot = static_cast<int>(std::ranges::find_if(slots, isFree) - slots.begin());
    if (nSlot == static_cast<int>(MAX_SLOTS))
    {
        for (nSlot = 0; nSlot < static_cast<int>(MAX_SLOTS) && (nSlot == m_pState->nOwner || !IsDead(nSlot));)
        {
            ++nSlot;
        }
        if (nSlot == static_cast<int>(MAX_SLOTS))
        {
            SetLastError(ERROR_NO_SYSTEM_RESOURCES);
            return -1;
        }
    }
    SharedSlot & slot = m_pState->slots[nSlot];
    if (nSlot == m_pState->nSlots)
    {
        InitMutex(slot.alive);
        m_pState->nSlots = nSlot + 1;
    }
    TryLockRobust(slot.alive);
    slot.nTicket = m_pState->nNextTicket++;
    slot.word.store(nWord, std::memory_order_relaxed);
    return nSlot;
}

void NamedObject::FreeSlot(int nSlot) noexcept
{
    SharedSlot & slot = m_pState->slots[nSlot];
    slot.word.store(SLOT_FREE, std::memory_order_relaxed);
    ::pthread_mutex_unlock(&slot.alive);
}

FutexWord & NamedObject::GetWord(int nSlot) noexcept
{
    return m_pState->slots[nSlot].word;
}

void NamedObject::AddOwnership(ThreadData & thread, int nSlot) noexcept
{
    AddRef();
    thread.pNamedOwned[thread.nNamedOwned++] = {this, nSlot, 1};
}

int NamedObject::Take(ThreadData & thread, int nSlot) noexcept
{
    if (NamedOwnership * const pOwnership = FindOwnership(thread, m_identity))
    {
        ++pOwnership->nRecursion;
    }
    else if (m_type == WaitType::Mutex)
    {
        if (nSlot < 0 && (nSlot = TakeSlot(SLOT_OWNER)) < 0)
        {
            return -1;
        }
        GetWord(nSlot).store(SLOT_OWNER, std::memory_order_relaxed);
        m_pState->nOwner = nSlot;
        AddOwnership(thread, nSlot);
        return std::exchange(m_pState->bAbandoned, false);
    }
    else if (GetRow(m_type).rule == WaitRule::Consumed)
    {
        m_pState->bSignalled = false;
    }
    if (nSlot >= 0)
    {
        FreeSlot(nSlot);
    }
    return 0;
}

std::optional<int> NamedObject::EndWait(ThreadData & thread, int nSlot) noexcept
{
    std::uint32_t const nWord = GetWord(nSlot).load(std::memory_order_acquire);
    bool const bSatisfied = nWord == SLOT_GRANTED || nWord == SLOT_GRANTED_ABANDONED;
    if (bSatisfied && m_type == WaitType::Mutex)
    {
        GetWord(nSlot).store(SLOT_OWNER, std::memory_order_relaxed);
        AddOwnership(thread, nSlot);
    }
    else
    {
        FreeSlot(nSlot);
    }
    return bSatisfied ? std::optional<int>(nWord == SLOT_GRANTED_ABANDONED) : std::nullopt;
}

int NamedObject::FindOldest() noexcept
{
    for (;;)
    {
        int nOldest = -1;
        for (int nSlot = 0; nSlot < m_pState->nSlots; ++nSlot)
        {
            if (GetWord(nSlot).load(std::memory_order_relaxed) == SLOT_WAITING &&
                (nOldest < 0 || m_pState->slots[nSlot].nTicket < m_pState->slots[nOldest].nTicket))
            {
                nOldest = nSlot;
            }
        }
        if (nOldest < 0 || !IsDead(nOldest))
        {
            return nOldest;
        }
    }
}

NamedObject::SlotSet NamedObject::HandOver() noexcept
{
    SlotSet slots;
    WaitRule const rule = GetRow(m_type).rule;
    auto const isFree = [&] { return rule == WaitRule::Owned ? m_pState->nOwner < 0 : m_pState->bSignalled; };
    while (isFree())
    {
        int const nSlot = FindOldest();
        if (nSlot < 0)
        {
            break;
        }
        bool const bAbandoned = rule == WaitRule::Owned && std::exchange(m_pState->bAbandoned, false);
        if (rule == WaitRule::Owned)
        {
            m_pState->nOwner = nSlot;
        }
        else if (rule == WaitRule::Consumed)
        {
            m_pState->bSignalled = false;
        }
        GetWord(nSlot).store(bAbandoned ? SLOT_GRANTED_ABANDONED : SLOT_GRANTED, std::memory_order_release);
        slots.set(static_cast<std::size_t>(nSlot));
    }
    for (int nSlot = 0; isFree() && nSlot < m_pState->nSlots; ++nSlot)
    {
        std::uint32_t nWord = SLOT_WATCHING;
        if (GetWord(nSlot).compare_exchange_strong(nWord, SLOT_POKED, std::memory_order_release))
        {
            slots.set(static_cast<std::size_t>(nSlot));
        }
    }
    return slots;
}

void NamedObject::Wake(SlotSet const & slots) noexcept
{
    for (std::size_t nSlot = 0; slots.any() && nSlot < MAX_SLOTS; ++nSlot)
    {
        if (slots.test(nSlot))
        {
            FutexWake(m_pState->slots[nSlot].word, 1, FutexScope::Shared);
        }
    }
}

void NamedObject::Set() noexcept
{
    SlotSet slots;
    {
        NamedGuard const guard(*this);
        m_pState->bSignalled = true;
        slots = HandOver();
    }
    Wake(slots);
}

void NamedObject::Reset() noexcept
{
    NamedGuard const guard(*this);
    m_pState->bSignalled = false;
}

bool NamedObject::ReleaseOwnership(ThreadData & thread, bool bAbandoned) noexcept
{
    NamedOwnership * const pOwnership = FindOwnership(thread, m_identity);
    if (!pOwnership)
    {
        return false;
    }
    if (--pOwnership->nRecursion > 0)
    {
        return true;
    }
    // The object that took the ownership has the mapping in which the slot's robust mutex is locked.
    NamedOwnership const ownership = *pOwnership;
    *pOwnership = thread.pNamedOwned[--thread.nNamedOwned];
    SlotSet slots;
    {
        NamedGuard const guard(*ownership.pObject);
        ownership.pObject->FreeSlot(ownership.nSlot);
        SharedState & state = *ownership.pObject->m_pState;
        state.nOwner = -1;
        state.bAbandoned = bAbandoned;
        slots = ownership.pObject->HandOver();
    }
    ownership.pObject->Wake(slots);
    ownership.pObject->Release();
    return true;
}

void AbandonNamed(ThreadData & thread) noexcept
{
    while (thread.nNamedOwned > 0)
    {
        NamedOwnership & ownership = thread.pNamedOwned[thread.nNamedOwned - 1];
        ownership.nRecursion = 1;
        ownership.pObject->ReleaseOwnership(thread, true);
    }
}

// ---- names -----------------------------------------------------------------------------------------------------

namespace
{

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
    std::uint64_t nHash = 0xCBF29CE484222325;
    for (char16_t const cUnit : strKey)
    {
        for (unsigned const nByte : {unsigned(cUnit) & 0xFF, unsigned(cUnit) >> 8})
        {
            nHash = (nHash ^ nByte) * 0x100000001B3;
        }
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
        strFile += "0123456789abcdef"[nHash >> nShift & 0xF];
    }
    return strFile;
}

/// Holds all processes off from names while it lives.
UniqueFd LockNames(UniqueFd const & folder) noexcept
{
    UniqueFd lock(::openat(folder.Get(), NAMES_LOCK, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    while (lock && ::flock(lock.Get(), LOCK_EX) != 0)
    {
        if (errno != EINTR)
        {
            lock = UniqueFd();
        }
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
    std::string strFile = MakeFileName(strKey);
    std::optional<OpenedName> opened = OpenName(type, strKey, strFile, bSignalled, bMayCreate);
    if (!opened)
    {
        return {};
    }
    bExisted = opened->bExisted;
    auto * const pObject = new (std::nothrow) NamedObject(opened->pState->type, strKey, std::move(strFile),
                                                          std::move(opened->file), opened->pState, opened->identity);
    if (!pObject)
    {
        ::munmap(opened->pState, sizeof(SharedState));
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return {};
    }
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

// ---- waits -----------------------------------------------------------------------------------------------------

namespace
{

NamedObject * AsNamed(WaitNode const & node) noexcept
{
    return IsNamedKind(node.pObject->GetKind()) ? static_cast<NamedObject *>(node.pObject) : nullptr;
}

Waitable & AsLocal(WaitNode const & node) noexcept
{
    return *static_cast<Waitable *>(node.pObject);
}

bool IsExpired(Deadline deadline) noexcept
{
    return deadline != NEVER && GetMonotonicTime() >= deadline;
}

/// A wait that holds named objects. No lock covers objects of several processes, so that two of them may satisfy one
/// wait at the same moment: the wait then keeps the first and gives the other back as it was.
class NamedWait
{
public:
    explicit NamedWait(ThreadData & thread) noexcept
        : m_thread(thread), m_waiter(thread.waiter), m_nodes(m_waiter.pNodes, m_waiter.nNodes)
    {
        m_bHasMutex = std::ranges::any_of(m_nodes, [](WaitNode const & node)
                                          { return node.pObject->GetKind() == Kind::NamedMutex; });
        m_got.fill(NOTHING);
    }

    DWORD RunAny(Deadline deadline) noexcept
    {
        {
            UninterruptedScope const scope;
            bool const bQueue = !IsExpired(deadline);
            if (!ReserveOwnership(m_thread, m_nodes.size()))
            {
                return Finish(true);
            }
            for (WaitNode & node : m_nodes)
            {
                Step const step = AsNamed(node) ? TryNamed(node, bQueue) : TryLocal(node, bQueue);
                if (step != Step::Next)
                {
                    return Finish(step == Step::Failed);
                }
            }
            if (!bQueue)
            {
                return Finish(false);
            }
        }
        for (;;)
        {
            Sleep(deadline);
            UninterruptedScope const scope;
            if (IsSatisfied() || IsExpired(deadline))
            {
                return Finish(false);
            }
            PassOnFromDead();
        }
    }

    DWORD RunAll(Deadline deadline) noexcept
    {
        for (;;)
        {
            {
                UninterruptedScope const scope;
                if (!ReserveOwnership(m_thread, m_nodes.size()))
                {
                    return Finish(true);
                }
                DWORD dwResult = 0;
                switch (TryAll(dwResult))
                {
                case Step::Done:
                    Finish(false);
                    return dwResult;
                case Step::Failed:
                    return Finish(true);
                case Step::Next:
                    if (IsExpired(deadline))
                    {
                        return Finish(false);
                    }
                }
            }
            Sleep(deadline);
        }
    }

private:
    enum class Step
    {
        Next,
        Done,
        Failed
    };
    enum : std::int8_t
    {
        NOTHING = -1,
        GOT = 0,
        GOT_ABANDONED = 1
    };

    Step TryNamed(WaitNode & node, bool bQueue) noexcept
    {
        NamedObject & object = *AsNamed(node);
        NamedGuard const guard(object);
        object.FreeFromDead();
        if (object.IsAvailable(m_thread))
        {
            int const nTaken = object.Take(m_thread, -1);
            m_got[node.nIndex] = static_cast<std::int8_t>(nTaken);
            return nTaken < 0 ? Step::Failed : Step::Done;
        }
        if (bQueue)
        {
            node.nSlot = static_cast<std::int16_t>(object.TakeSlot(SLOT_WAITING));
            if (node.nSlot < 0)
            {
                return Step::Failed;
            }
        }
        return Step::Next;
    }

    Step TryLocal(WaitNode & node, bool bQueue) noexcept
    {
        FutexGuard const guard(g_waitLock);
        if (m_waiter.word.load(std::memory_order_relaxed) == Waiter::DONE)
        {
            return Step::Done;
        }
        Waitable & object = AsLocal(node);
        if (object.IsAvailable(m_thread))
        {
            m_got[node.nIndex] = object.Take(m_thread) ? GOT_ABANDONED : GOT;
            return Step::Done;
        }
        if (bQueue)
        {
            object.Enqueue(node);
        }
        return Step::Next;
    }

    /// Takes all if all are available, else sees to it that the thread is told of changes.
    Step TryAll(DWORD & dwResult) noexcept
    {
        // Every process locks named objects in the order of their files, and the wait lock after them.
        std::array<NamedObject *, MAXIMUM_WAIT_OBJECTS> named{};
        std::size_t nNamed = 0;
        for (WaitNode const & node : m_nodes)
        {
            if (NamedObject * const pObject = AsNamed(node))
            {
                named[nNamed++] = pObject;
            }
        }
        auto const objects = std::span(named).first(nNamed);
        std::ranges::sort(objects, {}, &NamedObject::GetIdentity);
        auto const isSame = [](NamedObject const * pOne, NamedObject const * pOther)
        { return pOne->GetIdentity() == pOther->GetIdentity(); };
        auto const distinct = std::span(objects.begin(), std::unique(objects.begin(), objects.end(), isSame));
        for (NamedObject * const pObject : distinct)
        {
            pObject->Lock();
        }
        g_waitLock.Lock();
        Step step = PrepareAll();
        if (step == Step::Next && std::ranges::all_of(m_nodes, [&](WaitNode & node) { return IsAvailable(node); }))
        {
            step = Step::Done;
            bool bAbandoned = false;
            for (WaitNode & node : m_nodes)
            {
                if (NamedObject * const pObject = AsNamed(node))
                {
                    bAbandoned |= pObject->Take(m_thread, std::exchange(node.nSlot, std::int16_t(-1))) > 0;
                }
                else
                {
                    bAbandoned |= AsLocal(node).Take(m_thread);
                }
            }
            dwResult = bAbandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0;
        }
        g_waitLock.Unlock();
        for (NamedObject * const pObject : distinct)
        {
            pObject->Unlock();
        }
        return step;
    }

    Step PrepareAll() noexcept
    {
        m_waiter.mode = Waiter::Mode::Watch;
        m_waiter.word.store(Waiter::PENDING, std::memory_order_relaxed);
        for (WaitNode & node : m_nodes)
        {
            NamedObject * const pObject = AsNamed(node);
            if (!pObject)
            {
                if (!node.bQueued)
                {
                    AsLocal(node).Enqueue(node);
                }
                continue;
            }
            pObject->FreeFromDead();
            if (node.nSlot >= 0)
            {
                pObject->GetWord(node.nSlot).store(SLOT_WATCHING, std::memory_order_relaxed);
            }
            else if ((node.nSlot = static_cast<std::int16_t>(pObject->TakeSlot(SLOT_WATCHING))) < 0)
            {
                return Step::Failed;
            }
        }
        return Step::Next;
    }

    bool IsAvailable(WaitNode const & node) const noexcept
    {
        NamedObject * const pObject = AsNamed(node);
        return pObject ? pObject->IsAvailable(m_thread) : AsLocal(node).IsAvailable(m_thread);
    }

    void Sleep(Deadline deadline) noexcept
    {
        std::array<FutexTarget, MAXIMUM_WAIT_OBJECTS + 1> targets;
        std::size_t nTargets = 0;
        bool const bLocal = std::ranges::any_of(m_nodes, [](WaitNode const & node) { return !AsNamed(node); });
        if (bLocal)
        {
            std::uint32_t nWord = Waiter::PENDING;
            if (!m_waiter.word.compare_exchange_strong(nWord, Waiter::ASLEEP, std::memory_order_acq_rel) &&
                nWord != Waiter::ASLEEP)
            {
                return;
            }
            targets[nTargets++] = {&m_waiter.word, Waiter::ASLEEP, FutexScope::Process};
        }
        for (WaitNode const & node : m_nodes)
        {
            if (NamedObject * const pObject = AsNamed(node))
            {
                FutexWord & word = pObject->GetWord(node.nSlot);
                std::uint32_t const nWord = word.load(std::memory_order_acquire);
                if (nWord != SLOT_WAITING && nWord != SLOT_WATCHING)
                {
                    return;
                }
                targets[nTargets++] = {&word, nWord, FutexScope::Shared};
            }
        }
        Deadline const wake = m_bHasMutex ? std::min(deadline, GetMonotonicTime() + DEATH_POLL_NS) : deadline;
        FutexWaitAny(std::span(targets).first(nTargets), wake);
    }

    bool IsSatisfied() const noexcept
    {
        return m_waiter.word.load(std::memory_order_acquire) == Waiter::DONE ||
               std::ranges::any_of(m_nodes,
                                   [](WaitNode const & node)
                                   {
                                       NamedObject * const pObject = AsNamed(node);
                                       return pObject && pObject->GetWord(node.nSlot).load() != SLOT_WAITING;
                                   });
    }

    /// A dead owner wakes nobody: those who wait look after it now and then, and pass the mutex on.
    void PassOnFromDead() noexcept
    {
        for (WaitNode const & node : m_nodes)
        {
            if (NamedObject * const pObject = AsNamed(node); pObject && pObject->GetType() == WaitType::Mutex)
            {
                NamedObject::SlotSet slots;
                {
                    NamedGuard const guard(*pObject);
                    pObject->FreeFromDead();
                    slots = pObject->HandOver();
                }
                pObject->Wake(slots);
            }
        }
    }

    /// Leaves all queues, keeps the lowest index that was satisfied, and gives back what else was.
    DWORD Finish(bool bFailed) noexcept
    {
        UninterruptedScope const scope;
        {
            FutexGuard const guard(g_waitLock);
            DequeueAll(m_waiter);
            if (m_waiter.word.load(std::memory_order_relaxed) == Waiter::DONE)
            {
                bool const bAbandoned = m_waiter.dwResult >= WAIT_ABANDONED_0;
                DWORD const dwIndex = m_waiter.dwResult - (bAbandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0);
                m_got[dwIndex] = bAbandoned ? GOT_ABANDONED : GOT;
            }
            m_waiter.word.store(Waiter::IDLE, std::memory_order_relaxed);
        }
        for (WaitNode & node : m_nodes)
        {
            if (node.nSlot >= 0)
            {
                NamedObject & object = *AsNamed(node);
                NamedGuard const guard(object);
                if (std::optional<int> const got = object.EndWait(m_thread, node.nSlot))
                {
                    m_got[node.nIndex] = static_cast<std::int8_t>(*got);
                }
                node.nSlot = -1;
            }
        }
        DWORD dwResult = bFailed ? WAIT_FAILED : WAIT_TIMEOUT;
        for (WaitNode const & node : m_nodes)
        {
            bool const bAbandoned = m_got[node.nIndex] == GOT_ABANDONED;
            if (m_got[node.nIndex] == NOTHING)
            {
                continue;
            }
            if (dwResult == WAIT_TIMEOUT)
            {
                dwResult = (bAbandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0) + node.nIndex;
            }
            else
            {
                GiveBack(node, bAbandoned);
            }
        }
        while (m_waiter.nNodes > 0)
        {
            m_waiter.pNodes[--m_waiter.nNodes].pObject->Release();
        }
        m_waiter.bNamed = false;
        return dwResult;
    }

    void GiveBack(WaitNode const & node, bool bAbandoned) noexcept
    {
        if (NamedObject * const pObject = AsNamed(node))
        {
            if (pObject->GetType() == WaitType::Mutex)
            {
                pObject->ReleaseOwnership(m_thread, bAbandoned);
            }
            else if (GetRow(pObject->GetType()).rule == WaitRule::Consumed)
            {
                pObject->Set();
            }
            return;
        }
        WakeList wakes;
        FutexGuard const guard(g_waitLock);
        AsLocal(node).GiveBack(bAbandoned, wakes);
    }

    ThreadData & m_thread;
    Waiter & m_waiter;
    std::span<WaitNode> const m_nodes;
    bool m_bHasMutex = false;
    std::array<std::int8_t, MAXIMUM_WAIT_OBJECTS> m_got;
};

} // namespace

void BeginNamedWait(ThreadData & thread, std::span<KernelObject * const> objects) noexcept
{
    Waiter & waiter = thread.waiter;
    for (DWORD nIndex = 0; nIndex < objects.size(); ++nIndex)
    {
        waiter.pNodes[nIndex] = {objects[nIndex], nullptr, nullptr, &thread, nIndex, false, -1};
    }
    waiter.nNodes = static_cast<DWORD>(objects.size());
    waiter.mode = Waiter::Mode::Any;
    waiter.bNamed = true;
    waiter.word.store(Waiter::PENDING, std::memory_order_relaxed);
}

bool IsNamedWait(ThreadData const & thread) noexcept
{
    return thread.waiter.bNamed;
}

DWORD RunNamedWait(ThreadData & thread, bool bAll, Deadline deadline) noexcept
{
    NamedWait wait(thread);
    return bAll ? wait.RunAll(deadline) : wait.RunAny(deadline);
}

} // namespace kvx::win32
