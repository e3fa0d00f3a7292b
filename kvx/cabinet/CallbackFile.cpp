#include "kvx/cabinet/CallbackFile.h"

#include <array>
#include <cstring>
#include <utility>

namespace kvx::cabinet
{
CallbackFile::~CallbackFile()
{
    if (IsOpen())
    {
        int error = 0;
        m_host.calls.close(m_handle, &error, m_host.context);
    }
}

void CallbackFile::Open(char const * name, int flags)
{
    std::array<char, 512> copy{};
    static_assert(copy.size() >= NAME_ROOM);
    std::memcpy(copy.data(), name, strnlen(name, copy.size() - 1));
    int error = 0;
    INT_PTR const handle =
        m_host.calls.open(copy.data(), flags, OPEN_PERMISSION_READ | OPEN_PERMISSION_WRITE, &error, m_host.context);
    Adopt(handle, error);
}

void CallbackFile::Adopt(INT_PTR handle, int error)
{
    if (handle == -1)
    {
        throw CabFailure{m_error, error};
    }
    m_handle = handle;
}

UINT CallbackFile::Read(void * to, UINT size)
{
    int error = 0;
    UINT const count = m_host.calls.read(m_handle, to, size, &error, m_host.context);
    if (count > size)
    {
        throw CabFailure{m_error, error};
    }
    return count;
}

void CallbackFile::ReadAll(void * to, UINT size)
{
    auto * at = static_cast<char *>(to);
    while (size > 0)
    {
        UINT const count = Read(at, size);
        if (count == 0)
        {
            throw CabFailure{m_error}; // it was longer before
        }
        at += count;
        size -= count;
    }
}

void CallbackFile::Write(void const * from, UINT size)
{
    int error = 0;
    if (size > 0 && m_host.calls.write(m_handle, const_cast<void *>(from), size, &error, m_host.context) != size)
    {
        throw CabFailure{m_error, error};
    }
}

void CallbackFile::Seek(LONG position)
{
    int error = 0;
    if (m_host.calls.seek(m_handle, position, 0, &error, m_host.context) != position)
    {
        throw CabFailure{m_error, error};
    }
}

void CallbackFile::Close()
{
    int error = 0;
    if (IsOpen() && m_host.calls.close(std::exchange(m_handle, -1), &error, m_host.context) != 0)
    {
        throw CabFailure{m_error, error};
    }
}
} // namespace kvx::cabinet
