#pragma once

#include "kvx/platform/host.h"

#include <gtest/gtest.h>

#include <type_traits>

/// Whether a call gave the value that means failure, and left that code.
template <class RESULT>
testing::AssertionResult Fails(RESULT result, LONGLONG nError, std::type_identity_t<RESULT> failure = {})
{
    DWORD const dwError = GetLastError();
    if (result == failure && dwError == static_cast<DWORD>(nError))
    {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "gave " << testing::PrintToString(result) << " with code " << dwError
                                       << ", not " << nError;
}
