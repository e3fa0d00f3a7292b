#pragma once

/// The share modes of files: which openings of one file go together, in this process.

#include "kvx/platform/win32/types.h"

#include <sys/types.h>

namespace kvx::win32
{

/// Identity and share modes of an opened plain file in the table of all openings of the process.
struct Opening
{
    dev_t device = 0;
    ino_t inode = 0;
    DWORD dwAccess = 0; ///< FILE_SHARE_READ, _WRITE and _DELETE, for what this opening does itself
    DWORD dwShare = 0;
};

/// Notes an opening; false when one that is there doesn't go with it. What was entered is to be left again. Any thread.
bool EnterOpening(Opening const & opening);
void LeaveOpening(Opening const & opening) noexcept;

/// Whether every opening of the file in this process lets it be deleted or renamed. Any thread.
bool MayDeleteFile(dev_t device, ino_t inode);

/// Holds a place in the table for the length of a call.
class TransientOpening
{
public:
    explicit TransientOpening(Opening const & opening) : m_opening(opening), m_bEntered(EnterOpening(opening)) {}
    ~TransientOpening()
    {
        if (m_bEntered)
        {
            LeaveOpening(m_opening);
        }
    }
    TransientOpening(TransientOpening const &) = delete;
    TransientOpening & operator=(TransientOpening const &) = delete;
    explicit operator bool() const { return m_bEntered; }

private:
    Opening m_opening;
    bool m_bEntered;
};

} // namespace kvx::win32
