#include "kvx/transport/MsgSendQueue.h"

#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgConnection.h"

#include <algorithm>
#include <array>

namespace
{
constexpr DWORD PIECE = 32768; // bytes: between two of them the reader is seen to make progress

/// Writes one message to memory, in the form that a connection uses.
class CMessageBytes : public CMsgStream
{
public:
    explicit CMessageBytes(CMsgConnection const & like) : CMsgStream(like.IsUnicode())
    {
        ResetWindow();
        if (like.IsCompact())
        {
            EnableCompact();
        }
    }
    ~CMessageBytes() override { DeleteCompact(); }

    std::vector<BYTE> Take()
    {
        FlushData();
        return std::move(m_bytes);
    }

    int ReadData(void *, DWORD) override { return 0; }
    int WriteData(void const * buffer, DWORD count) override
    {
        FlushData();
        auto const * const from = static_cast<BYTE const *>(buffer);
        m_bytes.insert(m_bytes.end(), from, from + count);
        return 1;
    }
    int FlushData() override
    {
        m_bytes.insert(m_bytes.end(), m_window.data(), m_pWriteNext);
        ResetWindow();
        return 1;
    }

private:
    std::array<BYTE, 2048> m_window;
    std::vector<BYTE> m_bytes;

    void ResetWindow()
    {
        m_pWriteNext = m_window.data();
        m_pWriteEnd = m_pWriteNext + m_window.size();
    }
};
} // namespace

CMsgSendQueue::CMsgSendQueue(CMsgConnection * connection, Limits const & limits)
    : m_pConnection(connection), m_limits(limits), m_roomEvent(FALSE, TRUE), m_quietEvent(TRUE, TRUE)
{
}

int CMsgSendQueue::Enqueue(Writer writer, void * message, bool bWaits)
{
    Bytes bytes;
    {
        CMessageBytes stream(*m_pConnection);
        if (!writer(stream, message))
        {
            return 0;
        }
        bytes = stream.Take();
    }
    CSingleLock guard(&m_lock, TRUE);
    if (bWaits ? !AwaitRoom(guard, bytes.size()) : m_nError != 0)
    {
        SetLastError(m_nError);
        return 0;
    }
    if (m_messages.empty())
    {
        m_nProgressTime = GetTickCount64();
    }
    m_nBytes += bytes.size();
    m_messages.push_back(std::move(bytes));
    if (!m_bSending)
    {
        AddRef(); // the thread's
        if (CThreadPool::BeginThread(&SendProc, this, 0))
        {
            m_bSending = true;
            m_quietEvent.ResetEvent();
        }
        else
        {
            Release(0); // the next message may have more luck
        }
    }
    return 1;
}

bool CMsgSendQueue::HasRoom(std::size_t bytes) const
{
    return m_messages.empty() || ((m_limits.nMaxMessages == 0 || m_messages.size() < m_limits.nMaxMessages) &&
                                  (m_limits.nMaxBytes == 0 || m_nBytes + bytes <= m_limits.nMaxBytes));
}

/// With the lock, which it gives up while it waits. False when nothing is taken any more.
bool CMsgSendQueue::AwaitRoom(CSingleLock & guard, std::size_t bytes)
{
    while (m_nError == 0 && !HasRoom(bytes))
    {
        ULONGLONG const idle = GetTickCount64() - m_nProgressTime;
        if (idle >= m_limits.nPatienceMs)
        {
            m_nError = ERROR_TIMEOUT;
            break;
        }
        m_roomEvent.ResetEvent();
        guard.Unlock();
        m_roomEvent.Lock(static_cast<DWORD>(m_limits.nPatienceMs - idle));
        guard.Lock();
    }
    return m_nError == 0;
}

unsigned int CMsgSendQueue::SendProc(void * param)
{
    auto * const queue = static_cast<CMsgSendQueue *>(param);
    kvx::FailingWithoutMemory(
        []
        {
            CString text;
            text.Format(_T("MsgSendQueue::SendProc: %X"), &SendProc);
            CThreadPool::MarkThread(GetCurrentThreadId(), text, 1);
            return true;
        });
    queue->SendMessages();
    queue->Release(1);
    return 0;
}

void CMsgSendQueue::SendMessages()
{
    CSingleLock guard(&m_lock, TRUE);
    for (std::size_t unflushed = 0; m_nError == 0 && !m_messages.empty();)
    {
        // What is being written stays in its place, and counts, until it is through. Nobody but this thread takes
        // messages out, save for Close, which leaves the first one. Messages that wait go out together.
        Bytes const & first = m_messages.front();
        unflushed += first.size();
        bool const bFlush = m_messages.size() == 1 || unflushed >= PIECE;
        guard.Unlock();
        DWORD const error = Send(first, bFlush);
        guard.Lock();
        unflushed = bFlush ? 0 : unflushed;
        m_nBytes -= first.size();
        m_messages.pop_front();
        m_nError = m_nError == 0 ? error : m_nError;
        m_nProgressTime = GetTickCount64();
        m_roomEvent.SetEvent();
    }
    if (m_nError != 0)
    {
        m_messages.clear();
        m_nBytes = 0;
    }
    m_bSending = false;
    m_quietEvent.SetEvent();
}

/// The error, or 0.
DWORD CMsgSendQueue::Send(Bytes const & message, bool bFlush)
{
    try
    {
        CSingleLock writing(m_pConnection->GetWriteLock(), TRUE);
        for (std::size_t at = 0; at < message.size();)
        {
            auto const step = static_cast<DWORD>(std::min<std::size_t>(PIECE, message.size() - at));
            if (!m_pConnection->Write(message.data() + at, step))
            {
                return std::max<DWORD>(GetLastError(), 1);
            }
            at += step;
            if (at < message.size())
            {
                NoteProgress();
            }
        }
        return !bFlush || m_pConnection->FlushData() ? 0 : std::max<DWORD>(GetLastError(), 1);
    }
    catch (...)
    {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

void CMsgSendQueue::NoteProgress()
{
    CSingleLock guard(&m_lock, TRUE);
    m_nProgressTime = GetTickCount64();
}

void CMsgSendQueue::Close()
{
    {
        CSingleLock guard(&m_lock, TRUE);
        m_nError = m_nError != 0 ? m_nError : DWORD{ERROR_OPERATION_ABORTED};
        std::size_t const kept = m_bSending ? 1 : 0;
        while (m_messages.size() > kept)
        {
            m_nBytes -= m_messages.back().size();
            m_messages.pop_back();
        }
        m_roomEvent.SetEvent();
    }
    CThreadPool::WaitForThread(m_quietEvent, INFINITE);
    CSingleLock guard(&m_lock, TRUE); // the thread has let go of it
}
