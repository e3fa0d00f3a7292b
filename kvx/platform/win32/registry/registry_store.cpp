#include "kvx/platform/win32/registry/registry_store.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/low_descriptors.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/retry.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

constexpr std::int64_t APPLICATION_ID = 0x4B565852; // "KVXR"
constexpr std::int64_t FORMAT_VERSION = 1;
constexpr int BUSY_MS = 5000; // programs other than ours may hold the file
constexpr char const * LOCK_SUFFIX = "-lock";

// `folded` is the upper-case name with the high byte of each unit first, so that its order is that of the names; `name`
// is the name as it was written, low bytes first. Numbers of keys are never used again: a handle knows its key by it.
constexpr char const * SCHEMA =
    "CREATE TABLE keys(id INTEGER PRIMARY KEY AUTOINCREMENT, parent INTEGER NOT NULL, folded BLOB NOT NULL,"
    " name BLOB NOT NULL, UNIQUE(parent, folded)) STRICT;"
    "CREATE TABLE vals(id INTEGER PRIMARY KEY, key INTEGER NOT NULL, folded BLOB NOT NULL, name BLOB NOT NULL,"
    " type INTEGER NOT NULL, data BLOB NOT NULL, UNIQUE(key, folded)) STRICT;"
    "CREATE INDEX vals_key ON vals(key);"
    "INSERT INTO sqlite_sequence(name, seq) VALUES('keys', 1000);"
    "PRAGMA application_id=0x4B565852;"
    "PRAGMA user_version=1";

constexpr std::array<char const *, static_cast<std::size_t>(Sql::COUNT)> SQL_TEXTS{
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "PRAGMA data_version",
    "SELECT id FROM keys WHERE parent=?1 AND folded=?2",
    "SELECT parent FROM keys WHERE id=?1",
    "SELECT 1 FROM keys WHERE id=?1",
    "INSERT INTO keys(parent, folded, name) VALUES(?1, ?2, ?3)",
    "SELECT 1 FROM keys WHERE parent=?1 LIMIT 1",
    "WITH RECURSIVE tree(id) AS (VALUES(?1) UNION SELECT keys.id FROM tree JOIN keys ON keys.parent=tree.id)"
    " SELECT id FROM tree",
    "DELETE FROM keys WHERE id=?1",
    "SELECT name FROM keys WHERE parent=?1 ORDER BY folded LIMIT ?2 OFFSET ?3",
    "SELECT count(*), max(length(folded)) FROM keys WHERE parent=?1",
    "SELECT type, length(data), CASE WHEN length(data)<=?3 THEN data END FROM vals WHERE key=?1 AND folded=?2",
    "SELECT type, data FROM vals WHERE id=?1",
    "INSERT INTO vals(key, folded, name, type, data) VALUES(?1, ?2, ?3, ?4, ?5)"
    " ON CONFLICT(key, folded) DO UPDATE SET type=excluded.type, data=excluded.data",
    "DELETE FROM vals WHERE key=?1 AND folded=?2",
    "DELETE FROM vals WHERE key=?1",
    "SELECT id, name, type, length(data), CASE WHEN length(data)<=?4 THEN data END FROM vals INDEXED BY vals_key"
    " WHERE key=?1 ORDER BY id LIMIT ?2 OFFSET ?3",
    "SELECT count(*), max(length(folded)), max(length(data)) FROM vals WHERE key=?1",
    "SELECT id, name, type, data FROM vals INDEXED BY vals_key WHERE key=?1 AND id>?2 ORDER BY id LIMIT ?3",
};

std::string Ascii(std::string_view text, bool bFolded)
{
    std::string strBytes;
    for (char const c : text)
    {
        char const cUnit = bFolded && c >= 'a' && c <= 'z' ? static_cast<char>(c - 0x20) : c;
        strBytes += bFolded ? '\0' : cUnit;
        strBytes += bFolded ? cUnit : '\0';
    }
    return strBytes;
}

std::string StorePath()
{
    char const * const pszPath = std::getenv("KVX_REGISTRY");
    if (!pszPath || !*pszPath)
    {
        std::string const strFolder = GetDataFolder();
        return strFolder.empty() ? strFolder : strFolder + "/registry.db";
    }
    if (*pszPath == '/')
    {
        return pszPath;
    }
    std::unique_ptr<char, decltype(&std::free)> const pszFolder(::getcwd(nullptr, 0), &std::free);
    if (!pszFolder)
    {
        SetLastErrorFromErrno();
        return {};
    }
    return std::string(pszFolder.get()) + '/' + pszPath;
}

LONG CurrentError() noexcept
{
    return static_cast<LONG>(ErrorFromErrno(errno));
}

} // namespace

StoreConnection::~StoreConnection()
{
    Close();
}

LONG StoreConnection::Open(std::string const & strUri, int nFlags)
{
    int nResult = ::sqlite3_open_v2(strUri.c_str(), &m_pDatabase, nFlags | SQLITE_OPEN_NOMUTEX, nullptr);
    if (nResult != SQLITE_OK)
    {
        LONG const nError = m_pDatabase ? GetError(nResult) : ERROR_NOT_ENOUGH_MEMORY;
        Close();
        return nError;
    }
    ::sqlite3_extended_result_codes(m_pDatabase, 1);
    ::sqlite3_busy_timeout(m_pDatabase, BUSY_MS);
    ::sqlite3_db_config(m_pDatabase, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    ::sqlite3_db_config(m_pDatabase, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    ::sqlite3_db_config(m_pDatabase, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    ::sqlite3_db_config(m_pDatabase, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    return 0;
}

void StoreConnection::Close() noexcept
{
    for (sqlite3_stmt *& pStatement : m_statements)
    {
        ::sqlite3_finalize(std::exchange(pStatement, nullptr));
    }
    ::sqlite3_close(std::exchange(m_pDatabase, nullptr));
}

LONG StoreConnection::Run(char const * pszSql)
{
    return GetError(::sqlite3_exec(m_pDatabase, pszSql, nullptr, nullptr, nullptr));
}

LONG StoreConnection::ReadNumber(char const * pszSql, std::int64_t & nResult)
{
    sqlite3_stmt * pStatement = nullptr;
    int nCode = ::sqlite3_prepare_v2(m_pDatabase, pszSql, -1, &pStatement, nullptr);
    if (nCode == SQLITE_OK)
    {
        nCode = ::sqlite3_step(pStatement);
        if (nCode == SQLITE_ROW)
        {
            nResult = ::sqlite3_column_int64(pStatement, 0);
        }
    }
    LONG const nError = nCode == SQLITE_ROW ? 0 : nCode == SQLITE_DONE ? ERROR_BADDB : GetError(nCode);
    ::sqlite3_finalize(pStatement);
    return nError;
}

LONG StoreConnection::PrepareAll()
{
    static_assert(static_cast<std::size_t>(Sql::COUNT) <= STATEMENTS);
    // No files of its own besides the store's, which are opened by now.
    if (LONG const nError = Run("PRAGMA temp_store=MEMORY"); nError != 0)
    {
        return nError;
    }
    for (std::size_t i = 0; i < SQL_TEXTS.size(); ++i)
    {
        if (int const nCode = ::sqlite3_prepare_v3(m_pDatabase, SQL_TEXTS[i], -1, SQLITE_PREPARE_PERSISTENT,
                                                   &m_statements[i], nullptr);
            nCode != SQLITE_OK)
        {
            return GetError(nCode);
        }
    }
    return 0;
}

LONG StoreConnection::GetError(int nResult) const noexcept
{
    switch (nResult & 0xFF)
    {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
        return 0;
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
    case SQLITE_ERROR: // the statements are good: so the tables aren't
    case SQLITE_SCHEMA:
    case SQLITE_FORMAT:
    case SQLITE_MISMATCH:
    case SQLITE_CONSTRAINT:
        return ERROR_BADDB;
    case SQLITE_NOMEM:
    case SQLITE_TOOBIG:
        return ERROR_NOT_ENOUGH_MEMORY;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return ERROR_BUSY;
    case SQLITE_FULL:
        return ERROR_DISK_FULL;
    case SQLITE_CANTOPEN:
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
        switch (::sqlite3_system_errno(m_pDatabase))
        {
        case EROFS:
            return ERROR_WRITE_PROTECT;
        case EMFILE:
        case ENFILE:
            return ERROR_TOO_MANY_OPEN_FILES;
        default:
            return ERROR_ACCESS_DENIED;
        }
    default:
        switch (::sqlite3_system_errno(m_pDatabase))
        {
        case ENOSPC:
        case EDQUOT:
            return ERROR_DISK_FULL;
        case EROFS:
            return ERROR_WRITE_PROTECT;
        default:
            return ERROR_REGISTRY_IO_FAILED;
        }
    }
}

std::int64_t StoreConnection::GetLastId() const noexcept
{
    return ::sqlite3_last_insert_rowid(m_pDatabase);
}

int StoreConnection::GetChanges() const noexcept
{
    return ::sqlite3_changes(m_pDatabase);
}

StoreQuery::StoreQuery(StoreConnection & connection, Sql sql) noexcept
    : m_connection(connection), m_pStatement(connection.GetStatement(sql))
{
}

StoreQuery::~StoreQuery()
{
    ::sqlite3_reset(m_pStatement);
}

StoreQuery & StoreQuery::Bind(std::int64_t nNumber) noexcept
{
    ::sqlite3_bind_int64(m_pStatement, ++m_nBound, nNumber);
    return *this;
}

StoreQuery & StoreQuery::Bind(std::string_view bytes) noexcept
{
    // A null pointer would be no blob at all.
    if (int const nCode = ::sqlite3_bind_blob64(m_pStatement, ++m_nBound, bytes.empty() ? "" : bytes.data(),
                                                bytes.size(), SQLITE_STATIC);
        nCode != SQLITE_OK)
    {
        m_nError = m_connection.GetError(nCode);
    }
    return *this;
}

bool StoreQuery::Next() noexcept
{
    if (m_nError != 0)
    {
        return false;
    }
    int const nCode = ::sqlite3_step(m_pStatement);
    m_nError = m_connection.GetError(nCode);
    return nCode == SQLITE_ROW;
}

LONG StoreQuery::Run() noexcept
{
    while (Next())
    {
    }
    return m_nError;
}

std::int64_t StoreQuery::GetNumber(int nColumn) const noexcept
{
    return ::sqlite3_column_int64(m_pStatement, nColumn);
}

std::string_view StoreQuery::GetBytes(int nColumn) const noexcept
{
    void const * const pBytes = ::sqlite3_column_blob(m_pStatement, nColumn);
    return pBytes ? std::string_view(static_cast<char const *>(pBytes),
                                     static_cast<std::size_t>(::sqlite3_column_bytes(m_pStatement, nColumn)))
                  : std::string_view();
}

LONG RegistryStore::Get(RegistryStore *& pStore)
{
    // Never closed: threads may be at work until the process has ended, and nothing written depends on it.
    static constinit std::atomic<RegistryStore *> s_pStore{nullptr};
    static constinit std::mutex s_mutex;

    pStore = s_pStore.load(std::memory_order_acquire);
    if (pStore)
    {
        return 0;
    }
    std::scoped_lock const lock(s_mutex);
    pStore = s_pStore.load(std::memory_order_relaxed);
    if (pStore)
    {
        return 0;
    }
    std::unique_ptr<RegistryStore> opened(new RegistryStore);
    LONG const nError = opened->Open();
    if (nError != 0)
    {
        return nError;
    }
    pStore = opened.release();
    s_pStore.store(pStore, std::memory_order_release);
    return 0;
}

LONG RegistryStore::Open()
{
    std::string strPath = StorePath();
    if (strPath.empty())
    {
        return static_cast<LONG>(GetLastError());
    }
    LONG nError = OpenFiles(strPath);
    bool const bLocked = nError == 0 && m_nReadOnly == 0;
    if (bLocked && !LockFile())
    {
        return CurrentError();
    }
    if (nError == 0)
    {
        nError = OpenDatabase(strPath);
    }
    if (bLocked)
    {
        UnlockFile();
    }
    if (nError != 0 && m_pShared)
    {
        ::munmap(m_pShared, sizeof(Shared));
    }
    return nError;
}

LONG RegistryStore::OpenFiles(std::string & strPath)
{
    // No descriptor of the database may be open beside those of SQLite while it is in use: closing one would drop
    // SQLite's locks. Here it isn't yet.
    constexpr int COMMON = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    UniqueFd file(::open(strPath.c_str(), O_RDWR | O_CREAT | COMMON, S_IRUSR | S_IWUSR));
    if (!file && (errno == EACCES || errno == EROFS || errno == EPERM))
    {
        m_nReadOnly = CurrentError();
        file = UniqueFd(::open(strPath.c_str(), O_RDONLY | COMMON));
        if (!file)
        {
            return m_nReadOnly;
        }
    }
    struct stat info
    {
    };
    if (!file || ::fstat(file.Get(), &info) != 0)
    {
        return errno == ENOENT || errno == ENOTDIR ? ERROR_PATH_NOT_FOUND : CurrentError();
    }
    if (!S_ISREG(info.st_mode))
    {
        return ERROR_BADDB;
    }
    // Whatever links lead to it, there is one lock file to one store.
    std::unique_ptr<char, decltype(&std::free)> const pszReal(::realpath(strPath.c_str(), nullptr), &std::free);
    if (!pszReal)
    {
        return CurrentError();
    }
    strPath = pszReal.get();

    std::string const strLock = strPath + LOCK_SUFFIX;
    int const nAccess = m_nReadOnly != 0 ? O_RDONLY : O_RDWR | O_CREAT;
    m_lockFile = UniqueFd(::open(strLock.c_str(), nAccess | COMMON | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    struct stat lockInfo
    {
    };
    bool const bUsable = m_lockFile && ::fstat(m_lockFile.Get(), &lockInfo) == 0 && S_ISREG(lockInfo.st_mode);
    if (m_nReadOnly == 0)
    {
        if (!bUsable)
        {
            return m_lockFile ? ERROR_BADDB : CurrentError();
        }
        // Only ever made longer: so it may be done by several processes at once.
        if (lockInfo.st_size < static_cast<off_t>(sizeof(Shared)) &&
            ::ftruncate(m_lockFile.Get(), static_cast<off_t>(sizeof(Shared))) != 0)
        {
            return CurrentError();
        }
    }
    else if (!bUsable || lockInfo.st_size < static_cast<off_t>(sizeof(Shared)))
    {
        return 0; // then versions come from the database
    }
    void * const pMapped = ::mmap(nullptr, sizeof(Shared), m_nReadOnly != 0 ? PROT_READ : PROT_READ | PROT_WRITE,
                                  MAP_SHARED, m_lockFile.Get(), 0);
    if (pMapped == MAP_FAILED)
    {
        return CurrentError();
    }
    m_pShared = static_cast<Shared *>(pMapped);
    return 0;
}

LONG RegistryStore::OpenDatabase(std::string const & strPath)
{
    // SQLite fills closed standard streams by itself, for good. All that it keeps open it opens here.
    LowDescriptorGuard const guard;
    m_bGuardsCommits = guard.IsNeeded();
    int const nFlags = m_nReadOnly != 0 ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE;
    LONG nError = m_writer.Open(strPath, nFlags);
    if (nError == 0)
    {
        nError = Initialise();
    }
    std::string strReader = strPath;
    int nReaderFlags = nFlags;
    if (nError == ERROR_ACCESS_DENIED && m_nReadOnly != 0)
    {
        // A write-ahead log can't be used in a folder without write access. Without a log the file alone is the store.
        struct stat log
        {
        };
        if (::stat((strPath + "-wal").c_str(), &log) == 0 && log.st_size > 0)
        {
            return nError;
        }
        strReader = "file:";
        for (char const c : strPath)
        {
            constexpr char const * HEX = "0123456789ABCDEF";
            auto const n = static_cast<unsigned char>(c);
            if (c == '?' || c == '#' || c == '%')
            {
                (strReader += '%').append({HEX[n >> 4], HEX[n & 15]});
            }
            else
            {
                strReader += c;
            }
        }
        strReader += "?immutable=1";
        nReaderFlags |= SQLITE_OPEN_URI;
        m_writer.Close();
        nError = m_writer.Open(strReader, nReaderFlags);
        if (nError == 0)
        {
            nError = Initialise();
        }
    }
    if (nError == 0)
    {
        nError = m_writer.PrepareAll();
    }
    if (nError == 0)
    {
        nError = m_reader.Open(strReader, nReaderFlags);
    }
    if (nError == 0)
    {
        nError = m_reader.PrepareAll();
    }
    return nError;
}

LONG RegistryStore::Initialise()
{
    std::int64_t nApplication = 0;
    std::int64_t nVersion = 0;
    std::int64_t nTables = 0;
    LONG nError = m_writer.ReadNumber("PRAGMA application_id", nApplication);
    if (nError == 0)
    {
        nError = m_writer.ReadNumber("PRAGMA user_version", nVersion);
    }
    if (nError == 0)
    {
        nError = m_writer.ReadNumber("SELECT count(*) FROM sqlite_master", nTables);
    }
    if (nError != 0)
    {
        return nError;
    }
    bool const bNew = nApplication == 0 && nVersion == 0 && nTables == 0;
    if (bNew && m_nReadOnly != 0)
    {
        return m_nReadOnly;
    }
    if (!bNew && (nApplication != APPLICATION_ID || nVersion != FORMAT_VERSION))
    {
        return ERROR_BADDB;
    }
    if (m_nReadOnly != 0)
    {
        return 0;
    }
    // No sooner than now: it would change a file that isn't ours.
    nError = m_writer.Run("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA journal_size_limit=16777216");
    if (nError != 0 || !bNew)
    {
        return nError;
    }

    nError = m_writer.Run("BEGIN IMMEDIATE");
    if (nError == 0)
    {
        nError = m_writer.Run(SCHEMA);
    }
    std::string const strUser = "S-1-22-1-" + std::to_string(::getuid());
    struct
    {
        KeyId id;
        KeyId parent;
        std::string_view name;
    } const keys[] = {{KEY_MACHINE, 0, "HKEY_LOCAL_MACHINE"}, {KEY_USERS, 0, "HKEY_USERS"},
                      {KEY_CONFIG, 0, "HKEY_CURRENT_CONFIG"}, {KEY_SOFTWARE, KEY_MACHINE, "SOFTWARE"},
                      {KEY_CLASSES, KEY_SOFTWARE, "Classes"}, {KEY_USER, KEY_USERS, strUser}};
    for (auto const & key : keys)
    {
        if (nError == 0)
        {
            auto const hex = [](std::string const & strBytes)
            {
                constexpr char const * HEX = "0123456789ABCDEF";
                std::string strHex = "x'";
                for (char const c : strBytes)
                {
                    strHex.append({HEX[static_cast<unsigned char>(c) >> 4], HEX[c & 15]});
                }
                return strHex + "'";
            };
            std::string const strSql = "INSERT INTO keys(id, parent, folded, name) VALUES(" + std::to_string(key.id) +
                                       "," + std::to_string(key.parent) + "," + hex(Ascii(key.name, true)) + "," +
                                       hex(Ascii(key.name, false)) + ")";
            nError = m_writer.Run(strSql.c_str());
        }
    }
    if (nError == 0)
    {
        nError = m_writer.Run("COMMIT");
    }
    if (nError != 0)
    {
        m_writer.Run("ROLLBACK");
    }
    return nError;
}

KeyVersion RegistryStore::GetVersion(KeyId key) noexcept
{
    if (m_pShared)
    {
        return {m_pShared->counters[static_cast<std::uint32_t>(key) % COUNTERS].load(std::memory_order_acquire)};
    }
    std::scoped_lock const lock(m_readMutex);
    StoreQuery query(m_reader, Sql::DataVersion);
    return query.Next() ? KeyVersion{static_cast<std::uint64_t>(query.GetNumber(0)) << 1} : KeyVersion();
}

// The first byte is a turnstile: whoever waits for the second one holds it, so that a writer with much to write can't
// take the lock again and again before a waiter has woken up.
bool RegistryStore::LockFile() const noexcept
{
    auto const set = [this](short nType, off_t nByte)
    {
        struct flock range
        {
        };
        range.l_type = nType;
        range.l_whence = SEEK_SET;
        range.l_start = nByte;
        range.l_len = 1;
        return Retry([&] { return ::fcntl(m_lockFile.Get(), F_OFD_SETLKW, &range); }) == 0;
    };
    if (!set(F_WRLCK, 0))
    {
        return false;
    }
    bool const bLocked = set(F_WRLCK, 1);
    int const nErrno = errno;
    set(F_UNLCK, 0);
    errno = nErrno;
    return bLocked;
}

void RegistryStore::UnlockFile() const noexcept
{
    struct flock range
    {
    };
    range.l_type = F_UNLCK;
    range.l_whence = SEEK_SET;
    ::fcntl(m_lockFile.Get(), F_OFD_SETLKW, &range);
}

void RegistryStore::MarkChanged(Changes & changes) noexcept
{
    std::sort(changes.m_slots.begin(), changes.m_slots.end());
    changes.m_slots.erase(std::unique(changes.m_slots.begin(), changes.m_slots.end()), changes.m_slots.end());
    m_pShared->bWriting.store(1);
    for (std::uint32_t const nSlot : changes.m_slots)
    {
        m_pShared->counters[nSlot].fetch_add(1);
    }
}

void RegistryStore::SettleChanged(Changes const & changes) noexcept
{
    for (std::uint32_t const nSlot : changes.m_slots)
    {
        m_pShared->counters[nSlot].fetch_add(1);
    }
    m_pShared->bWriting.store(0);
}

void RegistryStore::Repair() noexcept
{
    for (std::atomic<std::uint32_t> & counter : m_pShared->counters)
    {
        if ((counter.load() & 1) != 0)
        {
            counter.fetch_add(1);
        }
    }
    m_pShared->bWriting.store(0);
}

LONG RegistryStore::Transaction::Begin()
{
    if (!m_store.LockFile())
    {
        return CurrentError();
    }
    m_bLocked = true;
    if (m_store.m_pShared->bWriting.load() != 0)
    {
        m_store.Repair();
    }
    LONG const nError = StoreQuery(m_store.m_writer, Sql::Begin).Run();
    m_bOpen = nError == 0;
    return nError;
}

LONG RegistryStore::Transaction::End(LONG nResult)
{
    if (nResult != 0)
    {
        return nResult;
    }
    m_store.MarkChanged(changes);
    std::optional<LowDescriptorGuard> guard; // of the folder, which is opened at times to be synced
    if (m_store.m_bGuardsCommits)
    {
        guard.emplace();
    }
    LONG const nError = StoreQuery(m_store.m_writer, Sql::Commit).Run();
    m_bOpen = nError != 0;
    if (m_bOpen)
    {
        StoreQuery(m_store.m_writer, Sql::Rollback).Run();
        m_bOpen = false;
    }
    m_store.SettleChanged(changes);
    return nError;
}

RegistryStore::Transaction::~Transaction()
{
    if (m_bOpen)
    {
        StoreQuery(m_store.m_writer, Sql::Rollback).Run();
    }
    if (m_bLocked)
    {
        m_store.UnlockFile();
    }
}

} // namespace kvx::win32
