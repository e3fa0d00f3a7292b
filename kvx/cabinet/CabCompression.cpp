#include "kvx/cabinet/CabCompression.h"

#include "kvx/cabinet/BlockQueue.h"
#include "kvx/cabinet/CabSet.h"
#include "kvx/cabinet/CallbackMemory.h"

#include <algorithm>
#include <cstring>
#include <list>
#include <new>
#include <utility>

namespace kvx::cabinet
{
namespace
{
/// A folder takes no further file at this size before compression: a cabinet holds 65,535 blocks of it, nearly 2 GiB,
/// and what comes is to have room there as well.
constexpr std::uint64_t FULL_FOLDER = 0x40000000;
constexpr std::uint64_t MAX_FILE_SIZE = 0xFFFFFFFF;

/// The folder's compression type as cabinets have it.
USHORT GetFolderType(USHORT type)
{
    int const method = type & tcompMASK_TYPE;
    int const windowBits = (type & tcompMASK_LZX_WINDOW) >> tcompSHIFT_LZX_WINDOW;
    if (method == tcompTYPE_NONE || method == tcompTYPE_MSZIP)
    {
        return static_cast<USHORT>(method);
    }
    if (method == tcompTYPE_LZX && windowBits >= 15 && windowBits <= 21)
    {
        return TCOMPfromLZXWindow(windowBits);
    }
    throw CabFailure{FCIERR_BAD_COMPR_TYPE, tcompBAD};
}
} // namespace

/// Reads files into blocks, and decides where folders end; the queue compresses the blocks, and gives them back to be
/// put into the spool; the set puts them into cabinets.
///
/// A folder ends before it may exceed the present cabinet, but for its last file: some readers of sets find a file only
/// in the cabinet where its folder begins.
///
/// Where folders and cabinets end must not depend on how far other threads have come. So a folder that has ended stays
/// underway only if it surely fits into the present cabinet, and whether a folder is full is asked of bounds of what
/// is underway, and if these leave it open, of the sizes themselves when all is done.
class CabCompression::Impl : public BlockQueue::Receiver
{
public:
    Impl(ERF * erf, Callbacks const & callbacks, CCAB const & ccab, void * context)
        : m_pErf(erf), m_host{callbacks, context}, m_memory(callbacks.alloc, callbacks.free),
          m_spool(m_host, &m_memory), m_set(m_host, &m_memory, m_spool, ccab), m_nThreshold(ccab.cbFolderThresh),
          m_bFailOnIncompressible(ccab.fFailOnIncompressible != 0), m_folders(&m_memory),
          m_pQueue(std::make_unique<BlockQueue>(&m_memory, *this, m_set.GetBlockHeaderSize()))
    {
    }
    ~Impl() override
    {
        if (!m_pQueue->Stop())
        {
            (void)m_pQueue.release();
        }
    }

    void SetOptions(Options const & options)
    {
        constexpr unsigned MOST_JOBS = 64;
        Options bounded = options;
        bounded.jobs = std::clamp(options.jobs, 1U, MOST_JOBS);
        if (!m_bBegun)
        {
            m_pQueue->SetOptions(bounded);
        }
    }

    void AddFile(char const * source, char const * name, bool bExecute, PFNFCIGETOPENINFO getOpenInfo, USHORT type);
    void EndFolder(bool bLast);
    void FlushFolder()
    {
        // One without data isn't taken by every reader. The next has room for its files.
        if (m_bOpen && m_folders.back().uncompressedSize > 0)
        {
            EndFolder(false);
        }
    }
    void FlushCabinet(bool bHasNext)
    {
        EndFolder(!bHasNext);
        m_pQueue->Settle();
        m_set.Flush(bHasNext, m_progress);
    }

    /// Runs one operation with these callbacks. What it throws becomes the error, and there is no further operation.
    template <class OPERATION>
    int Perform(CabProgress const & progress, OPERATION const & operation)
    {
        if (m_bFailed)
        {
            return 0;
        }
        m_bFailed = true;
        m_progress = progress;
        m_bFailed = !TellFailure(m_pErf, operation);
        return m_bFailed ? 0 : 1;
    }
    template <class OPERATION>
    static bool TellFailure(ERF * erf, OPERATION const & operation)
    {
        CabFailure failure{FCIERR_MCI_FAIL};
        try
        {
            operation();
            return true;
        }
        catch (CabFailure const & thrown)
        {
            failure = thrown;
        }
        catch (std::bad_alloc const &)
        {
            failure.error = FCIERR_ALLOC_FAIL;
        }
        catch (...)
        {
            // an error of the engine's
        }
        if (erf)
        {
            *erf = {failure.error, failure.type, TRUE};
        }
        return false;
    }

private:
    ERF * m_pErf;
    CallbackHost m_host;
    CallbackMemory m_memory;
    CabSpool m_spool;
    CabSet m_set;
    std::uint64_t m_nThreshold;
    bool m_bFailOnIncompressible;
    bool m_bFailed = false;
    bool m_bBegun = false;
    CabProgress m_progress{};
    std::pmr::list<CabFolder> m_folders; // those underway, and the one that takes files
    bool m_bOpen = false;                // the last of them takes files
    std::size_t m_nFilled = 0;           // bytes of its present block
    std::uint64_t m_nBlockEntries = 0;   // what entries of files that begin in that block take
    std::unique_ptr<BlockQueue> m_pQueue;

    void TakeBlock(std::span<std::uint8_t> block, std::size_t uncompressedSize) override;
    void PlaceFolder() override;

    void PrepareFor(std::size_t entrySize, USHORT type);
    void ReadFile(CallbackFile & source, std::uint64_t & size);
    void SubmitBlock();
    bool IsFolderFull();
    std::uint64_t GetMostSize(CabFolder const & folder) const;
    std::uint64_t GetMostCabinetSize() const;
    bool IsCabinetFull(std::uint64_t more);
    std::size_t CountFiles() const;
};

void CabCompression::Impl::AddFile(char const * source, char const * name, bool bExecute, PFNFCIGETOPENINFO getOpenInfo,
                                   USHORT type)
{
    USHORT const folderType = GetFolderType(type);
    std::size_t const length = name ? strnlen(name, MAX_NAME + 1) : 0;
    if (!source || !getOpenInfo || length == 0)
    {
        throw CabFailure{FCIERR_MCI_FAIL};
    }
    if (length > MAX_NAME)
    {
        throw CabFailure{FCIERR_CAB_FORMAT_LIMIT};
    }
    m_bBegun = true;
    m_set.BeginIfEnded(m_progress);
    PrepareFor(FILE_SIZE + length + 1, folderType);

    std::pmr::vector<char> path(&m_memory);
    std::size_t const pathSize = std::strlen(source) + 1;
    path.resize(std::max(NAME_ROOM, pathSize));
    std::copy_n(source, pathSize, path.begin());
    CabFileEntry entry{};
    CallbackFile file(m_host, FCIERR_READ_SRC);
    int error = 0;
    INT_PTR const handle =
        getOpenInfo(path.data(), &entry.date, &entry.time, &entry.attributes, &error, m_host.context);
    if (handle == -1)
    {
        throw CabFailure{FCIERR_OPEN_SRC, error};
    }
    file.Adopt(handle, error);
    constexpr USHORT KNOWN = CAB_ATTRIBUTES | CAB_ATTRIBUTE_EXECUTE | CAB_ATTRIBUTE_NAME_IS_UTF;
    entry.attributes = static_cast<USHORT>((entry.attributes & KNOWN) | (bExecute ? CAB_ATTRIBUTE_EXECUTE : 0));

    CabFolder & folder = m_folders.back();
    entry.name = folder.names.size();
    folder.names.insert(folder.names.end(), name, name + length + 1);
    entry.offset = static_cast<std::uint32_t>(folder.uncompressedSize);
    m_nBlockEntries += FILE_SIZE + length + 1;
    std::uint64_t size = 0;
    ReadFile(file, size);
    file.Close();
    entry.size = static_cast<std::uint32_t>(size);
    folder.files.push_back(entry);
    if (IsFolderFull())
    {
        EndFolder(false);
    }
}

/// Ends the present folder where the file can't go into it, and the present cabinet if it can't take the file.
void CabCompression::Impl::PrepareFor(std::size_t entrySize, USHORT type)
{
    if (m_bOpen && m_folders.back().type != type && m_folders.back().uncompressedSize == 0)
    {
        m_folders.back().type = type;
        m_pQueue->BeginAgain(type);
    }
    if (m_bOpen && (m_folders.back().type != type ||
                    (m_nBlockEntries > 0 && m_nBlockEntries + entrySize > m_set.GetBlockEntriesLimit()) ||
                    IsCabinetFull(entrySize + m_set.GetBlockHeaderSize() + 1)))
    {
        EndFolder(false);
    }
    if (CountFiles() >= CabSet::MAX_FILES || m_set.GetFolderCount() + m_folders.size() >= CabSet::MAX_FOLDERS)
    {
        // Folders that are underway surely fit, so that this is the same with any number of jobs.
        EndFolder(false);
        m_pQueue->Settle();
        if (CountFiles() >= CabSet::MAX_FILES || m_set.GetFolderCount() >= CabSet::MAX_FOLDERS)
        {
            m_set.Flush(true, m_progress);
        }
    }
    if (!m_bOpen)
    {
        m_folders.emplace_back(type);
        m_bOpen = true;
        m_nFilled = 0;
        m_nBlockEntries = 0;
        m_pQueue->Begin(type);
    }
}

void CabCompression::Impl::ReadFile(CallbackFile & source, std::uint64_t & size)
{
    for (;;)
    {
        std::uint8_t * const block = m_pQueue->GetRoom();
        UINT const count = source.Read(block + m_nFilled, static_cast<UINT>(BLOCK_SIZE - m_nFilled));
        if (count == 0)
        {
            return;
        }
        size += count;
        if (size > MAX_FILE_SIZE)
        {
            throw CabFailure{FCIERR_CAB_FORMAT_LIMIT};
        }
        m_nFilled += count;
        m_folders.back().uncompressedSize += count;
        if (m_nFilled == BLOCK_SIZE)
        {
            SubmitBlock();
        }
    }
}

void CabCompression::Impl::SubmitBlock()
{
    m_folders.back().submittedBlocks++;
    m_pQueue->Submit(std::exchange(m_nFilled, 0));
    m_nBlockEntries = 0;
}

/// What the folder can take in a cabinet at most: with all that isn't in the spool yet.
std::uint64_t CabCompression::Impl::GetMostSize(CabFolder const & folder) const
{
    std::size_t const headerSize = m_set.GetBlockHeaderSize();
    std::size_t const blockSize = headerSize + BlockQueue::GetMaxSize(folder.type);
    std::uint64_t size = m_set.GetFolderSize() + folder.GetEntriesSize() + folder.blocks.size() * headerSize +
                         folder.compressedSize + (folder.submittedBlocks - folder.blocks.size()) * blockSize;
    if (m_bOpen && &folder == &m_folders.back() && m_nFilled > 0)
    {
        size += blockSize - (BLOCK_SIZE - m_nFilled);
    }
    return size;
}

/// The present cabinet with all folders and one behind it.
std::uint64_t CabCompression::Impl::GetMostCabinetSize() const
{
    std::uint64_t size = m_set.GetSize() + CabSet::NEXT_NAMES_SIZE;
    for (CabFolder const & folder : m_folders)
    {
        size += GetMostSize(folder);
    }
    return size;
}

/// Whether so many bytes more may be more than the present cabinet takes.
bool CabCompression::Impl::IsCabinetFull(std::uint64_t more)
{
    if (GetMostCabinetSize() + more < m_set.GetMaxSize())
    {
        return false;
    }
    m_pQueue->Settle();
    return GetMostCabinetSize() + more >= m_set.GetMaxSize();
}

std::size_t CabCompression::Impl::CountFiles() const
{
    std::size_t count = m_set.GetFileCount();
    for (CabFolder const & folder : m_folders)
    {
        count += folder.files.size();
    }
    return count;
}

/// Behind a file: whether the folder, or the cabinet with it, has reached its size.
bool CabCompression::Impl::IsFolderFull()
{
    CabFolder const & folder = m_folders.back();
    auto const isReached = [&] { return folder.compressedSize >= m_nThreshold && folder.uncompressedSize > 0; };
    if (folder.uncompressedSize >= FULL_FOLDER || isReached())
    {
        return true;
    }
    std::size_t const pending = folder.submittedBlocks - folder.blocks.size();
    if (folder.compressedSize + pending * BlockQueue::GetMaxSize(folder.type) >= m_nThreshold)
    {
        m_pQueue->Settle();
    }
    return isReached() || IsCabinetFull(0);
}

/// With `bLast` nothing comes behind the folder.
void CabCompression::Impl::EndFolder(bool bLast)
{
    if (!m_bOpen)
    {
        return;
    }
    if (m_nFilled > 0)
    {
        SubmitBlock();
    }
    m_folders.back().isLast = bLast;
    m_bOpen = false;
    m_pQueue->End();

    bool const bWhole = std::ranges::all_of(m_folders, [](CabFolder const & folder)
                                            { return folder.submittedBlocks <= CabSet::MAX_BLOCKS; });
    if (bWhole && GetMostCabinetSize() <= m_set.GetMaxSize())
    {
        m_pQueue->WaitForFolders(m_pQueue->GetJobs() - 1);
    }
    else
    {
        m_pQueue->Settle();
    }
}

void CabCompression::Impl::TakeBlock(std::span<std::uint8_t> block, std::size_t uncompressedSize)
{
    CabFolder & folder = m_folders.front();
    std::size_t const headerSize = m_set.GetBlockHeaderSize();
    std::span<std::uint8_t> const data = block.subspan(headerSize);
    if (m_bFailOnIncompressible && folder.type != tcompTYPE_NONE && uncompressedSize == BLOCK_SIZE &&
        data.size() >= BLOCK_SIZE)
    {
        throw CabFailure{FCIERR_MCI_FAIL};
    }
    std::ranges::fill(block.first(headerSize), std::uint8_t{0});
    CabSet::SealBlock(block.data(), headerSize, data, uncompressedSize);
    m_spool.Write(block);
    folder.blocks.push_back(static_cast<std::uint16_t>(data.size()));
    folder.compressedSize += data.size();
    if (m_progress.status && m_progress.status(statusFile, static_cast<ULONG>(data.size()),
                                               static_cast<ULONG>(uncompressedSize), m_host.context) == -1)
    {
        throw CabFailure{FCIERR_USER_ABORT};
    }
}

void CabCompression::Impl::PlaceFolder()
{
    m_set.Place(m_folders.front(), m_progress);
    m_folders.pop_front();
}

std::unique_ptr<CabCompression> CabCompression::Create(ERF * erf, Callbacks const & callbacks, CCAB const * ccab,
                                                       void * context)
{
    std::unique_ptr<CabCompression> made;
    Impl::TellFailure(erf,
                      [&]
                      {
                          if (!ccab || !callbacks.filePlaced || !callbacks.alloc || !callbacks.free ||
                              !callbacks.open || !callbacks.read || !callbacks.write || !callbacks.close ||
                              !callbacks.seek || !callbacks.remove || !callbacks.getTempFile)
                          {
                              throw CabFailure{FCIERR_MCI_FAIL};
                          }
                          made.reset(new CabCompression(std::make_unique<Impl>(erf, callbacks, *ccab, context)));
                      });
    return made;
}

CabCompression::CabCompression(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}

CabCompression::~CabCompression() = default;

void CabCompression::SetOptions(Options const & options)
{
    m_impl->SetOptions(options);
}

int CabCompression::AddFile(char const * sourceFile, char const * fileName, BOOL execute,
                            PFNFCIGETNEXTCABINET getNextCabinet, PFNFCISTATUS status, PFNFCIGETOPENINFO getOpenInfo,
                            USHORT typeCompress)
{
    return m_impl->Perform({getNextCabinet, status},
                           [&] { m_impl->AddFile(sourceFile, fileName, execute != 0, getOpenInfo, typeCompress); });
}

int CabCompression::FlushCabinet(BOOL getNextCab, PFNFCIGETNEXTCABINET getNextCabinet, PFNFCISTATUS status)
{
    return m_impl->Perform({getNextCabinet, status}, [&] { m_impl->FlushCabinet(getNextCab != 0); });
}

int CabCompression::FlushFolder(PFNFCIGETNEXTCABINET getNextCabinet, PFNFCISTATUS status)
{
    return m_impl->Perform({getNextCabinet, status}, [&] { m_impl->FlushFolder(); });
}
} // namespace kvx::cabinet
