#include "tests/support/Patience.h"
#include "tests/support/Raised.h"
#include "tests/support/TestFolder.h"

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgRequest.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

namespace
{
std::mutex g_lock;

/// Keeps what it gets. The manager owns and deletes sinks, so the lines are kept outside.
class CKeepingSink : public CLogSink
{
public:
    CKeepingSink(std::vector<std::string> & lines, DWORD mask, bool bBuilt)
        : CLogSink(mask), m_lines(lines), m_bBuilt(bBuilt)
    {
    }

    void Append(CLogEvent * event) override
    {
        std::scoped_lock const guard(g_lock);
        m_lines.push_back(kvx::ToUtf8(m_bBuilt ? event->m_strBuilt : event->m_strText));
    }

private:
    std::vector<std::string> & m_lines;
    bool m_bBuilt;
};

class CThrowingSink : public CLogSink
{
public:
    CThrowingSink() : CLogSink(LOG_ALL) {}
    void Append(CLogEvent *) override { AfxThrowInvalidArgException(); }
};

template <class SINK>
class Registered
{
public:
    Registered(SINK * sink, int queued) : m_sink(sink) { CLogManager::GetInstance()->RegisterSink(sink, queued); }
    ~Registered() { CLogManager::GetInstance()->UnregisterSink(m_sink.get()); }
    Registered(Registered const &) = delete;
    Registered & operator=(Registered const &) = delete;

private:
    std::unique_ptr<SINK> m_sink;
};

/// What a sink keeps, once all that was logged has reached it.
std::vector<std::string> const & Flushed(std::vector<std::string> const & lines)
{
    EXPECT_TRUE(CLogManager::GetInstance()->Flush(PATIENCE));
    return lines;
}
using LogFile = TestFolder;
} // namespace

TEST(Log, NothingIsLoggedWithoutAQueuedSink)
{
    std::vector<std::string> immediate;
    std::vector<std::string> queued;
    Registered first(new CKeepingSink(immediate, LOG_ERROR, false), 0);
    LogError(_T("unheard"));
    Registered second(new CKeepingSink(queued, LOG_ERROR, true), 1);
    LogWarning(_T("warned %d"), 1);
    LogError(_T("failed %s"), _T("twice"));
    // The mask holds for queued sinks alone.
    EXPECT_THAT(Flushed(queued), testing::ElementsAre(testing::MatchesRegex(".* \\(E\\) failed twice")));
    EXPECT_THAT(immediate, testing::ElementsAre("warned 1", "failed twice"));
}

TEST(Log, FormatsThatCantBeCarriedOutAreLogged)
{
    std::vector<std::string> lines;
    Registered sink(new CKeepingSink(lines, LOG_ALL, false), 1);
    SetLastError(4711);
    LogError(_T("%s %n"), 5);
    LogError(nullptr);
    CObject const source;
    LogSourceError(&source, _T("text"));
    CMsgRequest request;
    request.SetCommand(_T("a.b"));
    request[_T("x")] = _T("100%");
    CLogManager::GetInstance()->LogRequestParams(request);
    EXPECT_EQ(GetLastError(), 4711u); // logging leaves the caller's error alone
    CString address;
    address.Format(_T("[%08X] text"), &source);
    EXPECT_THAT(Flushed(lines), testing::ElementsAre("LOG ERROR: %s %n", "LOG ERROR: <EMPTY FORMAT STRING>",
                                                     kvx::ToUtf8(address), "LOG ERROR: Command: a.b\n    x: 100%"));
}

TEST(Log, ArgumentsAreTakenAtTheCall)
{
    std::vector<std::string> lines;
    Registered sink(new CKeepingSink(lines, LOG_ALL, false), 1);
    {
        WCHAR text[] = {'a', 'b', 0};
        CString format = _T("%s %S %hs %d %.1f %s %.2s");
        std::string narrow = "odd";
        LogInfo(format, text, "x", narrow.c_str(), -1, 0.5, LPCTSTR(nullptr), CString(_T("cut")));
        text[0] = 'z';
        narrow = "gone";
        format.SetAt(0, 'z');
    }
    CString const large('l', 100'000); // too much to be kept apart from the format
    LogInfo(_T("%.3s|%d"), large, 7);
    LogInfo(_T("%d%d%d%d%d%d%d%d%d%d"), 1, 2, 3, 4, 5, 6, 7, 8, 9, 0); // and too many
    LogInfo(large);
    LogInfo(_T(""));
    EXPECT_THAT(Flushed(lines), testing::ElementsAre("ab x odd -1 0.5 (null) cu", "lll|7", "1234567890",
                                                     std::string(100'000, 'l'), ""));
}

TEST_F(LogFile, AFileHasOneLineForEachEventInTheOrderOfItsTimeStamps)
{
    CString const name = kvx::FromUtf8(Host("log"));
    constexpr int THREADS = 4;
    constexpr int EACH = 500;
    std::vector<std::string> seen;
    {
        Registered file(new CFileLog(name, 1, LOG_ALL), 1);
        Registered broken(new CThrowingSink, 1); // takes nothing from the others
        Registered keeper(new CKeepingSink(seen, LOG_ALL, true), 1);
        std::vector<std::thread> threads;
        for (int t = 0; t < THREADS; ++t)
        {
            threads.emplace_back(
                [t]
                {
                    for (int i = 0; i < EACH; ++i)
                    {
                        LogInfo(_T("thread %d line %d \u00e4\u20ac"), t, i);
                    }
                });
        }
        for (std::thread & thread : threads)
        {
            thread.join();
        }
        ASSERT_EQ(Flushed(seen).size(), std::size_t{THREADS * EACH});
    }
    std::istringstream text(Get("log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
    {
        ASSERT_TRUE(line.ends_with('\r'));
        lines.push_back(line.substr(0, line.size() - 1));
    }
    EXPECT_EQ(lines, seen);
    std::vector<int> next(THREADS);
    std::string last;
    std::regex const form(R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}) \(I\) thread (\d) line (\d+) ä€)");
    for (std::string const & line : lines)
    {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, form)) << line;
        EXPECT_LE(last, match[1].str());
        last = match[1];
        EXPECT_EQ(std::stoi(match[3]), next[static_cast<std::size_t>(std::stoi(match[2]))]++);
    }
}

TEST_F(LogFile, SeveralWritersOfOneFileLoseNothing)
{
    CLogEvent event;
    event.m_strBuilt = _T("line");
    Put("log", "old\n");
    {
        CString const name = kvx::FromUtf8(Host("log"));
        CFileLog first(name, 0, LOG_ALL);
        CFileLog second(name, 0, LOG_ALL); // as another process would
        for (CFileLog * const log : {&first, &second, &first})
        {
            log->Append(&event);
        }
        EXPECT_EQ(Get("log"), "old\nline\r\nline\r\nline\r\n");
        CFileLog emptied(name, 1, LOG_ALL);
        first.Append(&event);
    }
    EXPECT_EQ(Get("log"), "line\r\n");
    EXPECT_EQ(CauseOf([&] { CFileLog(_T("/no/such/folder/x"), 0, LOG_ALL).Append(&event); }),
              CFileException::invalidFile);
}

TEST(Log, TypesHaveTheirLetters)
{
    SYSTEMTIME const time{2026, 1, 0, 31, 23, 59, 8, 7};
    CString line;
    CLogSink::BuildText(line, time, LOG_VERBOSE, _T("text"), _T("!"));
    EXPECT_EQ(line, _T("2026-01-31 23:59:08.007 (V) text!"));
    EXPECT_EQ(CLogSink::GetTypeChar(LOG_WARNING | LOG_ERROR), 'I');
}

TEST_F(LogFile, AConsoleMayBeRedirected)
{
    CLogEvent event;
    event.m_strBuilt = _T("gr\u00FCn");
    {
        CFile file(kvx::FromUtf8(Host("log")), CFile::modeCreate | CFile::modeWrite);
        CConsoleLog(reinterpret_cast<HANDLE>(file.m_hFile), LOG_ALL).Append(&event);
    }
    EXPECT_EQ(Get("log"), "gr\xC3\xBCn\n");
}

// There is no way back: this runs in a process of its own.
TEST(LogDeathTest, TerminateSilencesTheLog)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            std::vector<std::string> lines;
            CLogManager::GetInstance()->RegisterSink(new CKeepingSink(lines, LOG_ALL, false), 1);
            LogInfo(_T("before"));
            bool const bBefore = Flushed(lines).size() == 1;
            CLogManager::Terminate();
            LogInfo(_T("after"));
            CLogManager::Terminate();
            std::_Exit(bBefore && lines.size() == 1 ? 3 : 4);
        },
        testing::ExitedWithCode(3), "");
}
