#pragma once

/// Log events, and the sinks that take them: a file, the debugger, a console.

#include "kvx/platform/mfc/Afx.h"

// Event types: one bit each.
inline constexpr DWORD LOG_INFORMATION = 1;
inline constexpr DWORD LOG_WARNING = 2;
inline constexpr DWORD LOG_ERROR = 4;
inline constexpr DWORD LOG_VERBOSE = 16;
inline constexpr DWORD LOG_ALL = 31;

/// One event on its way to the sinks. Objects are reused.
class KVX_API CLogEvent : public CObject
{
public:
    DWORD m_nType = 0;
    SYSTEMTIME m_time{}; // local
    DWORD m_nThreadId = 0;
    DWORD m_nSessionId = 0;
    CString m_strText;
    CString m_strBuilt;

    /// Makes the built text, a line without its end.
    void BuildText();
    WCHAR GetTypeChar() const;
    /// Empties the texts.
    void Reset();
};

/// Takes events. The manager calls one sink at a time, so that a sink needs no lock; it must not wait for another
/// thread that registers or removes sinks.
class KVX_API CLogSink : public CObject
{
public:
    explicit CLogSink(DWORD mask) : m_nMask(mask) {}

    virtual void Append(CLogEvent * event) = 0;
    virtual void ShutDown() {}

    /// 1 if any bit is common.
    int IsActive(DWORD mask) const { return (m_nMask & mask) != 0; }
    void SetActive(DWORD mask) { m_nMask = mask; }

    /// "2026-01-31 23:59:59.007 (I) text" and the suffix, if any.
    static void BuildText(CString & out, SYSTEMTIME const & time, DWORD type, CString const & text, LPCTSTR suffix);
    /// I, W, E, V; I for anything else.
    static WCHAR GetTypeChar(DWORD type);

private:
    DWORD m_nMask;
};

/// Lines of UTF-8 without a byte-order mark, ended by CR LF. An existing file is kept, and any process may read or
/// write it meanwhile: each line goes to the end of the file as one piece, so that several processes can share a log.
/// A file that can't be opened leaves a sink whose Append throws a CFileException *.
class KVX_API CFileLog : public CLogSink
{
public:
    /// With `truncate` 1 the file is emptied first.
    CFileLog(LPCTSTR path, int truncate, DWORD mask);
    CFileLog(CFileLog const &) = delete;
    CFileLog & operator=(CFileLog const &) = delete;
    ~CFileLog() override;
    void Append(CLogEvent * event) override;

private:
    CFile m_file;
    CStringA m_strLine;
};

/// The debugger's output, with no time stamp.
class KVX_API CDebugLog : public CLogSink
{
public:
    explicit CDebugLog(DWORD mask = LOG_ALL) : CLogSink(mask) {}
    void Append(CLogEvent * event) override;
};

/// A console, or what the output was redirected to, which gets UTF-8; a null handle means this process's own, which is
/// made if there is none.
class KVX_API CConsoleLog : public CLogSink
{
public:
    explicit CConsoleLog(HANDLE handle = nullptr, DWORD mask = LOG_ALL);
    void Append(CLogEvent * event) override;

private:
    HANDLE m_hOutput;
};
