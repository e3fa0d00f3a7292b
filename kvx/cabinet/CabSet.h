#pragma once

#include "kvx/cabinet/CabFolder.h"
#include "kvx/cabinet/CabSpool.h"

#include <list>

namespace kvx::cabinet
{
/// The callbacks that each operation is given anew.
struct CabProgress
{
    PFNFCIGETNEXTCABINET getNextCabinet;
    PFNFCISTATUS status;
};

/// The row of cabinets: takes folders whose blocks are in the spool, writes each cabinet when it is full or done, and
/// goes on in the next. In memory are the entries of one cabinet.
class CabSet
{
public:
    static constexpr std::size_t MAX_FILES = 0xFFFF;          ///< in a cabinet
    static constexpr std::size_t MAX_FOLDERS = 0xFFFD;        ///< in a cabinet: what is above means continued files
    static constexpr std::size_t MAX_BLOCKS = 0xFFFF;         ///< of a folder in a cabinet
    static constexpr std::uint64_t NEXT_NAMES_SIZE = 2 * 256; ///< of the next cabinet and its disk, at most

    CabSet(CallbackHost const & host, std::pmr::memory_resource * memory, CabSpool & spool, CCAB const & ccab);

    std::uint64_t GetMaxSize() const { return m_present.cb; }
    /// Of the present cabinet as it is, with no cabinet behind it.
    std::uint64_t GetSize() const { return GetHeaderSize(0) + GetContentSize(); }
    std::size_t GetFolderCount() const { return m_folders.size(); }
    std::size_t GetFileCount() const { return m_nFiles; }
    std::size_t GetFolderSize() const { return FOLDER_SIZE + m_nFolderReserve; }
    /// In front of each block's data.
    std::size_t GetBlockHeaderSize() const { return BLOCK_HEADER_SIZE + m_nDataReserve; }
    /// The most that the entries of files that begin in one block may take, so that each cabinet of a set can hold
    /// those of two neighbours and some of their data.
    std::uint64_t GetBlockEntriesLimit() const;

    /// Puts a folder into the present cabinet; what has no room there goes into the next ones.
    void Place(CabFolder & folder, CabProgress const & progress);
    /// Writes the present cabinet if there is anything in it. With `hasNext` the next one becomes the present one.
    void Flush(bool hasNext, CabProgress const & progress);
    /// Fills in a block's header, whose reserve stands there already.
    static void SealBlock(std::uint8_t * header, std::size_t headerSize, std::span<std::uint8_t const> data,
                          std::size_t uncompressedSize);
    /// To be called before anything is added: behind a cabinet that was written as the last a further one begins, which
    /// has nothing to do with it.
    void BeginIfEnded(CabProgress const & progress);

private:
    struct Position;
    struct Part;
    struct Folder
    {
        std::uint64_t data; // before its first block
        std::uint16_t blocks;
        std::uint16_t type;
    };

    CallbackHost const & m_host;
    CabSpool & m_spool;
    CCAB m_present; // as the callback may change its own
    CCAB m_next;    // the callback's; of the next cabinet if m_bHasNext, else as m_present
    bool m_bHasNext = false;
    bool m_bEnded = false;
    int m_nFirstNumber; // 1 or 0
    std::size_t m_nFolderReserve;
    std::size_t m_nDataReserve;
    bool m_bPrevious = false;
    std::array<char, 256> m_previousCabinet{}; // the latest in which a file begins
    std::array<char, 256> m_previousDisk{};
    std::uint64_t m_nEstimate = 0;

    std::pmr::vector<Folder> m_folders;
    std::pmr::vector<std::uint8_t> m_entries;
    std::size_t m_nFiles = 0;
    bool m_bFileBegins = false;
    bool m_bJoinable = false;       // all of the last folder is here
    std::uint32_t m_nFolderEnd = 0; // its size before compression
    // The data: the rest of a block that began in cabinets before, or a part of it; whole blocks from the spool; the
    // beginning of a block that goes on in the next cabinet.
    std::uint64_t m_nDataSize = 0;
    std::size_t m_nRestFrom = 0;
    std::size_t m_nRestTo = 0;
    bool m_bRestEnds = false;
    std::uint64_t m_nWhole = 0;
    std::size_t m_nBeginning = 0;
    std::size_t m_nBeginningSize = 0;       // of that block
    std::pmr::vector<std::uint8_t> m_split; // the block that is in two or more cabinets, with its header
    std::pmr::vector<std::uint8_t> m_piece;

    std::uint64_t GetHeaderSize(std::uint64_t nextNames) const;
    std::uint64_t GetContentSize() const;
    static void Check(CCAB & ccab);
    void AskForNext(std::uint64_t estimate, CabProgress const & progress);
    Part Fill(CabFolder const & folder, Position const & at, std::uint64_t nextNames) const;
    void PlacePart(CabFolder & folder, Position & at, Part const & part, CabProgress const & progress);
    void WriteCabinet(bool hasNext, CabProgress const & progress);
    void WriteHeader(CallbackFile & file, bool hasNext, std::uint64_t size);
    void WriteData(CallbackFile & file);
    void WritePiece(CallbackFile & file, std::size_t from, std::size_t to, bool ends);
    void Clear();
};
} // namespace kvx::cabinet
