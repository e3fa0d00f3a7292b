#include "kvx/platform/mfc/WinApp.h"

#include "kvx/platform/mfc/StaticLock.h"

#include <mutex>

IMPLEMENT_DYNAMIC(CWinApp, CObject)
IMPLEMENT_DYNAMIC(CDynLinkLibrary, CObject)

namespace
{
constinit CStaticLock g_libraryLock;
constinit CDynLinkLibrary * g_pFirstLibrary = nullptr;
} // namespace

BOOL CWinApp::InitInstance()
{
    return TRUE;
}

int CWinApp::ExitInstance()
{
    return 0;
}

AFX_MSGMAP const * CWinApp::GetMessageMap() const
{
    static constexpr AFX_MSGMAP_ENTRY END{};
    static constexpr AFX_MSGMAP MAP{nullptr, &END};
    return &MAP;
}

BOOL AfxSocketInit()
{
    static BOOL const bStarted = []
    {
        WSADATA data;
        return WSAStartup(0x0202, &data) == 0 ? TRUE : FALSE;
    }();
    return bStarted;
}

BOOL AfxInitExtensionModule(AFX_EXTENSION_MODULE & state, HMODULE hModule)
{
    if (!state.bInitialized)
    {
        state = {TRUE, hModule, hModule};
    }
    return TRUE;
}

void AfxTermExtensionModule(AFX_EXTENSION_MODULE & state)
{
    if (!state.bInitialized)
    {
        return;
    }
    while (auto * pLibrary = CDynLinkLibrary::FromModule(state.hModule))
    {
        delete pLibrary;
    }
    state = {};
}

CDynLinkLibrary::CDynLinkLibrary(AFX_EXTENSION_MODULE const & state)
    : m_hModule(state.hModule), m_hResource(state.hResource)
{
    std::scoped_lock lock(g_libraryLock);
    m_pNextDLL = g_pFirstLibrary;
    g_pFirstLibrary = this;
}

CDynLinkLibrary::~CDynLinkLibrary()
{
    std::scoped_lock lock(g_libraryLock);
    auto ** ppLibrary = &g_pFirstLibrary;
    while (*ppLibrary && *ppLibrary != this)
    {
        ppLibrary = &(*ppLibrary)->m_pNextDLL;
    }
    if (*ppLibrary)
    {
        *ppLibrary = m_pNextDLL;
    }
}

CDynLinkLibrary * CDynLinkLibrary::FromModule(HMODULE hModule)
{
    std::scoped_lock lock(g_libraryLock);
    auto * pLibrary = g_pFirstLibrary;
    while (pLibrary && pLibrary->m_hModule != hModule)
    {
        pLibrary = pLibrary->m_pNextDLL;
    }
    return pLibrary;
}
