#include "kvx/cabinet/BlockQueue.h"

#include "kvx/cabinet/CallbackFile.h"
#include "kvx/cabinet/lzx/LzxEncoder.h"
#include "kvx/threads/ThreadPool.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace kvx::cabinet
{
namespace
{
// How many blocks may wait, for each job. Those of MSZIP only keep the threads supplied. Of LZX a thread takes one
// folder after the other, so that whole folders have to wait to have all threads at work.
constexpr std::size_t WAITING_BLOCKS = 4;
constexpr std::size_t WAITING_LZX_BLOCKS = 256;
} // namespace

/// What the queue's threads still touch when the queue may be gone.
struct BlockQueue::Share
{
    CCriticalSection lock;
    CEvent done; // after each piece of work, and for each thread that leaves
    BlockQueue * queue = nullptr;
    unsigned workers = 0;
};

/// A block, or the end of a folder.
struct BlockQueue::Work
{
    using allocator_type = std::pmr::polymorphic_allocator<>;

    std::pmr::vector<std::uint8_t> in; // [what is to stay free, or the history] [the block]
    std::pmr::vector<std::uint8_t> out;
    Chain * chain = nullptr;
    Work * next = nullptr; // in the same folder
    std::uint8_t * block = nullptr;
    std::size_t size = 0;
    std::size_t outSize = 0;
    bool ends = false;
    bool hasHistory = false;
    enum
    {
        Waiting,
        Running,
        Encoded, ///< the encoder has seen it
    } state = Waiting;
    bool filled = false; ///< the encoder has given its result

    explicit Work(allocator_type memory) : in(memory), out(memory) {}
};

/// A folder. LZX's encoder puts its blocks here: each into the first piece of work that has none yet.
struct BlockQueue::Chain : FolderEncoder::Sink
{
    using allocator_type = std::pmr::polymorphic_allocator<>;

    BlockQueue & queue;
    USHORT const type;
    std::unique_ptr<FolderEncoder> encoder; // LZX's
    std::pmr::vector<std::uint8_t> history; // MSZIP's: the block before
    bool begun = false;
    // These need the lock:
    Work * last = nullptr;     // of LZX, if it is still in the queue
    Work * unfilled = nullptr; // of LZX
    bool busy = false;
    bool failed = false;

    Chain(BlockQueue & owner, USHORT kind, allocator_type memory) : queue(owner), type(kind), history(memory) {}

    USHORT GetMethod() const { return type & tcompMASK_TYPE; }
    void Put(std::span<std::uint8_t const> data, std::size_t uncompressedSize) override
    {
        CSingleLock guard(&queue.m_share->lock, TRUE);
        Work * const work = unfilled;
        if (!work || work->ends || uncompressedSize != work->size || data.empty() || data.size() > MAX_COMPRESSED_BLOCK)
        {
            failed = true;
            return;
        }
        std::ranges::copy(data, work->out.begin() + static_cast<std::ptrdiff_t>(queue.m_nFront));
        work->outSize = data.size();
        work->filled = true;
        unfilled = work->next;
    }
};

BlockQueue::BlockQueue(std::pmr::memory_resource * memory, Receiver & receiver, std::size_t roomInFront)
    : m_pMemory(memory), m_receiver(receiver), m_nFront(roomInFront), m_share(std::make_shared<Share>()),
      m_chains(memory), m_filling(memory), m_free(memory), m_mszip(memory), m_queue(memory), m_idleMszip(memory)
{
    m_share->queue = this;
}

BlockQueue::~BlockQueue() = default;

std::size_t BlockQueue::GetMaxSize(USHORT type)
{
    switch (type & tcompMASK_TYPE)
    {
    case tcompTYPE_NONE:
        return BLOCK_SIZE;
    case tcompTYPE_MSZIP:
        return MszipBlockEncoder::MAX_SIZE;
    default:
        return MAX_COMPRESSED_BLOCK;
    }
}

void BlockQueue::Begin(USHORT type)
{
    Chain & chain = m_chains.emplace_back(*this, type);
    m_bOpen = true;
    switch (chain.GetMethod())
    {
    case tcompTYPE_MSZIP:
        chain.history.resize(BLOCK_SIZE);
        if (m_mszip.empty())
        {
            CSingleLock guard(&m_share->lock, TRUE);
            m_idleMszip.reserve(m_options.jobs);
            while (m_mszip.size() < m_options.jobs)
            {
                m_idleMszip.push_back(&m_mszip.emplace_back(m_options.level, m_pMemory));
            }
        }
        break;
    case tcompTYPE_LZX:
        chain.encoder = MakeLzxEncoder(static_cast<unsigned>(type >> tcompSHIFT_LZX_WINDOW), m_options.level,
                                       m_options.translateCalls, m_pMemory);
        break;
    default:
        break;
    }
}

std::uint8_t * BlockQueue::GetRoom()
{
    Chain & chain = m_chains.back();
    if (m_filling.empty())
    {
        if (m_free.empty())
        {
            m_filling.emplace_back();
        }
        else
        {
            m_filling.splice(m_filling.begin(), m_free, m_free.begin());
        }
        Work & work = m_filling.front();
        bool const isMszip = chain.GetMethod() == tcompTYPE_MSZIP;
        std::size_t const front = isMszip ? BLOCK_SIZE : m_nFront;
        if (work.in.size() < front + BLOCK_SIZE)
        {
            work.in.resize(front + BLOCK_SIZE);
        }
        if (chain.GetMethod() != tcompTYPE_NONE && work.out.empty())
        {
            work.out.resize(m_nFront + MAX_COMPRESSED_BLOCK);
        }
        work.block = work.in.data() + front;
        work.hasHistory = chain.begun;
        if (isMszip && work.hasHistory)
        {
            std::ranges::copy(chain.history, work.in.begin());
        }
    }
    return m_filling.front().block;
}

void BlockQueue::Submit(std::size_t size)
{
    Chain & chain = m_chains.back();
    Work & work = m_filling.front();
    work.size = size;
    if (chain.GetMethod() == tcompTYPE_MSZIP && size == BLOCK_SIZE)
    {
        std::copy_n(work.block, BLOCK_SIZE, chain.history.begin());
    }
    Append(false);
}

void BlockQueue::End()
{
    GetRoom();
    Append(true);
}

/// Puts what is being filled at the end of the queue, and hands on what is done.
void BlockQueue::Append(bool ends)
{
    Chain & chain = m_chains.back();
    Work & work = m_filling.front();
    chain.begun = true;
    work.chain = &chain;
    work.next = nullptr;
    work.ends = ends;
    work.filled = false;
    work.state = Work::Waiting;
    {
        CSingleLock guard(&m_share->lock, TRUE);
        m_queue.splice(m_queue.end(), m_filling);
        if (chain.encoder)
        {
            if (chain.last)
            {
                chain.last->next = &work;
            }
            chain.last = &work;
            if (!chain.unfilled)
            {
                chain.unfilled = &work;
            }
        }
        if (chain.GetMethod() == tcompTYPE_NONE || (ends && !chain.encoder))
        {
            work.state = Work::Encoded;
            work.filled = true;
        }
        else
        {
            m_nWaiting++;
        }
    }
    m_bOpen = !ends;
    StartWorker();
    MakeRoom();
}

void BlockQueue::StartWorker()
{
    {
        CSingleLock guard(&m_share->lock, TRUE);
        if (m_nWaiting == 0 || m_share->workers + 1 >= m_options.jobs)
        {
            return;
        }
        m_share->workers++;
    }
    auto param = std::make_unique<std::shared_ptr<Share>>(m_share);
    if (CThreadPool::BeginThread(&WorkerProc, param.get(), 0, _T("Cabinet compression")))
    {
        param.release(); // the thread's
    }
    else
    {
        CSingleLock guard(&m_share->lock, TRUE);
        m_share->workers--; // the owner does it alone
    }
}

void BlockQueue::MakeRoom()
{
    std::size_t const jobs = m_options.jobs;
    for (;;)
    {
        Drain();
        {
            CSingleLock guard(&m_share->lock, TRUE);
            bool const isLzx = !m_queue.empty() && m_queue.back().chain->encoder;
            std::size_t const waiting = jobs == 1 ? 0 : jobs * (isLzx ? WAITING_LZX_BLOCKS : WAITING_BLOCKS);
            if (m_nWaiting + m_nRunning <= waiting && m_queue.size() <= jobs * WAITING_LZX_BLOCKS)
            {
                return;
            }
        }
        if (!HelpOrWait())
        {
            Drain();
            return; // what is left the encoder keeps back
        }
    }
}

unsigned int BlockQueue::WorkerProc(void * param)
{
    std::unique_ptr<std::shared_ptr<Share>> const share(static_cast<std::shared_ptr<Share> *>(param));
    (*share)->queue->ServeQueue();
    return 0;
}

void BlockQueue::ServeQueue()
{
    std::shared_ptr<Share> const share = m_share;
    CSingleLock guard(&share->lock, TRUE);
    while (Work * const work = TakeWaiting())
    {
        guard.Unlock();
        Run(*work);
        guard.Lock();
        NoteDone(*work);
    }
    share->workers--;
    share->done.SetEvent();
}

/// With the lock.
BlockQueue::Work * BlockQueue::TakeWaiting()
{
    if (m_nWaiting == 0)
    {
        return nullptr;
    }
    auto const found = std::ranges::find_if(m_queue, [](Work const & work)
                                            { return work.state == Work::Waiting && !work.chain->busy; });
    if (found == m_queue.end())
    {
        return nullptr;
    }
    found->state = Work::Running;
    found->chain->busy = found->chain->encoder != nullptr;
    m_nWaiting--;
    m_nRunning++;
    return &*found;
}

/// With the lock.
void BlockQueue::NoteDone(Work & work)
{
    work.state = Work::Encoded;
    work.filled = work.filled || !work.chain->encoder || work.ends;
    work.chain->busy = false;
    if (work.ends && work.chain->unfilled != &work)
    {
        work.chain->failed = true;
    }
    m_nRunning--;
    m_share->done.SetEvent();
}

void BlockQueue::Run(Work & work)
{
    Chain & chain = *work.chain;
    std::span<std::uint8_t const> const block(work.block, work.size);
    try
    {
        if (work.ends)
        {
            chain.encoder->Finish(chain);
        }
        else if (chain.encoder)
        {
            chain.encoder->Encode(block, chain);
        }
        else
        {
            MszipBlockEncoder * encoder = nullptr; // there is one for each job
            {
                CSingleLock guard(&m_share->lock, TRUE);
                encoder = m_idleMszip.back();
                m_idleMszip.pop_back();
            }
            std::span<std::uint8_t const> const history(work.in.data(), work.hasHistory ? BLOCK_SIZE : 0);
            work.outSize = encoder->Encode(history, block, std::span(work.out).subspan(m_nFront));
            CSingleLock guard(&m_share->lock, TRUE);
            m_idleMszip.push_back(encoder);
        }
    }
    catch (...) // encoders have nothing to throw; and nothing may leave a thread
    {
        CSingleLock guard(&m_share->lock, TRUE);
        chain.failed = true;
    }
}

/// Does a piece of work that waits, or waits for another thread to have done one. False if there is nothing to be done.
bool BlockQueue::HelpOrWait()
{
    CSingleLock guard(&m_share->lock, TRUE);
    if (Work * const work = TakeWaiting())
    {
        guard.Unlock();
        Run(*work);
        guard.Lock();
        NoteDone(*work);
        return true;
    }
    if (m_nRunning == 0)
    {
        return false;
    }
    guard.Unlock();
    if (!CThreadPool::WaitForThread(m_share->done, INFINITE))
    {
        throw CabFailure{FCIERR_MCI_FAIL}; // the pool's threads have been ended
    }
    return true;
}

void BlockQueue::Drain()
{
    for (;;)
    {
        std::pmr::list<Work> done(m_pMemory);
        {
            CSingleLock guard(&m_share->lock, TRUE);
            if (!m_queue.empty() && m_queue.front().chain->failed)
            {
                throw CabFailure{FCIERR_MCI_FAIL};
            }
            if (m_queue.empty() || m_queue.front().state != Work::Encoded || !m_queue.front().filled)
            {
                return;
            }
            done.splice(done.begin(), m_queue, m_queue.begin());
            if (done.front().chain->last == &done.front())
            {
                done.front().chain->last = nullptr;
            }
        }
        Work & work = done.front();
        if (work.ends)
        {
            m_chains.pop_front();
            m_receiver.PlaceFolder();
        }
        else
        {
            bool const plain = work.chain->GetMethod() == tcompTYPE_NONE;
            std::uint8_t * const block = plain ? work.block - m_nFront : work.out.data();
            m_receiver.TakeBlock({block, m_nFront + (plain ? work.size : work.outSize)}, work.size);
        }
        m_free.splice(m_free.end(), done);
    }
}

void BlockQueue::Settle()
{
    for (;;)
    {
        Drain();
        {
            CSingleLock guard(&m_share->lock, TRUE);
            if (m_nWaiting + m_nRunning == 0)
            {
                break;
            }
        }
        HelpOrWait();
    }
    Drain();
}

void BlockQueue::WaitForFolders(std::size_t count)
{
    for (Drain(); CountUnderway() > count; Drain())
    {
        HelpOrWait();
    }
}

bool BlockQueue::Stop()
{
    CSingleLock guard(&m_share->lock, TRUE);
    for (Work & work : m_queue)
    {
        if (work.state == Work::Waiting)
        {
            work.state = Work::Encoded;
        }
    }
    m_nWaiting = 0;
    while (m_share->workers > 0)
    {
        guard.Unlock();
        if (!CThreadPool::WaitForThread(m_share->done, INFINITE))
        {
            return CThreadPool::IsTerminated();
        }
        guard.Lock();
    }
    return true;
}
} // namespace kvx::cabinet
