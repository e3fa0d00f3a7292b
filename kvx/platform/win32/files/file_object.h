#pragma once

/// The object behind the handle of a file.

#include "kvx/platform/win32/files/io_object.h"
#include "kvx/platform/win32/files/share_table.h"
#include "kvx/platform/win32/unique_fd.h"

#include <atomic>
#include <string>
#include <utility>

#include <sys/types.h>

namespace kvx::win32
{

class File final : public IoObject
{
public:
    static constexpr Kind KIND = Kind::File;
    static constexpr bool Matches(Kind kind) noexcept { return kind == KIND; }

    File(UniqueFd file, bool bRead, bool bWrite, mode_t nMode) noexcept : File(file.Get(), bRead, bWrite, nMode)
    {
        m_owned = std::move(file);
    }
    /// For a descriptor that isn't closed with it.
    File(int nDescriptor, bool bRead, bool bWrite, mode_t nMode) noexcept
        : IoObject(KIND), m_nDescriptor(nDescriptor), m_bRead(bRead), m_bWrite(bWrite), m_nMode(nMode)
    {
    }
    ~File() override;

    int GetDescriptor() const { return m_nDescriptor; }
    bool CanWrite() const { return m_bWrite; }

    /// Notes the opening among those of the process; false when one of them doesn't go with it.
    bool Enter(Opening const & opening);
    void DeleteOnClose(std::string strHost) { m_strDeleted = std::move(strHost); }

    void OnHandleClosed() noexcept override;
    BOOL Read(void * pBuffer, DWORD nBytes, DWORD & nRead, OVERLAPPED * pOverlapped) override;
    BOOL Write(void const * pBuffer, DWORD nBytes, DWORD & nWritten, OVERLAPPED * pOverlapped) override;
    BOOL Flush() override;
    DWORD GetType() const override;

private:
    void Leave() noexcept;

    int const m_nDescriptor;
    UniqueFd m_owned;
    bool const m_bRead;
    bool const m_bWrite;
    mode_t const m_nMode;
    std::atomic<bool> m_bEntered{false};
    Opening m_opening;
    std::string m_strDeleted;
};

} // namespace kvx::win32
