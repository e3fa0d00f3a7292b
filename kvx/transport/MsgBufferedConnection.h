#pragma once

/// A connection that gathers what one message writes and reads ahead: a message costs one system call a side.

#include "kvx/transport/MsgConnection.h"

#include <memory>

/// A transport supplies SendAll and ReceiveSome. Bytes, order and error results are those of an unbuffered connection;
/// a failed send shows at the end of the message.
///
/// Buffers are small while messages are, and large ones are given back behind a large message, so that a connection
/// that waits for its next message holds little memory.
class KVX_API CMsgBufferedConnection : public CMsgConnection
{
public:
    explicit CMsgBufferedConnection(int unicode) : CMsgConnection(unicode) {}

    ULONGLONG GetBytesRead() const override;
    void LimitMessage(ULONGLONG bytes) override;
    int ReadData(void * buffer, DWORD count) override;
    int WriteData(void const * buffer, DWORD count) override;
    int FlushData() override;

protected:
    /// Sends all bytes or fails. With `bMore` the rest of the message follows at once, and the transport may keep back
    /// what fills no packet: short packets in the middle of a message would wait for the peer's acknowledgement.
    virtual int SendAll(void const * buffer, DWORD count, bool bMore) = 0;
    /// Waits for bytes: how many have come, at most `size`; 0 on failure and at the end of the link.
    virtual DWORD ReceiveSome(void * buffer, DWORD size) = 0;

    /// Forgets what is buffered: called when a new link begins.
    void ResetBuffers();

private:
    static constexpr ULONGLONG NO_LIMIT = ~ULONGLONG{0};

    std::unique_ptr<BYTE[]> m_read;
    std::unique_ptr<BYTE[]> m_write;
    DWORD m_nReadSize = 0;
    DWORD m_nWriteSize = 0;
    ULONGLONG m_nReceived = 0; // in all, what is still buffered included
    ULONGLONG m_nReceiveLimit = NO_LIMIT;
    bool m_bReadFull = false; // the last receive filled the buffer: more is likely to wait

    DWORD Receive(void * buffer, DWORD size);
    bool FillReadBuffer();
    bool GrowWriteBuffer();
};
