#include "kvx/hash/SHA1.h"

#include "kvx/hash/DigestShell.h"

#include <algorithm>

CString CSHA1::GetSHA1(CFile & file)
{
    return kvx::hash::DigestOfFile<CSHA1>(file, _T("SHA1 EXCEPTION FILE"));
}

CString CSHA1::GetSHA1(CString const & path)
{
    return kvx::hash::DigestOfPath<CSHA1>(path, _T("SHA1 EXCEPTION"));
}

CString CSHA1::GetSHA1(unsigned char * data, unsigned int size)
{
    return kvx::hash::DigestOfBytes<CSHA1>(data, size, _T("SHA1 EXCEPTION"));
}

void CSHA1::Reset()
{
    m_digest.Reset();
}

void CSHA1::Update(unsigned char const * data, unsigned int size)
{
    m_digest.Update(kvx::hash::ToSpan(data, size));
}

CString CSHA1::Final()
{
    m_hash = m_digest.Final();
    return kvx::hash::ToDigits(m_hash);
}

bool CSHA1::GetHash(unsigned char * out) const
{
    if (!out)
    {
        return false;
    }
    std::ranges::copy(m_hash, out);
    return true;
}
