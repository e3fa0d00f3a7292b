#include "tests/support/Raised.h"

#include "kvx/foundation/AppException.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>

namespace
{
struct Deleter
{
    void operator()(CAppException * failure) const { failure->Delete(); }
};
using Caught = std::unique_ptr<CAppException, Deleter>;

template <class ACTION>
Caught Catch(ACTION action)
{
    try
    {
        action();
    }
    catch (CAppException * failure)
    {
        return Caught(failure);
    }
    return Caught(nullptr);
}
} // namespace

TEST(AppException, CarriesCodeAndText)
{
    Caught failure = Catch([] { ThrowAppException(5, nullptr); });
    EXPECT_EQ(failure->GetErrorCode(), 5u);
    EXPECT_EQ(failure->GetErrorText(), CWinError::GetText(5));
    EXPECT_FALSE(failure->GetErrorText().IsEmpty());
    EXPECT_EQ(failure->GetErrorText().FindOneOf(_T("\r\n")), -1);

    failure = Catch([] { MsgThrowException(87, _T("bad %s %d"), CString(_T("thing")), 7); });
    EXPECT_NE(dynamic_cast<CMsgException *>(failure.get()), nullptr);
    EXPECT_EQ(failure->GetErrorCode(), 87u);
    EXPECT_EQ(failure->GetErrorText(), _T("bad thing 7"));

    SetLastError(2);
    failure.reset(new CAppException(0, CString()));
    EXPECT_EQ(failure->GetErrorCode(), 0u);
    EXPECT_EQ(failure->GetErrorText(), CWinError::GetText(2));
    EXPECT_TRUE(CWinError::GetText(0x1FFFFFFF).IsEmpty());
}

TEST(AppException, NoTextMakesItFail)
{
    EXPECT_EQ(Catch([] { ThrowAppException(1, _T("%s"), _T("100%%")); })->GetErrorText(), _T("100%"));
    EXPECT_EQ(Catch([] { ThrowAppException(1, _T("%s"), _T("%s%n%d")); })->GetErrorText(), _T("%s%n%d"));
    EXPECT_EQ(Catch([] { ThrowAppException(1, _T("%s is missing")); })->GetErrorText(), _T("%s is missing"));
}

TEST(AppException, MessageIsCutAtTheMaximum)
{
    std::array<WCHAR, 6> buffer{'.', '.', '.', '.', '.', '.'};
    CAppException const empty;
    EXPECT_FALSE(empty.GetErrorMessage(buffer.data(), 6));
    EXPECT_EQ(buffer[0], '.');
    CAppException const failure(1, _T("abc"));
    EXPECT_TRUE(failure.GetErrorMessage(buffer.data(), 3));
    EXPECT_EQ(CString(buffer.data(), 6), _T("abc...")); // not terminated
    EXPECT_TRUE(failure.GetErrorMessage(buffer.data(), 4));
    EXPECT_EQ(CString(buffer.data()), _T("abc"));
}
