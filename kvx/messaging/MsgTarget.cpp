#include "kvx/messaging/MsgTarget.h"

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/system/WinModule.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>
#include <vector>

namespace
{
using View = CString::View;

/// Cuts the first segment off a dotted path.
std::pair<View, View> SplitPath(View path)
{
    std::size_t const dot = path.find('.');
    return dot == View::npos ? std::pair(path, View()) : std::pair(path.substr(0, dot), path.substr(dot + 1));
}

/// The characters of a path, whatever becomes of the text that they were in: that may be the request's command, which a
/// provider can change. Short ones are copied: the count of the text's users is dear to change, as other threads may
/// change it too.
class KeptPath
{
public:
    explicit KeptPath(CString const & path) : m_nLength(View(path).size())
    {
        if (IsShort())
        {
            std::ranges::copy(View(path), m_copy.begin());
        }
        else
        {
            m_strPath = path;
        }
    }
    operator View() const { return IsShort() ? View(m_copy.data(), m_nLength) : View(m_strPath); }

private:
    std::size_t m_nLength;
    std::array<WCHAR, 64> m_copy;
    CString m_strPath;

    bool IsShort() const { return m_nLength <= m_copy.size(); }
};

/// Takes an exception off a provider or a walk and leaves it as the response's error, with a line in the log. To be
/// called from a catch-all.
struct FailureTexts
{
    LPCTSTR appException;
    LPCTSTR exception;
    LPCTSTR unknown;
    LPCTSTR unknownResponse;
};

constexpr FailureTexts SERVICE_TEXTS = {_T("ERROR! CAppException in MsgTarget:Service path = %s name= %s text = %s"),
                                        _T("ERROR! CException in MsgTarget:Service path = %s  name= %s, message = %s"),
                                        _T("ERROR! Exception in MsgTarget:Service path = %s name= %s"),
                                        _T("Service: Unhandled exception")};

// The last log text is the same as above on purpose.
constexpr FailureTexts PROVIDERS_TEXTS = {
    _T("ERROR! CAppException in MsgTarget:ServiceProviders path = %s name= %s text = %s"),
    _T("ERROR! CException in MsgTarget:ServiceProviders path = %s  name= %s, message = %s"),
    _T("ERROR! Exception in MsgTarget:Service path = %s name= %s"), _T("ServiceProviders: Unhandled exception")};

void TakeException(FailureTexts const & texts, View path, CString const & name, CMsgRequest & request)
{
    CString const at = kvx::FailingWithoutMemory([&] { return CString(path); });
    try
    {
        throw;
    }
    catch (CAppException * failure)
    {
        CString const text = failure->GetErrorText();
        request.GetResponse().SetError(failure->GetErrorCode(), _T("%s"), text);
        failure->Delete();
        LogError(texts.appException, at, name, text);
    }
    catch (std::bad_alloc const &)
    {
        request.GetResponse().SetError(ERROR_NOT_ENOUGH_MEMORY, nullptr);
        LogError(texts.exception, at, name, request.GetResponse().GetErrorText());
    }
    catch (CException * failure)
    {
        DWORD const code = GetLastError();
        std::array<WCHAR, 1024> buffer{};
        std::ranges::copy(View(_T("<NO MESSAGE>")), buffer.begin());
        failure->GetErrorMessage(buffer.data(), static_cast<UINT>(buffer.size()));
        request.GetResponse().SetError(code, _T("%s"), buffer.data());
        failure->Delete();
        LogError(texts.exception, at, name, buffer.data());
    }
    catch (...)
    {
        request.GetResponse().SetError(static_cast<DWORD>(-1), texts.unknownResponse);
        LogError(texts.unknown, at, name);
    }
}
} // namespace

CMsgTarget::CMsgTarget(CMsgTarget * parent, CString const & name) : m_pParent(parent), m_strName(name)
{
    m_strName.MakeLower();
    RegisterAutoDelete(m_children);
}

/// Goes down to the leaves with a list of its own: how deep the tree is may not decide how deep the stack goes. A
/// target that is on the list hangs in no map any more: whatever a provider does to the tree as it goes, it finds none
/// of them.
CMsgTarget::~CMsgTarget()
{
    EndProviders();
    for (CMsgTarget * open = this; open;)
    {
        CMsgTarget * const target = open;
        if (CMsgTarget * const child = target->TakeChild())
        {
            child->EndProviders();
            child->m_pEndsBefore = target;
            open = child;
            continue;
        }
        target->DetachProviders();
        open = target == this ? nullptr : target->m_pEndsBefore;
        if (target != this)
        {
            delete target;
        }
    }
}

void CMsgTarget::EndProviders()
{
    for (POSITION pos = m_providers.GetHeadPosition(); pos;)
    {
        static_cast<CMsgProvider *>(m_providers.GetNext(pos))->TargetEnding();
    }
}

void CMsgTarget::DetachProviders()
{
    while (!m_providers.IsEmpty())
    {
        DetachProvider(static_cast<CMsgProvider *>(m_providers.RemoveHead()));
    }
}

/// Null if there is none; else the caller's.
CMsgTarget * CMsgTarget::TakeChild()
{
    POSITION pos = m_children.GetStartPosition();
    if (!pos)
    {
        return nullptr;
    }
    CString name;
    CObject * child = nullptr;
    m_children.GetNextAssoc(pos, name, child);
    m_children.RemoveKey(name);
    return static_cast<CMsgTarget *>(child);
}

CString CMsgTarget::GetPath() const
{
    std::vector<CMsgTarget const *> targets;
    for (CMsgTarget const * target = this; target; target = target->m_pParent)
    {
        targets.push_back(target);
    }
    CString path = targets.back()->m_strName;
    for (auto it = targets.rbegin() + 1; it != targets.rend(); ++it)
    {
        path += _T('.');
        path += (*it)->m_strName;
    }
    return path;
}

CMsgTarget * CMsgTarget::FindChild(View segment) const
{
    auto const * const pair = m_children.PLookupLower(segment);
    return pair ? static_cast<CMsgTarget *>(pair->value) : nullptr;
}

void CMsgTarget::Service(CString const & path, CMsgRequest & request)
{
    ServicePath(KeptPath(path), request);
}

void CMsgTarget::ServicePath(View path, CMsgRequest & request)
{
    CMsgTarget * at = this;
    CMsgTarget * above = nullptr; // looked up first: a handler may delete its own target
    View rest = path;
    try
    {
        for (;;)
        {
            if (rest.empty())
            {
                return;
            }
            auto const [head, tail] = SplitPath(rest);
            CMsgTarget * const child = at->FindChild(head);
            if (!child)
            {
                at->ServiceProviders(at, request);
                break;
            }
            if (tail.empty())
            {
                at->ServiceProviders(child, request);
                request.SetHandled(1); // a leaf that exists has handled the command, even without providers
                break;
            }
            above = at;
            at = child;
            rest = tail;
        }
        while (above && !request.IsHandled())
        {
            at = above;
            above = at == this ? nullptr : at->m_pParent ? at->m_pParent : this; // the root is nobody's parent
            at->ServiceProviders(at, request);
        }
    }
    catch (...)
    {
        TakeException(SERVICE_TEXTS, rest, at->m_strName, request);
    }
}

void CMsgTarget::ServiceProviders(CMsgTarget * target, CMsgRequest & request)
{
    for (POSITION pos = target->m_providers.GetHeadPosition(); pos;)
    {
        auto * const provider = static_cast<CMsgProvider *>(target->m_providers.GetNext(pos));
        try
        {
            provider->Service(request);
        }
        catch (...)
        {
            TakeException(PROVIDERS_TEXTS, request.GetCommand(), m_strName, request);
        }
    }
}

void CMsgTarget::Forward(CMsgRequest & request)
{
    CString path = request.GetCommand();
    path.Replace(GetPath() + _T("."), _T(""));
    Service(path, request);
}

int CMsgTarget::RegisterProvider(CString const & path, CMsgProvider * provider)
{
    constexpr View ROOT = _T("root:");
    if (!provider)
    {
        return 0;
    }
    View rest = path;
    if (rest.starts_with(ROOT))
    {
        rest.remove_prefix(ROOT.size());
        if (!m_strName.IsEmpty())
        {
            return CMsgDispatcher::GetInstance()->GetRootTarget()->RegisterProvider(CString(rest), provider);
        }
    }
    CMsgTarget * target = this;
    CMsgTarget * parent = nullptr; // of the first target that is made for it
    CMsgTarget * made = nullptr;
    auto const build = [&]
    {
        while (!rest.empty())
        {
            auto const [head, tail] = SplitPath(rest);
            CMsgTarget * child = target->FindChild(head);
            if (!child)
            {
                auto fresh =
                    std::make_unique<CMsgTarget>(target->m_strName.IsEmpty() ? nullptr : target, CString(head));
                target->m_children.SetAt(fresh->m_strName, fresh.get());
                child = fresh.release();
                if (!made)
                {
                    parent = target;
                    made = child;
                }
            }
            target = child;
            rest = tail;
        }
        return target->AddProvider(provider);
    };
    try
    {
        return build();
    }
    catch (...)
    {
        if (made) // a target that nobody serves would answer for one that isn't there
        {
            CString const name = made->m_strName;
            parent->m_children.RemoveKey(name);
            delete made;
        }
        throw;
    }
}

int CMsgTarget::AddProvider(CMsgProvider * provider)
{
    if (m_providers.Find(provider))
    {
        return 0;
    }
    m_providers.AddTail(provider);
    provider->AddRef(); // it is its maker's still when this fails
    try
    {
        provider->SetTarget(this);
        provider->RegisterProviderMap();
    }
    catch (...)
    {
        RemoveProvider(provider, 1);
        provider->Release(0);
        throw;
    }
    provider->Release(0);
    return 1;
}

POSITION CMsgTarget::FindProvider(CString const & params) const
{
    for (POSITION pos = m_providers.GetHeadPosition(); pos;)
    {
        POSITION const here = pos;
        if (static_cast<CMsgProvider *>(m_providers.GetNext(pos))->GetProviderParams() == params)
        {
            return here;
        }
    }
    return nullptr;
}

int CMsgTarget::RemoveProvider(CMsgProvider * provider, int detach)
{
    POSITION const pos = m_providers.Find(provider);
    if (!pos)
    {
        return 0;
    }
    m_providers.RemoveAt(pos);
    if (detach)
    {
        DetachProvider(provider);
    }
    return 1;
}

int CMsgTarget::RemoveProvider(CString const & params, int detach)
{
    POSITION const pos = FindProvider(params);
    return pos ? RemoveProvider(static_cast<CMsgProvider *>(m_providers.GetAt(pos)), detach) : 0;
}

int CMsgTarget::UnregisterProvider(CString const & path, CMsgProvider * provider)
{
    return LookupTarget(path)->RemoveProvider(provider, 0);
}

CMsgProvider * CMsgTarget::LookupProvider(CString const & params) const
{
    POSITION const pos = FindProvider(params);
    return pos ? static_cast<CMsgProvider *>(m_providers.GetAt(pos)) : nullptr;
}

void CMsgTarget::DetachProvider(CMsgProvider * provider)
{
    // The provider's code must stay loaded until the provider is gone.
    CWinModule * const module = provider->GetInProcModule();
    if (static_cast<LONG>(provider->DetachTarget()) < 1)
    {
        delete module;
    }
}

CMsgTarget * CMsgTarget::LookupTarget(CString const & path)
{
    CMsgTarget * target = this;
    for (View rest = path; !rest.empty();)
    {
        auto const [head, tail] = SplitPath(rest);
        CMsgTarget * const child = target->FindChild(head);
        if (!child)
        {
            break;
        }
        target = child;
        rest = tail;
    }
    return target;
}

int CMsgTarget::DeleteTarget(CString const & path)
{
    return DeleteTargetAt(path);
}

int CMsgTarget::DeleteTargetAt(View rest)
{
    CMsgTarget * at = this;
    for (;;)
    {
        auto const [head, tail] = SplitPath(rest);
        CMsgTarget * const child = at->FindChild(head);
        if (!child)
        {
            return 0;
        }
        if (tail.empty())
        {
            at->m_children.RemoveKey(child->m_strName);
            delete child;
            return 1;
        }
        at = child;
        rest = tail;
    }
}
