#include "kvx/cabinet/BlockQueue.h"

#include "kvx/cabinet/CallbackFile.h"
#include "kvx/cabinet/lzx/LzxEncoder.h"
#include "kvx/threads/ThreadPool.h"

#include <algorithm>
#include <atomic>
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
constexpr DWORD LOOK = 200; // milliseconds between looks at threads that are waited for
} // namespace

/// What the queue's threads meet at.
struct BlockQueue::Share
{
    CMutex lock;          // which frees itself when its thread is killed
    CEvent done;          // after each piece of work, and for each thread that leaves
    unsigned workers = 0; // that take work
    bool torn = false;    // a thread was killed while it had the lock
};

/// The share's lock.
class BlockQueue::Guard
{
public:
    explicit Guard(Share & share) : m_share(share) { Lock(); }
    Guard(Guard const &) = delete;
    Guard & operator=(Guard const &) = delete;
    ~Guard()
    {
        if (m_bLocked)
        {
            Unlock();
        }
    }

    void Lock()
    {
        DWORD const result = WaitForSingleObject(m_share.lock, INFINITE);
        m_share.torn = m_share.torn || result == WAIT_ABANDONED;
        m_bLocked = true;
    }
    void Unlock()
    {
        m_bLocked = false;
        m_share.lock.Unlock();
    }

private:
    Share & m_share;
    bool m_bLocked = false;
};

/// A thread that helps, or is to. The pool may kill it, or end it before it has begun: it owns nothing.
struct BlockQueue::Worker
{
    enum State
    {
        Serving,
        Leaving, ///< the queue no longer has to wait for it
        Left,    ///< touches nothing of the queue
    };

    BlockQueue & queue;
    HANDLE thread = nullptr; // which the pool keeps, null for one that has ended at once; the owner's
    std::atomic<State> state{Serving};

    explicit Worker(BlockQueue & owner) : queue(owner) {}

    bool HasEnded() const { return !thread || WaitForSingleObject(thread, 0) == WAIT_OBJECT_0; }
    /// Whether it has ended without having left.
    bool IsLost() const { return state == Serving && HasEnded() && state == Serving; }
    bool IsGone() const { return state == Left || HasEnded(); }
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
        Guard guard(*queue.m_share);
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
    : m_pMemory(memory), m_receiver(receiver), m_nFront(roomInFront), m_share(std::make_unique<Share>()),
      m_chains(memory), m_filling(memory), m_free(memory), m_mszip(memory), m_queue(memory), m_idleMszip(memory)
{
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
            Guard guard(*m_share);
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

void BlockQueue::BeginAgain(USHORT type)
{
    m_free.splice(m_free.end(), m_filling); // what there is of it is for the other type
    m_chains.pop_back();
    Begin(type);
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
        Guard guard(*m_share);
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
        Guard guard(*m_share);
        if (m_nWaiting == 0 || m_share->workers + 1 >= m_options.jobs)
        {
            return;
        }
        m_share->workers++;
    }
    m_workers.remove_if([](Worker const & worker) { return worker.state == Worker::Left; });
    Worker & worker = m_workers.emplace_back(*this);
    if (CThreadContext * const context = CThreadPool::BeginThread(&WorkerProc, &worker, 0, _T("Cabinet compression")))
    {
        worker.thread = context->GetThreadHandle();
    }
    else
    {
        m_workers.pop_back();
        Guard guard(*m_share);
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
            Guard guard(*m_share);
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
    Worker & worker = *static_cast<Worker *>(param);
    CEvent & done = worker.queue.m_share->done;
    worker.queue.ServeQueue();
    worker.state = Worker::Leaving;
    done.SetEvent();
    worker.state = Worker::Left;
    return 0;
}

void BlockQueue::ServeQueue()
{
    Guard guard(*m_share);
    while (Work * const work = TakeWaiting())
    {
        guard.Unlock();
        Run(*work);
        guard.Lock();
        NoteDone(*work);
    }
    m_share->workers--;
}

/// With the lock.
BlockQueue::Work * BlockQueue::TakeWaiting()
{
    if (m_nWaiting == 0 || m_share->torn)
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
                Guard guard(*m_share);
                encoder = m_idleMszip.back();
                m_idleMszip.pop_back();
            }
            std::span<std::uint8_t const> const history(work.in.data(), work.hasHistory ? BLOCK_SIZE : 0);
            work.outSize = encoder->Encode(history, block, std::span(work.out).subspan(m_nFront));
            Guard guard(*m_share);
            m_idleMszip.push_back(encoder);
        }
    }
    catch (...) // encoders have nothing to throw; and nothing may leave a thread
    {
        Guard guard(*m_share);
        chain.failed = true;
    }
}

/// Does a piece of work that waits, or waits for another thread to have done one. False if there is nothing to be done.
bool BlockQueue::HelpOrWait()
{
    Guard guard(*m_share);
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
    while (!CThreadPool::WaitForThread(m_share->done, LOOK))
    {
        if (std::ranges::any_of(m_workers, &Worker::IsLost) || !CThreadPool::IsWorthWaiting())
        {
            throw CabFailure{FCIERR_MCI_FAIL}; // what runs may never be done
        }
    }
    return true;
}

void BlockQueue::Drain()
{
    for (;;)
    {
        std::pmr::list<Work> done(m_pMemory);
        {
            Guard guard(*m_share);
            if (m_share->torn || (!m_queue.empty() && m_queue.front().chain->failed))
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
            Guard guard(*m_share);
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
    {
        Guard guard(*m_share);
        m_nWaiting = 0;
    }
    for (;;)
    {
        m_workers.remove_if([](Worker const & worker) { return worker.IsGone(); });
        if (m_workers.empty())
        {
            return true;
        }
        bool const bLeaving =
            std::ranges::any_of(m_workers, [](Worker const & worker) { return worker.state != Worker::Serving; });
        if (bLeaving)
        {
            Sleep(0);
        }
        else if (!CThreadPool::WaitForThread(m_share->done, LOOK) && !CThreadPool::IsWorthWaiting())
        {
            return CThreadPool::IsTerminated();
        }
    }
}
} // namespace kvx::cabinet
