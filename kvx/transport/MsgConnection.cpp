#include "kvx/transport/MsgConnection.h"

#include "kvx/foundation/AppException.h"
#include "kvx/logging/LogManager.h"

#include <array>
#include <string_view>

namespace
{
constexpr std::string_view TAG_PLAIN = "QLDR";
constexpr std::string_view TAG_COMPACT = "VJOP";
constexpr DWORD TAG_SIZE = 4;

using Tag = std::array<char, TAG_SIZE>;

std::string_view View(Tag const & tag)
{
    return {tag.data(), tag.size()};
}
} // namespace

int CMsgConnection::Disconnect()
{
    DeleteCompact();
    return 1;
}

int CMsgConnection::AuthenticateClient(int bCompact)
{
    std::string_view const tag = bCompact ? TAG_COMPACT : TAG_PLAIN;
    Tag answer{};
    if (WriteData(tag.data(), TAG_SIZE) && FlushData() && ReadData(answer.data(), TAG_SIZE))
    {
        if (View(answer) == tag)
        {
            return 1;
        }
        SetLastError(ERROR_INVALID_ACCESS);
    }
    LogSourceError(this, _T("Client authentication error: %s"), CWinError::GetLastErrorText());
    return 0;
}

int CMsgConnection::AuthenticateServer(int & bCompact)
{
    bCompact = 0;
    Tag tag{};
    if (ReadData(tag.data(), TAG_SIZE))
    {
        if (View(tag) == TAG_COMPACT || View(tag) == TAG_PLAIN)
        {
            bCompact = View(tag) == TAG_COMPACT;
            if (WriteData(tag.data(), TAG_SIZE) && FlushData())
            {
                return 1;
            }
        }
        else
        {
            SetLastError(ERROR_INVALID_ACCESS);
        }
    }
    LogSourceError(this, _T("Server authentication error: %s"), CWinError::GetLastErrorText());
    return 0;
}

HANDLE CMsgConnection::GetReadHandle()
{
    void * read = nullptr;
    void * write = nullptr;
    GetHandles(read, write);
    return read;
}

HANDLE CMsgConnection::GetWriteHandle()
{
    void * read = nullptr;
    void * write = nullptr;
    GetHandles(read, write);
    return write;
}

int CMsgConnection::BeginAsyncRead(void * buffer, DWORD count, OVERLAPPED * overlapped)
{
    DWORD got = 0;
    return ReadFile(GetReadHandle(), buffer, count, &got, overlapped) || GetLastError() == ERROR_IO_PENDING;
}

CMsgWrapperConnection::~CMsgWrapperConnection()
{
    if (m_bOwn)
    {
        delete m_pInner;
    }
}

int CMsgWrapperConnection::Disconnect()
{
    CMsgConnection::Disconnect();
    return m_pInner->Disconnect();
}

int CMsgWrapperConnection::Accept(CMsgConnection * target)
{
    auto * const wrapper = dynamic_cast<CMsgWrapperConnection *>(target);
    if (!wrapper)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return m_pInner->Accept(wrapper->m_pInner);
}

CMsgFileConnection::CMsgFileConnection(CString const & name, int flags, int autoFlush)
    : CMsgConnection(1), m_strName(name), m_nFlags(flags), m_bAutoFlush(autoFlush)
{
}

void CMsgFileConnection::GetHandles(void *& read, void *& write)
{
    read = m_file.m_hFile;
    write = m_file.m_hFile;
}

int CMsgFileConnection::GetConnectionInfo(CValueAccessor & info)
{
    info.CreateValue(_T("filename")) = m_strName;
    return 1;
}

int CMsgFileConnection::Connect()
{
    return IsConnected() || m_file.Open(m_strName, static_cast<UINT>(m_nFlags));
}

int CMsgFileConnection::Disconnect()
{
    if (IsConnected())
    {
        try
        {
            m_file.Close();
        }
        catch (CException * failure)
        {
            failure->Delete();
        }
    }
    return 1;
}

int CMsgFileConnection::Close()
{
    if (IsConnected())
    {
        Disconnect();
        m_strName.Empty();
        m_nFlags = 0;
        m_bAutoFlush = 1;
    }
    return 1;
}

int CMsgFileConnection::Open(CString const & name, int flags, int autoFlush)
{
    Close();
    if (!m_file.Open(name, static_cast<UINT>(flags)))
    {
        return 0;
    }
    m_strName = name;
    m_nFlags = flags;
    m_bAutoFlush = autoFlush;
    return 1;
}

int CMsgFileConnection::ReadData(void * buffer, DWORD count)
{
    return kvx::ReadFully(m_file, buffer, count);
}

int CMsgFileConnection::WriteData(void const * buffer, DWORD count)
{
    return kvx::WriteFully(m_file, buffer, count, m_bAutoFlush != 0);
}
