#include "kvx/hash/MD5Checksum.h"

#include "kvx/hash/DigestShell.h"

CString CMD5Checksum::GetMD5(CFile & file)
{
    return kvx::hash::DigestOfFile<CMD5Checksum>(file, _T("MD5 EXCEPTION FILE"));
}

CString CMD5Checksum::GetMD5(CString const & path)
{
    return kvx::hash::DigestOfPath<CMD5Checksum>(path, _T("MD5 EXCEPTION"));
}

CString CMD5Checksum::GetMD5(unsigned char * data, unsigned int size)
{
    return kvx::hash::DigestOfBytes<CMD5Checksum>(data, size, _T("MD5 EXCEPTION"));
}

void CMD5Checksum::Update(unsigned char * data, ULONG size)
{
    m_digest.Update(kvx::hash::ToSpan(data, size));
}

CString CMD5Checksum::Final()
{
    return kvx::hash::ToDigits(m_digest.Final());
}
