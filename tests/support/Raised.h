#pragma once

#include "kvx/platform/mfc/Exception.h"

/// Runs the action. The cause of the CFileException or CArchiveException that it raised, 0 if it raised nothing,
/// -1 for an exception of another class.
template <class ACTION>
int CauseOf(ACTION action)
{
    try
    {
        action();
        return 0;
    }
    catch (CFileException * pException)
    {
        auto const cause = pException->m_cause;
        pException->Delete();
        return cause;
    }
    catch (CArchiveException * pException)
    {
        auto const cause = pException->m_cause;
        pException->Delete();
        return cause;
    }
    catch (CException * pException)
    {
        pException->Delete();
        return -1;
    }
}

/// True if the action raised an exception of that class.
template <class EXCEPTION, class ACTION>
bool Raises(ACTION action)
{
    try
    {
        action();
        return false;
    }
    catch (EXCEPTION * pException)
    {
        pException->Delete();
        return true;
    }
}
