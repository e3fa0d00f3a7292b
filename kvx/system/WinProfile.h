#pragma once

/// An INI file: sections of named texts. Comments, order and lines that aren't understood survive a write.

#include "kvx/platform/mfc/Afx.h"

class CValueAccessor;

/// One file and a current section, which stands in where a call's section is null.
/// Threads: one at a time on an object; several objects may use one file.
class KVX_API CWinProfile
{
public:
    CWinProfile() = default;
    explicit CWinProfile(LPCTSTR path, LPCTSTR section = nullptr) : m_strPath(path), m_strSection(section) {}
    virtual ~CWinProfile() = default;

    void SetPath(LPCTSTR path) { m_strPath = path; }
    CString const & GetPath() const { return m_strPath; }
    void SetSection(LPCTSTR section) { m_strSection = section; }
    CString const & GetSection() const { return m_strSection; }

    /// The number at the head of the value.
    int GetInt(LPCTSTR key, int defaultValue = 0, LPCTSTR section = nullptr) const;
    /// At most 8191 characters.
    CString GetString(LPCTSTR key, LPCTSTR defaultValue = nullptr, LPCTSTR section = nullptr) const;
    /// 0 with the last error on failure. A null value removes the key.
    int SetString(LPCTSTR key, LPCTSTR value, LPCTSTR section = nullptr);
    int SetInt(LPCTSTR key, int value, LPCTSTR section = nullptr);

    /// Replace the array's contents by the names, in the order of the file; the number of them.
    int GetKeys(CStringArray & keys, LPCTSTR section = nullptr) const;
    int GetSections(CStringArray & sections) const;
    /// Adds all keys of a section to the values, or writes each value; the latter is 0 if one couldn't be written.
    void GetValues(CValueAccessor & values, LPCTSTR section = nullptr) const;
    int SetValues(CValueAccessor const & values, LPCTSTR section = nullptr);

private:
    CString m_strPath;
    CString m_strSection;

    CString SectionOf(LPCTSTR section) const { return section ? CString(section) : m_strSection; }
    CString QueryStrings(LPCTSTR section) const;
    static int ParseStrings(CString const & list, CStringArray & strings);
};
