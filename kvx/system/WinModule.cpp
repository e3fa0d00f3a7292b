#include "kvx/system/WinModule.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"

#include <utility>

CWinModule::CWinModule(CString const & path)
{
    if (!Load(path))
    {
        AfxThrowFileException(CFileException::fileNotFound, static_cast<LONG>(GetLastError()), path);
    }
}

int CWinModule::Load(CString const & path)
{
    Free();
    m_hModule = LoadLibraryExW(path, nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    return m_hModule != nullptr;
}

int CWinModule::Free()
{
    HINSTANCE const hModule = Detach();
    return hModule && FreeLibrary(hModule);
}

void CWinModule::Attach(HINSTANCE hModule)
{
    if (hModule != m_hModule)
    {
        Free();
        m_hModule = hModule;
    }
}

HINSTANCE CWinModule::Detach()
{
    return std::exchange(m_hModule, nullptr);
}

FARPROC CWinModule::GetProcAddress(CString const & name) const
{
    if (!m_hModule)
    {
        LogError(_T("Error loading proc address '%s': Invalid module handle"), name);
        return nullptr;
    }
    return ::GetProcAddress(m_hModule, CUtilities::StringToAnsi(name));
}

HRSRC CWinModule::FindResourceW(LPCTSTR name, LPCTSTR type, WORD language) const
{
    return FindResourceExW(m_hModule, type, name, language);
}

HGLOBAL CWinModule::LoadResource(HRSRC resource) const
{
    return ::LoadResource(m_hModule, resource);
}

DWORD CWinModule::SizeofResource(HRSRC resource) const
{
    return ::SizeofResource(m_hModule, resource);
}

LPVOID CWinModule::LockResource(DWORD & size, LPCTSTR name, LPCTSTR type, WORD language) const
{
    size = 0;
    HRSRC const resource = FindResourceW(name, type, language);
    HGLOBAL const data = resource ? LoadResource(resource) : nullptr;
    LPVOID const bytes = data ? LockResource(data) : nullptr;
    if (bytes)
    {
        size = SizeofResource(resource);
    }
    return bytes;
}
