#pragma once

/// A path in its four parts.

#include "kvx/foundation/Stringable.h"

/// Drive with its colon, directory with its closing separator, title, and extension with its dot: put together they are
/// the path again, whatever it was. Backslash and slash both separate; a drive is any one character before a colon, so
/// that "\\server\share\x" and "/usr/x" have none. Nothing looks at the file system but the two that give names.
/// Null is the empty path everywhere. Threads: one at a time changes an object.
class KVX_API CFilePath : public CStringable
{
public:
    CFilePath() = default;
    CFilePath(CString const & path) { FromString(path); }
    CFilePath(LPCTSTR path) { FromString(path); }
    CFilePath & operator=(CString const & path)
    {
        FromString(path);
        return *this;
    }
    CFilePath & operator=(LPCTSTR path)
    {
        FromString(path);
        return *this;
    }

    void FromString(CString const & path) override;
    CString ToString() const override;
    void Empty();
    void Copy(CFilePath const & other) { *this = other; }

    CString const & GetDrive() const { return m_strDrive; }
    CString const & GetDirectory() const { return m_strDirectory; }
    CString const & GetFile() const { return m_strFile; }
    CString const & GetExtension() const { return m_strExtension; }
    /// Each part is taken as it is given.
    void SetDrive(CString const & drive) { m_strDrive = drive; }
    void SetDirectory(CString const & directory) { m_strDirectory = directory; }
    void SetFile(CString const & file) { m_strFile = file; }
    void SetExtension(CString const & extension) { m_strExtension = extension; }

    /// Drive and directory.
    CString GetLocation() const { return m_strDrive + m_strDirectory; }
    /// Title and extension.
    CString GetFileName() const { return m_strFile + m_strExtension; }

    /// For display: shortened by "..." in its middle to less than `width` characters, 260 at most. Empty for a width of
    /// 0.
    CString GetCompactPath(unsigned int width) const;
    /// The same to so many pixels in the context's font.
    CString GetCompactPath(HDC context, unsigned int pixels) const;

    // One part of a text.
    static CString ParseDrive(LPCTSTR path) { return CFilePath(path).m_strDrive; }
    static CString ParseDirectory(LPCTSTR path) { return CFilePath(path).m_strDirectory; }
    static CString ParseFile(LPCTSTR path) { return CFilePath(path).m_strFile; }
    static CString ParseExtension(LPCTSTR path) { return CFilePath(path).m_strExtension; }
    static CString ParseFileName(LPCTSTR path) { return CFilePath(path).GetFileName(); }
    static CString ParseLocation(LPCTSTR path) { return CFilePath(path).GetLocation(); }

    /// The path in short names ("PROGRA~1") where there are any. Empty, with the last error, if there is no such file,
    /// or the path has 260 or more characters.
    static CString GetShortPathNameW(LPCTSTR path);
    /// The path with its short names made long, and without a prefix "\\?\". What comes behind the last folder that
    /// exists stays as it was, and so does a path that has no "~".
    static CString GetLongPathNameW(LPCTSTR path);

private:
    CString m_strDrive;
    CString m_strDirectory;
    CString m_strFile;
    CString m_strExtension;

    static CString GetLongPathNameImpl(CString const & path);
    static CString Emulate_GetLongPathName(CString const & path);
};
