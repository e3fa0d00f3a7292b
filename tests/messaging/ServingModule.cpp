#include "kvx/messaging/MsgFactory.h"
#include "kvx/messaging/MsgProvider.h"

namespace
{
/// Answers with the creator that made it and the name it was made by.
class CServing : public CMsgProvider
{
public:
    CServing(LPCTSTR creator, CString const & name) : m_strText(creator + (_T(":") + name)) {}
    void Service(CMsgRequest & request) override
    {
        request.SetResponseError(request.GetCommand().GetLength(), _T("%s"), m_strText);
        request.SetHandled(1);
    }
    int StartProvider() override { return m_strText != _T("general:lame"); }

private:
    CString m_strText;
};

class CServingFactory : public CMsgFactory
{
public:
    explicit CServingFactory(CString const & name) : m_strName(name) {}
    CMsgProvider * CreateProvider(LPCTSTR params) override { return new CServing(m_strName, params); }

private:
    CString m_strName;
};
} // namespace

KVX_MODULE_EXPORT CMsgProvider * KVXMSG_CreateInProcProvider(CString const & name)
{
    return name == _T("unknown") ? nullptr : new CServing(_T("general"), name);
}

KVX_MODULE_EXPORT CMsgProvider * KVXMSG_CreateInProcProvider_special(CString const & name)
{
    return new CServing(_T("special"), name);
}

KVX_MODULE_EXPORT CMsgFactory * KVXMSG_CreateFactory(CString const & name)
{
    return new CServingFactory(name);
}

KVX_MODULE_EXPORT CMsgFactory * MakeNothing(CString const &)
{
    return nullptr;
}
