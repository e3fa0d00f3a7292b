#pragma once

#include "kvx/cabinet/CabCompression.h"
#include "kvx/cabinet/FolderCoder.h"
#include "kvx/cabinet/mszip/MszipEncoder.h"

#include <list>
#include <memory>
#include <memory_resource>
#include <vector>

namespace kvx::cabinet
{
/// The blocks of folders on their way through the compressors. They come out in the order in which they went in, and
/// as they would come out of one thread, whatever the number of threads: a block of MSZIP is work of its own, while
/// those of one LZX folder are done in their order, beside those of other folders.
///
/// One thread owns the queue: it makes all calls, takes all memory, and compresses as well. Threads of the pool help it
/// with what waits, and leave when nothing does; with one job there are none. What waits is bounded. Failures are
/// CabFailures, FCIERR_MCI_FAIL among them for a thread that was killed in the middle.
class BlockQueue
{
public:
    /// Receives, on the owner's thread and within its calls, what is done.
    class Receiver
    {
    public:
        virtual ~Receiver() = default;
        /// In front of the block's data are as many bytes as the queue was told to leave there, which may be changed.
        virtual void TakeBlock(std::span<std::uint8_t> block, std::size_t uncompressedSize) = 0;
        /// The folder's last block has been taken.
        virtual void PlaceFolder() = 0;
    };

    BlockQueue(std::pmr::memory_resource * memory, Receiver & receiver, std::size_t roomInFront);
    BlockQueue(BlockQueue const &) = delete;
    BlockQueue & operator=(BlockQueue const &) = delete;
    /// Nothing may be running.
    ~BlockQueue();

    /// Before the first folder.
    void SetOptions(CabCompression::Options const & options) { m_options = options; }
    unsigned GetJobs() const { return m_options.jobs; }
    /// The most that a block of that compression type can take.
    static std::size_t GetMaxSize(USHORT type);

    /// A folder of that type, after the end of the one before.
    void Begin(USHORT type);
    /// The folder that has begun, and has had no block, gets another type.
    void BeginAgain(USHORT type);
    /// Where the next block of this folder is to be written, which Submit takes: BLOCK_SIZE bytes. The same until then.
    std::uint8_t * GetRoom();
    void Submit(std::size_t size);
    void End();
    /// Folders that haven't come out, without the one that hasn't ended.
    std::size_t CountUnderway() const { return m_chains.size() - (m_bOpen ? 1 : 0); }

    /// Hands on what is done.
    void Drain();
    /// Hands on all that the blocks so far give.
    void Settle();
    /// Waits until no more than so many folders are underway.
    void WaitForFolders(std::size_t count);
    /// Forgets what waits, and waits for what runs. False if a thread may still be at it, when the process is about to
    /// end: then nothing of this may go.
    bool Stop();

private:
    struct Chain;
    struct Work;
    struct Share;
    struct Worker;
    class Guard;

    std::pmr::memory_resource * m_pMemory;
    Receiver & m_receiver;
    std::size_t const m_nFront;
    CabCompression::Options m_options;
    std::unique_ptr<Share> m_share;

    bool m_bOpen = false;
    std::pmr::list<Chain> m_chains;
    std::pmr::list<Work> m_filling; // one at most
    std::pmr::list<Work> m_free;
    std::pmr::list<MszipBlockEncoder> m_mszip;
    std::list<Worker> m_workers; // that aren't known to have left

    // These need the lock:
    std::pmr::list<Work> m_queue;
    std::pmr::vector<MszipBlockEncoder *> m_idleMszip;
    std::size_t m_nWaiting = 0;
    std::size_t m_nRunning = 0;

    static unsigned int WorkerProc(void * share);
    void ServeQueue();
    Work * TakeWaiting();
    void Run(Work & work);
    void NoteDone(Work & work);
    bool HelpOrWait();
    void Append(bool ends);
    void StartWorker();
    void MakeRoom();
};
} // namespace kvx::cabinet
