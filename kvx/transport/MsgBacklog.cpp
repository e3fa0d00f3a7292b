#include "kvx/transport/MsgBacklog.h"

#include <array>

void CMsgBacklog::SetLimits(DWORD messages, ULONGLONG bytes)
{
    CSingleLock guard(&m_lock, TRUE);
    m_nMaxMessages = messages;
    m_nMaxBytes = bytes;
}

bool CMsgBacklog::HasRoom(ULONGLONG bytes) const
{
    return m_nMessages == 0 || ((m_nMaxMessages == 0 || m_nMessages < m_nMaxMessages) &&
                                (m_nMaxBytes == 0 || m_nBytes + bytes <= m_nMaxBytes));
}

bool CMsgBacklog::TryEnter(ULONGLONG bytes)
{
    CSingleLock guard(&m_lock, TRUE);
    if (!HasRoom(bytes))
    {
        if (!m_bFull)
        {
            m_bFull = true;
            m_roomEvent.ResetEvent();
        }
        return false;
    }
    ++m_nMessages;
    m_nBytes += bytes;
    return true;
}

void CMsgBacklog::Enter(ULONGLONG bytes)
{
    CSingleLock guard(&m_lock, TRUE);
    ++m_nMessages;
    m_nBytes += bytes;
}

void CMsgBacklog::Leave(ULONGLONG bytes)
{
    CSingleLock guard(&m_lock, TRUE);
    --m_nMessages;
    m_nBytes -= bytes;
    bool const bFew = m_nMaxMessages == 0 || m_nMessages <= m_nMaxMessages / 2;
    bool const bSmall = m_nMaxBytes == 0 || m_nBytes <= m_nMaxBytes / 2;
    if (m_bFull && ((bFew && bSmall) || m_nMessages == 0))
    {
        m_bFull = false;
        m_roomEvent.SetEvent();
    }
}

bool CMsgBacklog::AwaitRoom(HANDLE stop, DWORD timeout)
{
    std::array<HANDLE, 2> const handles{stop, m_roomEvent};
    return WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, timeout) != WAIT_OBJECT_0;
}
