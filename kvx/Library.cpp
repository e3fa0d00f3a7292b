/// The static objects of the library that depend on each other, in one place: they are constructed from top to bottom
/// when the library is loaded, and go from bottom to top.
///
/// Everything else that is static is constant-initialised, or made at its first use and independent of these.

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgInProcFactory.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/msgdata/MsgDataSet.h"
#include "kvx/system/WinSecurity.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgStream.h"

namespace
{
/// What the library does when it is loaded and unloaded. It is the last of the statics, so that it sees all of them
/// alive.
class LibraryEntry
{
public:
    LibraryEntry()
        : m_pModule((AfxInitExtensionModule(m_extension, GetModuleHandleW(nullptr)), new CDynLinkLibrary(m_extension)))
    {
    }
    LibraryEntry(LibraryEntry const &) = delete;
    LibraryEntry & operator=(LibraryEntry const &) = delete;

    /// An application that hasn't ended the pool's threads has them ended here, while all that they may use is there.
    ~LibraryEntry()
    {
        constexpr DWORD PATIENCE = 1000; // milliseconds for each thread
        if (!CKVXBaseApp::IsShuttingDown())
        {
            CKVXBaseApp::InitShutdown();
            CThreadPool::TerminateAllThreads(PATIENCE);
        }
        delete m_pModule;
        AfxTermExtensionModule(m_extension);
    }

private:
    AFX_EXTENSION_MODULE m_extension{};
    CDynLinkLibrary * m_pModule;
};
} // namespace

CWinSecurityDescriptor CWinSecurityDescriptor::NULL_DACL(1);
CWinSecurityAttributes CWinSecurityAttributes::NULL_DACL(0, CWinSecurityDescriptor::NULL_DACL);

CLogManager CLogManager::sm_instance;

CStringValue const CMsgDataSet::EMPTY_DATA;

CMsgDispatcher CMsgDispatcher::sm_instance;

CString const CMsgInProcFactory::CREATE_PROVIDER = _T("KVXMSG_CreateInProcProvider");

CString const CMsgProvider::PROVIDER_STARTING = _T("starting");
CString const CMsgProvider::PROVIDER_STARTED = _T("started");
CString const CMsgProvider::PROVIDER_STOPPING = _T("stopping");
CString const CMsgProvider::PROVIDER_STOPPED = _T("stopped");

CCache<CMsgStream::CCompactInfo> CMsgStream::sm_cacheCompact;

CIntToStrLookup CThreadPool::sm_threadMap;
constinit DWORD CThreadPool::sm_dwThreadCtxTLS = 0;
CThreadPool CThreadPool::sm_instance;

static LibraryEntry const s_entry;
