#pragma once

#include "kvx/hash/Md5Digest.h"
#include "kvx/platform/mfc/Afx.h"

/// Digests of files and bytes as lower-case hexadecimal text. A failure gives a text too, in upper case and with
/// blanks, which no digest has: look for it. Objects have no lock; the static functions may be called by any thread.
class KVX_API CMD5Checksum
{
public:
    /// Of the whole file, which stands at its begin afterwards. A CFileException goes on to the caller; any other
    /// exception gives "MD5 EXCEPTION FILE".
    static CString GetMD5(CFile & file);
    /// Of the file of this path, which nobody may have open for writing. Empty if it can't be opened, with the last
    /// error; "MD5 EXCEPTION" if it can't be read.
    static CString GetMD5(CString const & path);
    /// "MD5 EXCEPTION" for null with a size.
    static CString GetMD5(unsigned char * data, unsigned int size);

    virtual ~CMD5Checksum() = default;

    void Update(unsigned char * data, ULONG size);
    /// The digest of what came so far. The object doesn't begin anew, and can't be made to: take another one.
    CString Final();

private:
    kvx::hash::Md5Digest m_digest;
};
