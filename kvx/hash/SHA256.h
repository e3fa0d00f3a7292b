#pragma once

#include "kvx/hash/Sha256Digest.h"
#include "kvx/platform/mfc/Afx.h"

/// Digests of files and bytes as lower-case hexadecimal text. A failure gives a text too, in upper case and with
/// blanks, which no digest has: look for it. Objects have no lock; the static functions may be called by any thread.
class KVX_API CSHA256
{
public:
    /// Of the whole file, which stands at its begin afterwards. A CFileException goes on to the caller; any other
    /// exception gives "SHA256 EXCEPTION FILE".
    static CString GetSHA256(CFile & file);
    /// Of the file of this path, which nobody may have open for writing. Empty if it can't be opened, with the last
    /// error; "SHA256 EXCEPTION" if it can't be read.
    static CString GetSHA256(CString const & path);
    /// "SHA256 EXCEPTION" for null with a size.
    static CString GetSHA256(unsigned char * data, unsigned int size);

    void Reset();
    void Update(void const * data, unsigned int size);
    /// The digest of what came so far; the object has begun anew then.
    CString Final();

private:
    kvx::hash::Sha256Digest m_digest;
};
