#include "kvx/system/VersionNumber.h"

#include "kvx/foundation/StringValue.h"

#include <algorithm>

CVersionNumber::CVersionNumber(unsigned int const * numbers)
{
    if (!numbers)
    {
        AfxThrowInvalidArgException();
    }
    std::copy_n(numbers, m_numbers.size(), m_numbers.begin());
}

unsigned int & CVersionNumber::operator[](int index)
{
    if (index < 0 || index >= static_cast<int>(m_numbers.size()))
    {
        AfxThrowInvalidArgException();
    }
    return m_numbers[static_cast<std::size_t>(index)];
}

unsigned int CVersionNumber::operator[](int index) const
{
    CVersionNumber copy = *this;
    return copy[index];
}

void CVersionNumber::FromString(CString const & text)
{
    CString plain = text;
    plain.Replace(',', '.');
    plain.Remove(' ');
    Reset();
    int position = 0;
    for (unsigned int & number : m_numbers)
    {
        // Behind the last part there are only empty ones.
        CString const part = position < 0 ? CString() : plain.Tokenize(_T("."), position);
        number = static_cast<unsigned int>(CStringValue(part).ToInteger());
    }
}

CString CVersionNumber::ToString(int parts, char const * separator) const
{
    CString text;
    CString const between(separator);
    for (int i = 0; i < parts && i < static_cast<int>(m_numbers.size()); ++i)
    {
        text.AppendFormat(_T("%s%u"), i > 0 ? between : CString(), m_numbers[static_cast<std::size_t>(i)]);
    }
    return text;
}

int CVersionNumber::Compare(CVersionNumber const & other) const
{
    auto const order = m_numbers <=> other.m_numbers;
    return order < 0 ? -1 : order > 0;
}

CVersionNumber & CVersionNumber::operator+=(CVersionNumber const & other)
{
    std::ranges::transform(m_numbers, other.m_numbers, m_numbers.begin(), std::plus());
    return *this;
}

void CVersionNumber::Serialize(CArchive & archive)
{
    if (archive.IsStoring())
    {
        archive.Write(m_numbers.data(), sizeof m_numbers);
    }
    else
    {
        std::array<unsigned int, 4> read{};
        archive.EnsureRead(read.data(), sizeof read);
        m_numbers = read;
    }
}
