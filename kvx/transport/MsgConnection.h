#pragma once

/// A stream that can be established, accepted, queried and dropped: what transports derive from. Also a connection that
/// forwards to another one, and one on a file.

#include "kvx/foundation/ValueAccessor.h"
#include "kvx/transport/MsgStream.h"

class CMsgConnectionProvider;
class CMsgSendQueue;

/// Every operation gives 0 on failure and leaves the reason as the thread's last error; nothing throws.
///
/// Threads: one at a time works on a connection. Disconnect may come from another thread, and breaks a blocked Accept,
/// ReadData or WriteData.
class KVX_API CMsgConnection : public CObject, public CMsgStream
{
public:
    explicit CMsgConnection(int unicode) : CMsgStream(unicode) {}
    ~CMsgConnection() override { CMsgStream::DeleteCompact(); }

    /// The operating system's handles, which stay the connection's.
    virtual void GetHandles(void *& read, void *& write) = 0;
    /// Sets what the transport knows of the link: "type", and keys of its own.
    virtual int GetConnectionInfo(CValueAccessor & info) = 0;
    /// The local state alone: a link that the peer has dropped shows at the next transfer.
    virtual int IsConnected() = 0;
    /// Establishes the client's side of a link, after dropping what the object held. The handshake comes next.
    virtual int Connect() = 0;
    /// Drops the link; 1 also when there is none.
    virtual int Disconnect();
    /// Prepares to accept.
    virtual int Listen() = 0;
    /// Blocks until a client has come, and gives its link to `target`. 0 when this connection has been disconnected.
    virtual int Accept(CMsgConnection * target) = 0;
    /// The handshake: the client names the variant of the protocol, the server echoes. No check of identity.
    virtual int AuthenticateClient(int bCompact);
    virtual int AuthenticateServer(int & bCompact);
    /// Begins to read from the read handle; 1 also while the read is pending.
    virtual int BeginAsyncRead(void * buffer, DWORD count, OVERLAPPED * overlapped);

    /// The bytes that have been read off this object in all its life; 0 always for one that doesn't count them.
    virtual ULONGLONG GetBytesRead() const { return 0; }
    /// From here on at most so many bytes are received on this link, 0 for no limit: a read that needs more fails with
    /// 10040. What has been received ahead can be read all the same.
    virtual void LimitMessage(ULONGLONG) {}

    HANDLE GetReadHandle();
    HANDLE GetWriteHandle();
    /// For threads that take turns in writing whole messages.
    CSyncObject * GetWriteLock() { return &m_writeLock; }
    /// What writes the messages for this connection on its own thread; null if whoever has one writes it. Not owned.
    CMsgSendQueue * GetSendQueue() const { return m_pSendQueue; }
    void SetSendQueue(CMsgSendQueue * queue) { m_pSendQueue = queue; }
    CMsgConnectionProvider * GetOwner() const { return m_pOwner; }
    void SetOwner(CMsgConnectionProvider * owner) { m_pOwner = owner; }

private:
    CMsgConnectionProvider * m_pOwner = nullptr; // not owned
    CMsgSendQueue * m_pSendQueue = nullptr;
    CCriticalSection m_writeLock;
};

/// Forwards to an inner connection. Texts and compaction are the wrapper's; raw bytes reach the inner one.
class KVX_API CMsgWrapperConnection : public CMsgConnection
{
public:
    /// With `own` the inner connection is deleted along with the wrapper.
    CMsgWrapperConnection(CMsgConnection * inner, int own) : CMsgConnection(1), m_bOwn(own), m_pInner(inner) {}
    ~CMsgWrapperConnection() override;

    CMsgConnection * GetInner() const { return m_pInner; }

    void GetHandles(void *& read, void *& write) override { m_pInner->GetHandles(read, write); }
    int GetConnectionInfo(CValueAccessor & info) override { return m_pInner->GetConnectionInfo(info); }
    int IsConnected() override { return m_pInner->IsConnected(); }
    int Connect() override { return m_pInner->Connect(); }
    int Disconnect() override;
    int Listen() override { return m_pInner->Listen(); }
    /// `target` must be a wrapper too: its inner connection gets the link.
    int Accept(CMsgConnection * target) override;
    int AuthenticateClient(int bCompact) override { return m_pInner->AuthenticateClient(bCompact); }
    int AuthenticateServer(int & bCompact) override { return m_pInner->AuthenticateServer(bCompact); }
    int BeginAsyncRead(void * buffer, DWORD count, OVERLAPPED * overlapped) override
    {
        return m_pInner->BeginAsyncRead(buffer, count, overlapped);
    }
    ULONGLONG GetBytesRead() const override { return m_pInner->GetBytesRead(); }
    void LimitMessage(ULONGLONG bytes) override { m_pInner->LimitMessage(bytes); }
    int ReadData(void * buffer, DWORD count) override { return m_pInner->Read(buffer, count); }
    int WriteData(void const * buffer, DWORD count) override { return m_pInner->Write(buffer, count); }
    int FlushData() override { return m_pInner->FlushData(); }

private:
    int m_bOwn;
    CMsgConnection * m_pInner;
};

/// A file as a connection: requests and responses are written to it and read from it, with no handshake.
class KVX_API CMsgFileConnection : public CMsgConnection
{
public:
    CMsgFileConnection() : CMsgFileConnection(CString(), 0, 1) {}
    /// Doesn't open the file: Connect does. `flags` are those of CFile::Open; with `autoFlush` each write is flushed.
    CMsgFileConnection(CString const & name, int flags, int autoFlush);

    /// Closes what is open and opens another file, which Connect can then open again.
    int Open(CString const & name, int flags, int autoFlush);
    /// Closes the file and forgets it; gives 1.
    int Close();

    void GetHandles(void *& read, void *& write) override;
    int GetConnectionInfo(CValueAccessor & info) override;
    int IsConnected() override { return m_file.m_hFile != CFile::hFileNull; }
    int Connect() override;
    /// Closes the file; its name and flags stay.
    int Disconnect() override;
    int Listen() override { return 0; }
    int Accept(CMsgConnection *) override { return 0; }
    int ReadData(void * buffer, DWORD count) override;
    int WriteData(void const * buffer, DWORD count) override;

private:
    CFile m_file;
    CString m_strName;
    int m_nFlags;
    int m_bAutoFlush;
};
