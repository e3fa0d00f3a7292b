#pragma once

/// Whole trees of the registry as XML files, with nothing left out unsaid.

#include "kvx/platform/mfc/File.h"
#include "kvx/platform/mfc/Text.h"

#include <functional>

/// What CRegistry's own functions for XML leave to chance: every failure ends the work with a code, a text and a place;
/// names with any character, empty values and all types come back; and many values cost one transaction. The format is
/// theirs, so each side reads the other's files. Beyond it a VALUE of a type without a name of its own has the
/// attribute `type-number`, and control characters, and a backslash at the end of a name, are written as character
/// references.
///
/// What the format can't hold is refused with ERROR_NO_UNICODE_TRANSLATION (names with half a surrogate pair) or
/// ERROR_FILENAME_EXCED_RANGE (keys nested more than KEY_DEPTH_MAX deep, which the reader wouldn't take).
///
/// Each function returns the system's code, 0 for success. Threads: an object is for one at a time.
class KVX_API CRegistryBackup
{
public:
    static constexpr int KEY_DEPTH_MAX = 96;

    /// A difference between the registry and a file. Texts are for people.
    struct Difference
    {
        enum Kind
        {
            onlyInRegistry,
            onlyInFile,
            differs
        };
        Kind kind;
        CString strKey;
        bool bValue;      ///< a value of the key, not the key itself
        CString strValue; ///< its name
        CString strInRegistry;
        CString strInFile;
    };

    /// Writes the key and all that is below it. Nothing is written before all names have been looked at.
    LONG Export(CString const & keyPath, CFile & file, DWORD accessFlags = 0);
    /// Reads a file from where it stands to its end, and checks all of it before the registry is changed; then makes
    /// the keys and sets the values, and leaves others as they are. The tree comes to `keyPath`, or, if that is empty,
    /// to where it was. After a failure the counts and the place tell how far it came.
    LONG Import(CFile & file, CString const & keyPath = CString(), DWORD accessFlags = 0);
    /// Tells all that an import would change, and what it would leave alone, in the order of the file and with what it
    /// doesn't have behind it. A value that the file has no data of isn't compared.
    LONG Compare(CFile & file, CString const & keyPath, std::function<void(Difference const &)> const & tell,
                 DWORD accessFlags = 0);

    // Of the last call:

    ULONGLONG GetKeyCount() const { return m_nKeys; }
    ULONGLONG GetValueCount() const { return m_nValues; }
    /// Values whose data aren't in the file: an import passes them over.
    ULONGLONG GetValuesWithoutData() const { return m_nWithoutData; }
    /// What failed, and where; empty after a success.
    CString const & GetErrorText() const { return m_strError; }

private:
    class Writer;
    class Reader;

    ULONGLONG m_nKeys = 0;
    ULONGLONG m_nValues = 0;
    ULONGLONG m_nWithoutData = 0;
    CString m_strError;

    LONG Fail(LONG code, CString const & place, CString const & text = CString());
    void Start();
};
