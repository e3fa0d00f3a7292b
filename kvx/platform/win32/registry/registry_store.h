#pragma once

/// The file behind the registry, for the code of this folder. Every function is called inside an UninterruptedScope:
/// it holds locks of the process, and the write lock among processes.

#include "kvx/platform/win32/types.h"
#include "kvx/platform/win32/unique_fd.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace kvx::win32
{

using KeyId = std::int64_t;

/// The keys that are there from the beginning, and can't be deleted.
enum FixedKey : KeyId
{
    KEY_MACHINE = 1,
    KEY_USERS,
    KEY_CONFIG,
    KEY_SOFTWARE, ///< of the machine
    KEY_CLASSES,  ///< in it
    KEY_USER,
    KEY_LAST_FIXED = 1000,
};

inline constexpr std::size_t MAX_KEY_NAME = 255;
inline constexpr std::size_t MAX_VALUE_NAME = 16383;
inline constexpr std::size_t MAX_VALUE_SIZE = 1'000'000'000;
inline constexpr std::size_t MAX_KEY_DEPTH = 512;

/// Which state of a key something was read in. Two equal ones that can be relied on are the same state.
struct KeyVersion
{
    std::uint64_t nNumber = 1;
    bool IsReliable() const noexcept { return (nNumber & 1) == 0; }
    bool operator==(KeyVersion const &) const = default;
};

enum class Sql : unsigned;

/// A connection with its prepared statements.
class StoreConnection
{
public:
    StoreConnection() = default;
    ~StoreConnection();
    StoreConnection(StoreConnection const &) = delete;
    StoreConnection & operator=(StoreConnection const &) = delete;

    /// Opens the file or closes again. `strUri` may be a path.
    LONG Open(std::string const & strUri, int nFlags);
    void Close() noexcept;
    LONG Run(char const * pszSql);
    LONG ReadNumber(char const * pszSql, std::int64_t & nResult);
    /// Prepares all statements: the tables are there, and have the columns that they should.
    LONG PrepareAll();
    sqlite3_stmt * GetStatement(Sql sql) const noexcept { return m_statements[static_cast<unsigned>(sql)]; }
    LONG GetError(int nResult) const noexcept;
    std::int64_t GetLastId() const noexcept;
    int GetChanges() const noexcept;

private:
    static constexpr std::size_t STATEMENTS = 24;

    sqlite3 * m_pDatabase = nullptr;
    std::array<sqlite3_stmt *, STATEMENTS> m_statements{};
};

/// One execution of a prepared statement.
class StoreQuery
{
public:
    StoreQuery(StoreConnection & connection, Sql sql) noexcept;
    ~StoreQuery();
    StoreQuery(StoreQuery const &) = delete;
    StoreQuery & operator=(StoreQuery const &) = delete;

    StoreQuery & Bind(std::int64_t nNumber) noexcept;
    /// The bytes must stay until the query's end.
    StoreQuery & Bind(std::string_view bytes) noexcept;
    /// True while there is a row. Afterwards GetError tells whether this was the end or a failure.
    bool Next() noexcept;
    LONG GetError() const noexcept { return m_nError; }
    /// Runs a statement that has no rows.
    LONG Run() noexcept;

    std::int64_t GetNumber(int nColumn) const noexcept;
    std::string_view GetBytes(int nColumn) const noexcept;

private:
    StoreConnection & m_connection;
    sqlite3_stmt * const m_pStatement;
    int m_nBound = 0;
    LONG m_nError = 0;
};

enum class Sql : unsigned
{
    Begin,
    Commit,
    Rollback,
    DataVersion,
    FindKey,
    FindParent,
    HasKey,
    InsertKey,
    HasSubKeys,
    ListTree,
    DeleteKey,
    ListKeys,
    CountKeys,
    FindValue,
    ReadValue,
    SetValue,
    DeleteValue,
    DeleteValues,
    ListValues,
    CountValues,
    NextValues,
    COUNT
};

class RegistryStore
{
public:
    /// The store of the process, opened at the first use. After a failure the next call tries again.
    static LONG Get(RegistryStore *& pStore);

    /// To be asked before reading: what is then read is at least as new.
    KeyVersion GetVersion(KeyId key) noexcept;

    /// Runs `read` with a connection, one thread at a time.
    template <class F>
    LONG Read(F const & read)
    {
        std::scoped_lock const lock(m_readMutex);
        return read(m_reader);
    }

    /// What a write changes: the keys whose values or list of subkeys are no more what they were.
    class Changes
    {
    public:
        void Add(KeyId key) { m_slots.push_back(static_cast<std::uint32_t>(key) % COUNTERS); }

    private:
        friend class RegistryStore;
        std::vector<std::uint32_t> m_slots;
    };

    /// Runs `write` in a transaction, as the only writer among all processes. A result other than 0, or an exception,
    /// takes back what it did.
    template <class F>
    LONG Write(F const & write)
    {
        if (m_nReadOnly != 0)
        {
            return m_nReadOnly;
        }
        std::scoped_lock const lock(m_writeMutex);
        Transaction transaction(*this);
        LONG const nError = transaction.Begin();
        return nError != 0 ? nError : transaction.End(write(m_writer, transaction.changes));
    }

private:
    static constexpr std::uint32_t COUNTERS = 4096;

    /// Lies in a file that all processes map. A counter is odd while a write that touches one of its keys is becoming
    /// visible; then nobody trusts what he has in memory. Counters of a process that died stay odd until the next
    /// write.
    struct Shared
    {
        std::atomic<std::uint32_t> bWriting;
        std::uint32_t reserved[15];
        std::atomic<std::uint32_t> counters[COUNTERS];
    };

    class Transaction
    {
    public:
        explicit Transaction(RegistryStore & store) noexcept : m_store(store) {}
        ~Transaction();
        Transaction(Transaction const &) = delete;
        Transaction & operator=(Transaction const &) = delete;
        LONG Begin();
        LONG End(LONG nResult);

        Changes changes;

    private:
        RegistryStore & m_store;
        bool m_bLocked = false;
        bool m_bOpen = false;
    };

    RegistryStore() = default;

    LONG Open();
    /// `strPath` becomes the path of the file itself where it was a link.
    LONG OpenFiles(std::string & strPath);
    LONG OpenDatabase(std::string const & strPath);
    LONG Initialise();
    bool LockFile() const noexcept;
    void UnlockFile() const noexcept;
    void MarkChanged(Changes & changes) noexcept;
    void SettleChanged(Changes const & changes) noexcept;
    void Repair() noexcept;

    StoreConnection m_reader;
    StoreConnection m_writer;
    std::mutex m_readMutex;
    std::mutex m_writeMutex;
    UniqueFd m_lockFile;
    Shared * m_pShared = nullptr;
    bool m_bGuardsCommits = false; ///< some standard stream was closed when the store was opened
    LONG m_nReadOnly = 0;          ///< the code that writes get
};

} // namespace kvx::win32
