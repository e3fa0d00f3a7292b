#include "kvx/cabinet/CabDecompression.h"

#include "kvx/cabinet/CallbackMemory.h"
#include "kvx/cabinet/FolderStream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

namespace kvx::cabinet
{
namespace
{
constexpr std::size_t ENTRIES_BUFFER = 65536;
constexpr std::size_t HEADER_BUFFER = 4096;
constexpr std::size_t PATH_ROOM = 260; // of psz3, which callbacks copy paths to
// How much decompressing over again one Copy may want, in bytes before and after compression together, and in times of
// the cabinet's size; more isn't a cabinet, but an attack.
constexpr std::uint64_t REPLAY_BASE = 64 << 20;
constexpr std::uint64_t REPLAY_FACTOR = 64;
// What a block counts: it may take long to give little.
constexpr std::uint64_t BLOCK_WORK = BLOCK_SIZE + MAX_COMPRESSED_BLOCK;

struct FileEntry
{
    std::uint32_t size;
    std::uint32_t offset;
    std::uint16_t folder;
    USHORT date;
    USHORT time;
    USHORT attributes;
    char name[MAX_NAME + 1];

    bool BeganEarlier() const { return folder == CONTINUED_FROM_PREVIOUS || folder == CONTINUED_BOTH; }
    bool EndsLater() const { return folder == CONTINUED_TO_NEXT || folder == CONTINUED_BOTH; }
};

bool ReadEntry(CabBuffer & buffer, FileEntry & file)
{
    std::uint8_t const * const fields = buffer.Read(FILE_SIZE);
    if (!fields)
    {
        return false;
    }
    file.size = GetDword(fields);
    file.offset = GetDword(fields + 4);
    file.folder = GetWord(fields + 8);
    file.date = GetWord(fields + 10);
    file.time = GetWord(fields + 12);
    file.attributes = GetWord(fields + 14);
    char const * const name = buffer.ReadText(MAX_NAME);
    if (!name)
    {
        return false;
    }
    std::strcpy(file.name, name);
    return true;
}
} // namespace

class CabDecompression::Impl : FolderStream::Guide
{
public:
    Impl(Callbacks const & callbacks, ERF * erf)
        : m_callbacks(callbacks), m_erf(erf), m_memory(callbacks.alloc, callbacks.free),
          m_entries(ENTRIES_BUFFER, &m_memory)
    {
        SetError(FDIERROR_NONE);
    }

    BOOL IsCabinet(INT_PTR hf, FDICABINETINFO * info);
    BOOL Copy(char const * cabinet, char const * path, PFNFDINOTIFY notify, void * context);
    void SetError(FDIERROR error)
    {
        m_erf->erfOper = error;
        m_erf->erfType = error == FDIERROR_ALLOC_FAIL ? ENOMEM : 0;
        m_erf->fError = error != FDIERROR_NONE;
    }

private:
    Callbacks const m_callbacks;
    ERF * m_erf;
    CallbackMemory m_memory;
    CabBuffer m_entries;
    PFNFDINOTIFY m_notify = nullptr;
    void * m_context = nullptr;

    // The cabinet in hand.
    FolderPart m_cabinet;

    // The folder that was decompressed last, and its number there.
    std::optional<FolderStream> m_stream;
    std::uint16_t m_streamFolder = 0;
    std::uint64_t m_workLeft = 0; // that this Copy may still take, in bytes
    bool m_goesOn = false;        // a file of the cabinet in hand ends in a later one
    bool m_isCopying = false;

    FDIERROR CopyCabinet(char const * cabinet, char const * path);
    FDIERROR CheckFolders(CabSource & source);
    FDIERROR CopyFiles();
    FDIERROR CopyFile(FileEntry & file, std::uint16_t folder);
    FDIERROR CopyData(FileEntry const & file, std::uint16_t folder, INT_PTR hf);
    FDIERROR SelectFolder(std::uint16_t folder);
    bool BeginsEarlier();
    void ContinueStream();
    FDIERROR FindNext(FolderPart const & last, FolderPart & next) override;
    FDIERROR OpenNext(FolderPart const & last, FolderPart & next);

    INT_PTR Notify(FDINOTIFICATIONTYPE type, FDINOTIFICATION & notification)
    {
        notification.pv = m_context;
        return m_notify(type, &notification);
    }
    FDIERROR NotifyCabinet(FolderPart & part);
};

BOOL CabDecompression::Impl::IsCabinet(INT_PTR hf, FDICABINETINFO * info)
{
    CabHeader header;
    FDIERROR error;
    try
    {
        // A Copy that is at work has the other buffer.
        CabSource source(m_callbacks);
        CabBuffer buffer(HEADER_BUFFER, &m_memory);
        error = source.Attach(hf) ? header.Read(source, buffer) : FDIERROR_NOT_A_CABINET;
    }
    catch (std::bad_alloc const &)
    {
        error = FDIERROR_ALLOC_FAIL;
    }
    SetError(error);
    if (error != FDIERROR_NONE || !info)
    {
        return error == FDIERROR_NONE;
    }
    *info = {};
    info->cbCabinet = static_cast<LONG>(header.size);
    info->cFolders = header.folders;
    info->cFiles = header.files;
    info->setID = header.setID;
    info->iCabinet = header.number;
    info->fReserve = (header.flags & FLAG_RESERVE) != 0;
    info->hasprev = (header.flags & FLAG_PREVIOUS) != 0;
    info->hasnext = (header.flags & FLAG_NEXT) != 0;
    return TRUE;
}

BOOL CabDecompression::Impl::Copy(char const * cabinet, char const * path, PFNFDINOTIFY notify, void * context)
{
    if (m_isCopying || !cabinet || !notify)
    {
        SetError(FDIERROR_MDI_FAIL);
        return FALSE;
    }
    m_isCopying = true;
    m_notify = notify;
    m_context = context;
    FDIERROR error = FDIERROR_MDI_FAIL;
    auto const finish = [&]
    {
        m_isCopying = false;
        if (error != FDIERROR_NONE)
        {
            m_stream.reset(); // its place isn't known
        }
        else if (m_stream)
        {
            m_stream->Suspend();
        }
        SetError(error);
    };
    try
    {
        error = CopyCabinet(cabinet, path ? path : "");
    }
    catch (std::bad_alloc const &)
    {
        error = FDIERROR_ALLOC_FAIL;
    }
    catch (...)
    {
        finish(); // a callback's own
        throw;
    }
    finish();
    return error == FDIERROR_NONE;
}

FDIERROR CabDecompression::Impl::CopyCabinet(char const * cabinet, char const * path)
{
    m_cabinet = {};
    m_cabinet.path = path;
    m_cabinet.name = cabinet;
    CabSource source(m_callbacks);
    if (!source.Open((m_cabinet.path + m_cabinet.name).c_str()))
    {
        return FDIERROR_CABINET_NOT_FOUND;
    }
    if (FDIERROR const error = m_cabinet.header.Read(source, m_entries))
    {
        return error;
    }
    if (FDIERROR const error = CheckFolders(source))
    {
        return error;
    }
    ContinueStream();
    if (FDIERROR const error = NotifyCabinet(m_cabinet))
    {
        return error;
    }
    if (FDIERROR const error = CopyFiles())
    {
        return error;
    }
    // Where the last folder goes on, the next cabinet takes it up from here.
    CabHeader const & header = m_cabinet.header;
    if (m_goesOn && header.flags & FLAG_NEXT)
    {
        return SelectFolder(static_cast<std::uint16_t>(header.folders - 1));
    }
    m_stream.reset();
    return FDIERROR_NONE;
}

// Folders that share blocks would make much of little: a cabinet is at least as large as the headers of all its blocks.
FDIERROR CabDecompression::Impl::CheckFolders(CabSource & source)
{
    std::uint64_t blocks = 0;
    FolderPart part = m_cabinet;
    for (unsigned folder = 0; folder < m_cabinet.header.folders; folder++)
    {
        if (FDIERROR const error = part.Read(m_entries, static_cast<std::uint16_t>(folder)))
        {
            return error;
        }
        blocks += part.blocks;
    }
    std::uint64_t const size = source.GetSize();
    m_workLeft = blocks * BLOCK_WORK + REPLAY_BASE + size * REPLAY_FACTOR;
    return blocks * BLOCK_HEADER_SIZE <= size ? FDIERROR_NONE : FDIERROR_CORRUPT_CABINET;
}

// Whether the first folder of the cabinet began in one before, which the first file tells.
bool CabDecompression::Impl::BeginsEarlier()
{
    FileEntry file;
    m_entries.GoTo(m_cabinet.header.filesAt);
    return m_cabinet.header.files > 0 && ReadEntry(m_entries, file) && file.BeganEarlier();
}

// The folder of the Copy before goes on as the first one of this cabinet, if they belong together.
void CabDecompression::Impl::ContinueStream()
{
    if (!m_stream)
    {
        return;
    }
    CabHeader const & header = m_cabinet.header;
    auto const isThis = [&](FolderPart const & part)
    {
        return part.path == m_cabinet.path && part.name == m_cabinet.name && part.header.setID == header.setID &&
               part.header.number == header.number;
    };
    FolderPart const & last = m_stream->GetLast();
    FolderPart part = m_cabinet;
    m_workLeft += m_stream->GetBlockCount() * BLOCK_WORK; // of which some may not have been read yet
    if (m_stream->GetPartCount() > 1 && isThis(last))
    {
        m_streamFolder = 0;
    }
    else if (last.header.flags & FLAG_NEXT && header.flags & FLAG_PREVIOUS && header.folders &&
             last.path == m_cabinet.path && last.name == header.previousName && last.header.setID == header.setID &&
             last.header.number + 1 == header.number && BeginsEarlier() && part.Read(m_entries, 0) == FDIERROR_NONE &&
             part.method == last.method && part.header.blockReserve == last.header.blockReserve)
    {
        m_stream->Append(std::move(part));
        m_streamFolder = 0;
    }
    else
    {
        m_stream.reset();
    }
}

FDIERROR CabDecompression::Impl::NotifyCabinet(FolderPart & part)
{
    FDINOTIFICATION notification = {};
    notification.psz1 = part.header.nextName;
    notification.psz2 = part.header.nextDisk;
    notification.psz3 = part.path.data();
    notification.setID = part.header.setID;
    notification.iCabinet = part.header.number;
    return Notify(fdintCABINET_INFO, notification) == -1 ? FDIERROR_USER_ABORT : FDIERROR_NONE;
}

FDIERROR CabDecompression::Impl::CopyFiles()
{
    CabHeader const & header = m_cabinet.header;
    FDINOTIFICATION range = {};
    range.cb = static_cast<LONG>(header.filesAt);
    range.iFolder = header.files;
    range.setID = header.setID;
    if (Notify(fdintENUMERATE, range) == -1)
    {
        return FDIERROR_USER_ABORT;
    }
    std::uint32_t entryAt = static_cast<std::uint32_t>(range.cb);
    bool isFirstFolderContinued = false;
    m_goesOn = false;
    for (unsigned left = range.iFolder; left > 0; left--)
    {
        // In between the buffer may have been at a folder's entry.
        FileEntry file;
        m_entries.GoTo(entryAt);
        if (!ReadEntry(m_entries, file))
        {
            return FDIERROR_CORRUPT_CABINET;
        }
        entryAt = m_entries.GetOffset();
        unsigned const folder = file.folder == CONTINUED_TO_NEXT ? header.folders - 1u
                                : file.BeganEarlier()            ? 0u
                                                                 : file.folder;
        if (folder >= header.folders)
        {
            return FDIERROR_CORRUPT_CABINET;
        }
        isFirstFolderContinued |= file.BeganEarlier();
        m_goesOn |= file.EndsLater();
        bool const hasStream = m_stream && m_streamFolder == 0;
        if (file.BeganEarlier() || (folder == 0 && isFirstFolderContinued && !hasStream))
        {
            FDINOTIFICATION partial = {};
            partial.psz1 = file.name;
            partial.psz2 = m_cabinet.header.previousName;
            partial.psz3 = m_cabinet.header.previousDisk;
            if (Notify(fdintPARTIAL_FILE, partial) == -1)
            {
                return FDIERROR_USER_ABORT;
            }
            continue;
        }
        if (FDIERROR const error = CopyFile(file, static_cast<std::uint16_t>(folder)))
        {
            return error;
        }
    }
    range.cb = static_cast<LONG>(entryAt);
    range.iFolder = 0;
    return Notify(fdintENUMERATE, range) == -1 ? FDIERROR_USER_ABORT : FDIERROR_NONE;
}

FDIERROR CabDecompression::Impl::CopyFile(FileEntry & file, std::uint16_t folder)
{
    FDINOTIFICATION notification = {};
    notification.cb = static_cast<LONG>(file.size);
    notification.psz1 = file.name;
    notification.date = file.date;
    notification.time = file.time;
    notification.attribs = file.attributes;
    notification.setID = m_cabinet.header.setID;
    notification.iCabinet = m_cabinet.header.number;
    notification.iFolder = folder;
    INT_PTR const hf = Notify(fdintCOPY_FILE, notification);
    if (hf == 0)
    {
        return FDIERROR_NONE;
    }
    if (hf == -1)
    {
        return FDIERROR_USER_ABORT;
    }
    FDIERROR error;
    try
    {
        error = CopyData(file, folder, hf);
    }
    catch (std::bad_alloc const &)
    {
        error = FDIERROR_ALLOC_FAIL;
    }
    catch (...)
    {
        m_callbacks.close(hf);
        throw;
    }
    if (error != FDIERROR_NONE)
    {
        m_callbacks.close(hf);
        return error;
    }
    notification.cb = (file.attributes & CAB_ATTRIBUTE_EXECUTE) != 0;
    notification.psz1 = file.name;
    notification.attribs = static_cast<USHORT>(file.attributes & ~CAB_ATTRIBUTE_EXECUTE);
    notification.hf = hf;
    INT_PTR const result = Notify(fdintCLOSE_FILE_INFO, notification);
    return result == 0 || result == -1 ? FDIERROR_USER_ABORT : FDIERROR_NONE;
}

FDIERROR CabDecompression::Impl::SelectFolder(std::uint16_t folder)
{
    if (m_stream && m_streamFolder == folder)
    {
        return FDIERROR_NONE;
    }
    m_stream.reset();
    FolderPart part = m_cabinet;
    if (FDIERROR const error = part.Read(m_entries, folder))
    {
        return error;
    }
    m_stream.emplace(m_callbacks, &m_memory, std::move(part));
    m_streamFolder = folder;
    return FDIERROR_NONE;
}

FDIERROR CabDecompression::Impl::CopyData(FileEntry const & file, std::uint16_t folder, INT_PTR hf)
{
    if (file.size == 0)
    {
        return FDIERROR_NONE;
    }
    if (FDIERROR const error = SelectFolder(folder))
    {
        return error;
    }
    std::uint64_t const end = std::uint64_t{file.offset} + file.size;
    if (m_stream->GetPosition() > file.offset)
    {
        m_stream->Restart();
    }
    Guide * const guide = file.EndsLater() ? this : nullptr;
    while (m_stream->GetPosition() < end)
    {
        bool const isBefore = m_stream->GetPosition() < file.offset;
        std::span<std::uint8_t const> bytes;
        FDIERROR const error = m_stream->Next((isBefore ? file.offset : end) - m_stream->GetPosition(), guide, bytes);
        if (error)
        {
            return error;
        }
        std::uint64_t const work = m_stream->TakeBlockCount() * BLOCK_WORK;
        if (work > m_workLeft)
        {
            return FDIERROR_CORRUPT_CABINET;
        }
        m_workLeft -= work;
        // The callback's memory isn't const; it reads all the same.
        UINT const size = static_cast<UINT>(bytes.size());
        if (!isBefore && m_callbacks.write(hf, const_cast<std::uint8_t *>(bytes.data()), size) != size)
        {
            return FDIERROR_TARGET_FILE;
        }
    }
    return FDIERROR_NONE;
}

FDIERROR CabDecompression::Impl::FindNext(FolderPart const & last, FolderPart & next)
{
    if (!(last.header.flags & FLAG_NEXT))
    {
        return FDIERROR_CORRUPT_CABINET;
    }
    std::string path = last.path;
    path.resize(std::max(path.size(), PATH_ROOM) + 1);
    FDIERROR error = FDIERROR_NONE;
    for (int i = 0; i < NEXT_CABINET_TRIES; i++)
    {
        CabHeader header = last.header;
        FDINOTIFICATION notification = {};
        notification.psz1 = header.nextName;
        notification.psz2 = header.nextDisk;
        notification.psz3 = path.data();
        notification.setID = header.setID;
        notification.iCabinet = static_cast<USHORT>(header.number + 1);
        notification.fdie = error;
        if (Notify(fdintNEXT_CABINET, notification) == -1)
        {
            return FDIERROR_USER_ABORT;
        }
        next.path = path.c_str();
        next.name = last.header.nextName;
        error = OpenNext(last, next);
        if (!error)
        {
            m_workLeft += next.blocks * BLOCK_WORK;
            return NotifyCabinet(next);
        }
    }
    return error;
}

FDIERROR CabDecompression::Impl::OpenNext(FolderPart const & last, FolderPart & next)
{
    CabSource source(m_callbacks);
    CabBuffer buffer(HEADER_BUFFER, &m_memory);
    if (!source.Open((next.path + next.name).c_str()))
    {
        return FDIERROR_CABINET_NOT_FOUND;
    }
    if (FDIERROR const error = next.header.Read(source, buffer))
    {
        return error;
    }
    if (next.header.setID != last.header.setID || next.header.number != last.header.number + 1)
    {
        return FDIERROR_WRONG_CABINET;
    }
    if (next.header.blockReserve != last.header.blockReserve)
    {
        return FDIERROR_RESERVE_MISMATCH;
    }
    FDIERROR const error = next.header.folders ? next.Read(buffer, 0) : FDIERROR_WRONG_CABINET;
    return !error && next.method != last.method ? FDIERROR_WRONG_CABINET : error;
}

std::unique_ptr<CabDecompression> CabDecompression::Create(Callbacks const & callbacks, ERF * erf)
{
    try
    {
        return std::unique_ptr<CabDecompression>(new CabDecompression(std::make_unique<Impl>(callbacks, erf)));
    }
    catch (std::bad_alloc const &)
    {
        *erf = {FDIERROR_ALLOC_FAIL, ENOMEM, TRUE};
        return nullptr;
    }
}

CabDecompression::CabDecompression(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
CabDecompression::~CabDecompression() = default;

BOOL CabDecompression::IsCabinet(INT_PTR hf, FDICABINETINFO * info)
{
    return m_impl->IsCabinet(hf, info);
}

BOOL CabDecompression::Copy(char const * cabinet, char const * path, PFNFDINOTIFY notify, void * context)
{
    return m_impl->Copy(cabinet, path, notify, context);
}
} // namespace kvx::cabinet
