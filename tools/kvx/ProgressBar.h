#pragma once

#include "kvx/platform/host.h"

/// A bar on stderr while somebody at a terminal waits for much work: how far it is, how fast, and how long it will
/// take. It goes with the object.
class ProgressBar
{
public:
    /// Bytes in all. 256 MiB or less show no bar.
    explicit ProgressBar(ULONGLONG size);
    ProgressBar(ProgressBar const &) = delete;
    ProgressBar & operator=(ProgressBar const &) = delete;
    ~ProgressBar() { Hide(); }

    void Add(ULONGLONG size);
    /// Clears the line, for something else to be written; it comes back.
    void Hide();

private:
    ULONGLONG const m_nSize;
    ULONGLONG const m_nStart;
    bool const m_bWanted;
    ULONGLONG m_nDone = 0;
    ULONGLONG m_nShown = 0; // when
    bool m_bVisible = false;
};
