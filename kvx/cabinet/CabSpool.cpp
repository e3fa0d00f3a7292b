#include "kvx/cabinet/CabSpool.h"

#include <algorithm>

namespace kvx::cabinet
{
CabSpool::TemporaryFile::TemporaryFile(CallbackHost const & host) : file(host, FCIERR_TEMP_FILE), m_host(host)
{
    if (!m_host.calls.getTempFile(m_name.data(), static_cast<int>(m_name.size()), m_host.context))
    {
        throw CabFailure{FCIERR_TEMP_FILE};
    }
    m_name.back() = '\0';
    file.Open(m_name.data(), OPEN_NEW_TEMPORARY);
    m_bExists = true;
}

CabSpool::TemporaryFile::~TemporaryFile()
{
    if (m_bExists)
    {
        // Callbacks differ in what a result of theirs means; and what can't be deleted stays either way.
        int error = 0;
        try
        {
            file.Close();
        }
        catch (CabFailure const &)
        {
            // Nobody will read it any more.
        }
        m_host.calls.remove(m_name.data(), &error, m_host.context);
    }
}

CabSpool::CabSpool(CallbackHost const & host, std::pmr::memory_resource * memory, LONG fileSize)
    : m_host(host), m_nFileSize(fileSize), m_files(memory)
{
    m_files.emplace_back(m_host);
}

void CabSpool::MoveTo(TemporaryFile & file, LONG position)
{
    if (file.position != position)
    {
        file.position = -1; // should the call fail
        file.file.Seek(position);
        file.position = position;
    }
}

void CabSpool::Write(std::span<std::uint8_t const> data)
{
    TemporaryFile * last = &m_files.back();
    if (last->read == last->written)
    {
        last->read = last->written = 0; // all of it was read: from the start again
    }
    auto const size = static_cast<LONG>(data.size());
    if (last->written > 0 && size > m_nFileSize - last->written)
    {
        last = &m_files.emplace_back(m_host);
    }
    MoveTo(*last, last->written);
    last->file.Write(data.data(), static_cast<UINT>(size));
    last->written += size;
    last->position += size;
}

void CabSpool::Read(std::span<std::uint8_t> data)
{
    while (!data.empty())
    {
        TemporaryFile & first = m_files.front();
        LONG const count =
            static_cast<LONG>(std::min(data.size(), static_cast<std::size_t>(first.written - first.read)));
        if (count == 0)
        {
            if (m_files.size() == 1)
            {
                throw CabFailure{FCIERR_MCI_FAIL};
            }
            m_files.pop_front();
            continue;
        }
        MoveTo(first, first.read);
        first.file.ReadAll(data.data(), static_cast<UINT>(count));
        first.read += count;
        first.position += count;
        data = data.subspan(static_cast<std::size_t>(count));
    }
}
} // namespace kvx::cabinet
