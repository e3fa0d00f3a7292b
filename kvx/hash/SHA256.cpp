#include "kvx/hash/SHA256.h"

#include "kvx/hash/BlockInput.h"
#include "kvx/hash/DigestShell.h"

CString CSHA256::GetSHA256(CFile & file)
{
    return kvx::hash::DigestOfFile<CSHA256>(file, _T("SHA256 EXCEPTION FILE"));
}

CString CSHA256::GetSHA256(CString const & path)
{
    return kvx::hash::DigestOfPath<CSHA256>(path, _T("SHA256 EXCEPTION"));
}

CString CSHA256::GetSHA256(unsigned char * data, unsigned int size)
{
    return kvx::hash::DigestOfBytes<CSHA256>(data, size, _T("SHA256 EXCEPTION"));
}

void CSHA256::Reset()
{
    m_digest.Reset();
}

void CSHA256::Update(void const * data, unsigned int size)
{
    m_digest.Update(kvx::hash::ToSpan(data, size));
}

CString CSHA256::Final()
{
    kvx::hash::Sha256Digest::Value hash = m_digest.Final();
    CString text = kvx::hash::ToDigits(hash);
    kvx::hash::Wipe(hash.data(), hash.size());
    return text;
}
