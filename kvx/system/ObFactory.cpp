#include "kvx/system/ObFactory.h"

#include <vector>

CObFactory * CObFactoryMap::CreateFactory(LPCTSTR library, LPCTSTR name)
{
    CWinModule module;
    if (!module.Load(library))
    {
        return nullptr;
    }
    CString procedure;
    procedure.Format(_T("KVX_Create_%s"), name);
    FARPROC const create = module.GetProcAddress(procedure);
    if (!create)
    {
        DWORD const code = GetLastError(); // unloading may change it
        module.Free();
        SetLastError(code);
        return nullptr;
    }
    return new CObFactory(library, module.Detach(),
                          reinterpret_cast<CObFactory::CreateProc>(reinterpret_cast<void *>(create)));
}

CObFactory * CObFactoryMap::LoadFactory(LPCTSTR library, LPCTSTR name)
{
    CObject * factory = m_factories.Lookup(name);
    if (!factory)
    {
        CSingleLock const guard(m_factories, TRUE);
        factory = m_factories.Lookup(name);
        if (!factory && (factory = CreateFactory(library, name)))
        {
            m_factories.SetAt(name, factory);
        }
    }
    return static_cast<CObFactory *>(factory);
}

CObject * CObFactoryMap::CreateObject(LPCTSTR name, LPCTSTR library)
{
    CObject * const factory = library ? LoadFactory(library, name) : m_factories.Lookup(name);
    return factory ? static_cast<CObFactory *>(factory)->CreateObject() : nullptr;
}

void CObFactoryMap::UnloadFactory(LPCTSTR name)
{
    CSingleLock const guard(m_factories, TRUE);
    delete m_factories.RemoveKey(name);
}

void CObFactoryMap::UnloadFactories(LPCTSTR library)
{
    CSingleLock const guard(m_factories, TRUE);
    if (!library || !*library)
    {
        m_factories.RemoveAll(1);
        return;
    }
    std::vector<CString> names;
    CString name;
    CObFactory * factory = nullptr;
    for (POSITION pos = GetStartPosition(); pos;)
    {
        GetNext(pos, name, factory);
        if (factory->HasLibrary(library))
        {
            names.push_back(name);
        }
    }
    for (CString const & each : names)
    {
        delete m_factories.RemoveKey(each);
    }
}

CObFactory * CObFactoryMap::GetNext(POSITION & pos) const
{
    CString name;
    CObFactory * factory = nullptr;
    GetNext(pos, name, factory);
    return factory;
}

void CObFactoryMap::GetNext(POSITION & pos, CString & name, CObFactory *& factory) const
{
    CObject * object = nullptr;
    m_factories.GetNextAssoc(pos, name, object);
    factory = static_cast<CObFactory *>(object);
}
