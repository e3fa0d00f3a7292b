#pragma once

#include "kvx/platform/mfc/Afx.h"

/// The parts of a URL. Threads: an object is for one at a time.
class KVX_API CInternetUrl
{
public:
    /// What Decode is to take; each part with its most characters, one less than the system's buffer.
    enum Parts : unsigned int
    {
        SCHEME = 1,   ///< 49
        HOST = 2,     ///< 255, and the port
        USER = 4,     ///< 255
        PASSWORD = 8, ///< 255
        PATH = 16,    ///< 1023
        EXTRA = 32,   ///< 4095: from the first "?" or "#" on; without it this is a part of the path
        ALL = 63
    };

    CInternetUrl() = default;
    virtual ~CInternetUrl() = default;
    CInternetUrl(CInternetUrl const & other) = default;
    CInternetUrl & operator=(CInternetUrl const & other) = default;

    /// Takes the wanted parts of a URL, decoded; the others stay as they are. 0 with the last error, and nothing
    /// changed: 122 for a part that is too long, 12005 for a malformed URL, 12006 for a text without a scheme, 87 for
    /// an empty one. No other check is made.
    int Decode(CString const & url, unsigned int parts);
    /// The URL of the parts, escaped; empty with the last error: 122 for one of 12,000 characters or more, 87 without a
    /// scheme, with a port that is none, or with a password but no user. A port of 0 is the scheme's own.
    CString Encode() const;

    CString const & GetScheme() const { return m_strScheme; }
    CString const & GetHost() const { return m_strHost; }
    /// 0: not known.
    int GetPort() const { return m_nPort; }
    CString const & GetUser() const { return m_strUser; }
    CString const & GetPassword() const { return m_strPassword; }
    CString const & GetPath() const { return m_strPath; }
    CString const & GetExtraInfo() const { return m_strExtraInfo; }
    void SetScheme(CString const & scheme) { m_strScheme = scheme; }
    void SetHost(CString const & host) { m_strHost = host; }
    void SetPort(int port) { m_nPort = port; }
    void SetUser(CString const & user) { m_strUser = user; }
    void SetPassword(CString const & password) { m_strPassword = password; }
    void SetPath(CString const & path) { m_strPath = path; }
    void SetExtraInfo(CString const & extraInfo) { m_strExtraInfo = extraInfo; }

private:
    CString m_strScheme;
    CString m_strHost;
    int m_nPort = 0;
    CString m_strUser;
    CString m_strPassword;
    CString m_strPath;
    CString m_strExtraInfo;
};
