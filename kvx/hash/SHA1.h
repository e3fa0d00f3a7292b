#pragma once

#include "kvx/hash/Sha1Digest.h"
#include "kvx/platform/mfc/Afx.h"

/// Digests of files and bytes as lower-case hexadecimal text. A failure gives a text too, in upper case and with
/// blanks, which no digest has: look for it. Objects have no lock; the static functions may be called by any thread.
class KVX_API CSHA1
{
public:
    /// Of the whole file, which stands at its begin afterwards. A CFileException goes on to the caller; any other
    /// exception gives "SHA1 EXCEPTION FILE".
    static CString GetSHA1(CFile & file);
    /// Of the file of this path, which nobody may have open for writing. Empty if it can't be opened, with the last
    /// error; "SHA1 EXCEPTION" if it can't be read.
    static CString GetSHA1(CString const & path);
    /// "SHA1 EXCEPTION" for null with a size.
    static CString GetSHA1(unsigned char * data, unsigned int size);

    void Reset();
    void Update(unsigned char const * data, unsigned int size);
    /// The digest of what came so far. The object is of no use then until it is reset, but for GetHash.
    CString Final();
    /// Copies the 20 bytes of the last Final, zeros if there was none; false for null.
    bool GetHash(unsigned char * out) const;

private:
    kvx::hash::Sha1Digest m_digest;
    kvx::hash::Sha1Digest::Value m_hash = {}; // of Final
};
