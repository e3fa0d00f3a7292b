#include "kvx/platform/mfc/Sync.h"

IMPLEMENT_DYNAMIC(CSyncObject, CObject)
IMPLEMENT_DYNAMIC(CCriticalSection, CSyncObject)
IMPLEMENT_DYNAMIC(CEvent, CSyncObject)
IMPLEMENT_DYNAMIC(CMutex, CSyncObject)

CSyncObject::~CSyncObject()
{
    if (m_hObject)
    {
        CloseHandle(m_hObject);
    }
}

BOOL CSyncObject::Lock(DWORD dwTimeout)
{
    auto const nResult = WaitForSingleObject(m_hObject, dwTimeout);
    return nResult == WAIT_OBJECT_0 || nResult == WAIT_ABANDONED;
}

BOOL CSyncObject::Unlock(LONG, LONG *)
{
    return TRUE;
}

BOOL CCriticalSection::Lock(DWORD)
{
    return Lock();
}

BOOL CCriticalSection::Unlock()
{
    LeaveCriticalSection(&m_sect);
    kvx::EndSection();
    return TRUE;
}

CEvent::CEvent(BOOL bInitiallyOwn, BOOL bManualReset, LPCTSTR lpszName, SECURITY_ATTRIBUTES * lpsaAttribute)
    : CSyncObject(CreateEventW(lpsaAttribute, bManualReset, bInitiallyOwn, lpszName))
{
    if (!m_hObject)
    {
        AfxThrowResourceException();
    }
}

BOOL CEvent::Unlock()
{
    return TRUE;
}

CMutex::CMutex(BOOL bInitiallyOwn, LPCTSTR lpszName, SECURITY_ATTRIBUTES * lpsaAttribute)
    : CSyncObject(CreateMutexW(lpsaAttribute, bInitiallyOwn, lpszName))
{
    if (!m_hObject)
    {
        AfxThrowResourceException();
    }
}

BOOL CMutex::Unlock()
{
    return ReleaseMutex(m_hObject);
}
