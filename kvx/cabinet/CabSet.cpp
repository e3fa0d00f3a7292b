#include "kvx/cabinet/CabSet.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace kvx::cabinet
{
namespace
{
constexpr std::size_t PIECE = 262144; // bytes that are copied at once

/// What entries of files take in a cabinet, and the first file behind them.
struct EntriesCost
{
    std::int64_t bytes = 0;
    std::size_t count = 0;
    std::size_t next = 0;
};

std::uint64_t GetEnd(CabFileEntry const & file)
{
    return std::uint64_t{file.offset} + file.size;
}

/// Whether a file belongs into a cabinet that holds its folder's data whole up to `end`, and to some part up to
/// `touched`; an earlier one has taken what ends before.
bool BeginsBefore(CabFileEntry const & file, std::uint64_t end, std::uint64_t touched)
{
    return file.offset < touched || (file.size == 0 && file.offset <= end);
}

EntriesCost GetCost(CabFolder const & folder, std::size_t from, std::uint64_t end, std::uint64_t touched)
{
    EntriesCost cost;
    cost.next = from;
    for (; cost.next < folder.files.size() && BeginsBefore(folder.files[cost.next], end, touched); cost.next++)
    {
        std::size_t const behind =
            cost.next + 1 < folder.files.size() ? folder.files[cost.next + 1].name : folder.names.size();
        cost.bytes += static_cast<std::int64_t>(FILE_SIZE + behind - folder.files[cost.next].name);
        cost.count++;
    }
    return cost;
}

bool IsSameFile(CCAB const & left, CCAB const & right)
{
    auto const isSame = [](char const * a, char const * b)
    {
        auto const lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; };
        return std::ranges::equal(std::string_view(a), std::string_view(b), {}, lower, lower);
    };
    return isSame(left.szCab, right.szCab) && isSame(left.szCabPath, right.szCabPath);
}
} // namespace

/// How far a folder has been put into cabinets.
struct CabSet::Position
{
    std::size_t block = 0;
    std::size_t cut = 0;       // bytes of that block that are in cabinets before
    std::size_t file = 0;      // the first that reaches into what is left
    std::uint64_t touched = 0; // files that begin before are in cabinets before
    std::uint64_t placed = 0;  // compressed bytes
};

/// What of a folder the present cabinet gets: the blocks up to `endBlock`, and `beginning` bytes of that one.
struct CabSet::Part
{
    std::size_t endBlock = 0;
    std::size_t beginning = 0;
    bool isRest = false; // all that is left
    std::uint64_t size = 0;

    bool IsNothing(Position const & at) const { return !isRest && endBlock == at.block && beginning == 0; }
};

CabSet::CabSet(CallbackHost const & host, std::pmr::memory_resource * memory, CabSpool & spool, CCAB const & ccab)
    : m_host(host), m_spool(spool), m_present(ccab), m_nFirstNumber(ccab.iCab > 0 ? 1 : 0),
      m_nFolderReserve(ccab.cbReserveCFFolder), m_nDataReserve(ccab.cbReserveCFData), m_folders(memory),
      m_entries(memory), m_split(memory), m_piece(memory)
{
    Check(m_present);
    m_next = m_present;
    m_piece.resize(PIECE);
    m_split.resize(GetBlockHeaderSize() + MAX_COMPRESSED_BLOCK);
}

void CabSet::SealBlock(std::uint8_t * header, std::size_t headerSize, std::span<std::uint8_t const> data,
                       std::size_t uncompressedSize)
{
    PutWord(header + 4, static_cast<std::uint16_t>(data.size()));
    PutWord(header + 6, static_cast<std::uint16_t>(uncompressedSize));
    PutDword(header, Checksum({header + 4, headerSize - 4}, Checksum(data)));
}

void CabSet::Check(CCAB & ccab)
{
    if (ccab.cbReserveCFHeader > 60000 || ccab.cbReserveCFFolder > 255 || ccab.cbReserveCFData > 255)
    {
        throw CabFailure{FCIERR_MCI_FAIL};
    }
    if (ccab.iCab < 0 || ccab.iCab > 0xFFFF)
    {
        throw CabFailure{FCIERR_CAB_FORMAT_LIMIT};
    }
    constexpr ULONG LARGEST = 0x7FFFFFFF;
    ccab.cb = ccab.cb == 0 ? LARGEST : std::min(ccab.cb, LARGEST);
    ccab.szDisk[255] = ccab.szCab[255] = ccab.szCabPath[255] = '\0';
}

std::uint64_t CabSet::GetHeaderSize(std::uint64_t nextNames) const
{
    std::uint64_t size = HEADER_SIZE + nextNames;
    if (m_present.cbReserveCFHeader + m_nFolderReserve + m_nDataReserve > 0)
    {
        size += RESERVE_SIZES_SIZE + m_present.cbReserveCFHeader;
    }
    if (m_bPrevious)
    {
        size += std::strlen(m_previousCabinet.data()) + std::strlen(m_previousDisk.data()) + 2;
    }
    return size;
}

std::uint64_t CabSet::GetContentSize() const
{
    return m_folders.size() * GetFolderSize() + m_entries.size() + m_nDataSize;
}

std::uint64_t CabSet::GetBlockEntriesLimit() const
{
    constexpr std::uint64_t PREVIOUS_NAMES_SIZE = 2 * 256;
    std::uint64_t const other = HEADER_SIZE + RESERVE_SIZES_SIZE + m_present.cbReserveCFHeader + NEXT_NAMES_SIZE +
                                PREVIOUS_NAMES_SIZE + GetFolderSize() + 2 * (GetBlockHeaderSize() + 1);
    return (std::max<std::uint64_t>(m_present.cb, other) - other) / 3;
}

void CabSet::AskForNext(std::uint64_t estimate, CabProgress const & progress)
{
    if (!progress.getNextCabinet)
    {
        throw CabFailure{FCIERR_CAB_FORMAT_LIMIT};
    }
    m_next = m_present;
    m_next.iCab++;
    m_nEstimate = estimate;
    if (!progress.getNextCabinet(&m_next, static_cast<ULONG>(estimate), m_host.context))
    {
        throw CabFailure{FCIERR_USER_ABORT};
    }
    m_next.cbReserveCFFolder = static_cast<UINT>(m_nFolderReserve); // readers want these the same in all
    m_next.cbReserveCFData = static_cast<UINT>(m_nDataReserve);
    Check(m_next);
    if (m_next.szCab[0] == '\0' || IsSameFile(m_next, m_present))
    {
        throw CabFailure{FCIERR_MCI_FAIL}; // it would be written over the present one
    }
    m_bHasNext = true;
}

/// As much of a folder as the present cabinet can take, with names of the next cabinet of that size.
CabSet::Part CabSet::Fill(CabFolder const & folder, Position const & at, std::uint64_t nextNames) const
{
    Part part;
    part.endBlock = at.block;
    std::uint64_t const before = GetHeaderSize(nextNames) + GetContentSize() + GetFolderSize();
    auto room = static_cast<std::int64_t>(m_present.cb) - static_cast<std::int64_t>(before);
    std::int64_t const allRoom = room;
    if (m_folders.size() >= MAX_FOLDERS)
    {
        return part;
    }
    auto const headerSize = static_cast<std::int64_t>(GetBlockHeaderSize());
    std::size_t entries = MAX_FILES - m_nFiles;
    std::size_t file = at.file;
    auto const getRest = [&](std::size_t block)
    { return static_cast<std::int64_t>(folder.blocks[block] - (block == at.block ? at.cut : 0)); };
    auto const fits = [&](EntriesCost const & cost, std::int64_t data)
    { return part.endBlock - at.block < MAX_BLOCKS && cost.bytes + data <= room && cost.count <= entries; };

    if (folder.blocks.empty())
    {
        EntriesCost const cost = GetCost(folder, file, 0, 0);
        part.isRest = fits(cost, 0);
        part.size = before + static_cast<std::uint64_t>(cost.bytes);
        return part;
    }
    while (part.endBlock < folder.blocks.size())
    {
        std::uint64_t const start = std::uint64_t{part.endBlock} * BLOCK_SIZE;
        std::uint64_t const end = std::min(start + BLOCK_SIZE, folder.uncompressedSize);
        std::int64_t const rest = getRest(part.endBlock);
        EntriesCost const cost = GetCost(folder, file, end, end);
        if (!fits(cost, headerSize + rest))
        {
            // What there is room for of the block's beginning.
            EntriesCost const beginning = GetCost(folder, file, start, end);
            std::int64_t const data =
                std::min(room - beginning.bytes - headerSize, std::max<std::int64_t>(rest - 2, rest / 2));
            if (data >= 1 && fits(beginning, headerSize + data))
            {
                part.beginning = static_cast<std::size_t>(data);
                room -= beginning.bytes + headerSize + data;
            }
            break;
        }
        room -= cost.bytes + headerSize + rest;
        entries -= cost.count;
        file = cost.next;
        part.endBlock++;
    }
    part.isRest = part.endBlock == folder.blocks.size();
    if (!part.isRest && part.beginning == 0 && part.endBlock > at.block)
    {
        // Between blocks a folder can't be cut: readers take it for granted that a block goes on. (What was cut before
        // has two bytes left, or else the next block's beginning had room behind it.)
        part.endBlock--;
        part.beginning = static_cast<std::size_t>(getRest(part.endBlock) - 1);
        room += 1;
    }
    part.size = before + static_cast<std::uint64_t>(allRoom - room);
    return part;
}

void CabSet::Place(CabFolder & folder, CabProgress const & progress)
{
    Position at;
    for (;;)
    {
        auto const getNamesSize = [](CCAB const & ccab)
        { return std::strlen(ccab.szCab) + std::strlen(ccab.szDisk) + 2; };
        // A cabinet that may get one behind it keeps room for its names.
        std::uint64_t const reserve = folder.isLast             ? 0
                                      : m_bHasNext              ? getNamesSize(m_next)
                                      : progress.getNextCabinet ? NEXT_NAMES_SIZE
                                                                : 0;
        Part const whole = Fill(folder, at, reserve);
        if (whole.isRest)
        {
            PlacePart(folder, at, whole, progress);
            return;
        }
        if (!m_bHasNext)
        {
            AskForNext(Fill(folder, at, getNamesSize(m_present)).size, progress);
            continue;
        }
        Part const part = Fill(folder, at, getNamesSize(m_next));
        if (!part.IsNothing(at))
        {
            PlacePart(folder, at, part, progress);
        }
        else if (m_folders.empty())
        {
            throw CabFailure{FCIERR_CAB_FORMAT_LIMIT}; // a cabinet of this size never holds it
        }
        if (part.isRest)
        {
            return;
        }
        WriteCabinet(true, progress);
    }
}

void CabSet::PlacePart(CabFolder & folder, Position & at, Part const & part, CabProgress const & progress)
{
    std::uint64_t const end = part.isRest ? folder.uncompressedSize : std::uint64_t{part.endBlock} * BLOCK_SIZE;
    std::uint64_t const touched =
        part.beginning > 0 ? std::min<std::uint64_t>(end + BLOCK_SIZE, folder.uncompressedSize) : end;
    std::size_t const blocks = part.endBlock - at.block + (part.beginning > 0 ? 1 : 0);
    // Not every reader takes a folder without data. Empty files can be at the end of the folder before, if that isn't
    // one of which some readers take continued files alone.
    bool const bJoins = folder.blocks.empty() && m_bJoinable;
    if (!bJoins)
    {
        m_folders.push_back({m_nDataSize, static_cast<std::uint16_t>(blocks), folder.type});
        m_nFolderEnd = static_cast<std::uint32_t>(end);
        m_bJoinable = part.isRest && at.touched == 0;
    }
    for (std::size_t i = at.file; i < folder.files.size() && BeginsBefore(folder.files[i], end, touched); i++)
    {
        CabFileEntry const & file = folder.files[i];
        bool const continues = file.offset < at.touched;
        bool const goesOn = GetEnd(file) > end;
        std::size_t const number = !continues ? (goesOn ? CONTINUED_TO_NEXT : m_folders.size() - 1)
                                   : goesOn   ? CONTINUED_BOTH
                                              : CONTINUED_FROM_PREVIOUS;
        std::string_view const name(&folder.names[file.name]);
        std::size_t const entry = m_entries.size();
        m_entries.resize(entry + FILE_SIZE + name.size() + 1);
        std::uint8_t * const to = &m_entries[entry];
        PutDword(to, file.size);
        PutDword(to + 4, bJoins ? m_nFolderEnd : file.offset);
        PutWord(to + 8, static_cast<std::uint16_t>(number));
        PutWord(to + 10, file.date);
        PutWord(to + 12, file.time);
        PutWord(to + 14, file.attributes);
        std::memcpy(to + FILE_SIZE, name.data(), name.size() + 1);
        m_nFiles++;
        m_bFileBegins = m_bFileBegins || !continues;

        CCAB shown = m_present;
        std::array<char, NAME_ROOM> copy{};
        std::ranges::copy(name, copy.begin());
        if (m_host.calls.filePlaced(&shown, copy.data(), static_cast<LONG>(file.size), continues, m_host.context) == -1)
        {
            throw CabFailure{FCIERR_USER_ABORT};
        }
    }

    std::uint64_t const headerSize = GetBlockHeaderSize();
    std::uint64_t const dataBefore = m_nDataSize;
    std::size_t block = at.block;
    std::size_t beginning = part.beginning;
    if (at.cut > 0)
    {
        m_nRestFrom = at.cut;
        m_bRestEnds = part.endBlock > block;
        m_nRestTo = m_bRestEnds ? folder.blocks[block] : at.cut + beginning;
        m_nDataSize += headerSize + m_nRestTo - m_nRestFrom;
        block++;
        beginning = m_bRestEnds ? beginning : 0;
    }
    std::uint64_t whole = 0;
    for (; block < part.endBlock; block++)
    {
        whole += headerSize + folder.blocks[block];
    }
    m_nWhole += whole;
    m_nDataSize += whole;
    if (beginning > 0)
    {
        m_nBeginning = beginning;
        m_nBeginningSize = folder.blocks[part.endBlock];
        m_nDataSize += headerSize + beginning;
    }

    at.cut = part.beginning > 0 ? part.beginning + (part.endBlock == at.block ? at.cut : 0) : 0;
    at.block = part.endBlock;
    at.touched = touched;
    while (at.file < folder.files.size() && GetEnd(folder.files[at.file]) <= end)
    {
        at.file++;
    }
    at.placed += m_nDataSize - dataBefore - blocks * headerSize;
    if (progress.status && progress.status(statusFolder, static_cast<ULONG>(at.placed),
                                           static_cast<ULONG>(folder.compressedSize), m_host.context) == -1)
    {
        throw CabFailure{FCIERR_USER_ABORT};
    }
}

void CabSet::Flush(bool hasNext, CabProgress const & progress)
{
    if (m_folders.empty())
    {
        return;
    }
    if (hasNext && !m_bHasNext)
    {
        AskForNext(GetHeaderSize(std::strlen(m_present.szCab) + std::strlen(m_present.szDisk) + 2) + GetContentSize(),
                   progress);
    }
    else if (!hasNext)
    {
        m_nEstimate = GetSize();
    }
    WriteCabinet(hasNext, progress);
}

void CabSet::BeginIfEnded(CabProgress const & progress)
{
    if (!m_bEnded)
    {
        return;
    }
    if (!m_bHasNext)
    {
        AskForNext(m_nEstimate, progress);
    }
    m_present = m_next;
    m_bHasNext = m_bEnded = false;
}

/// With the present cabinet as the last one, or with that of `m_next` behind it, which becomes the present one.
void CabSet::WriteCabinet(bool hasNext, CabProgress const & progress)
{
    std::uint64_t const nextNames =
        hasNext ? std::strlen(m_next.szCab) + 1 + std::strlen(m_next.szDisk) + 1 : std::uint64_t{0};
    std::uint64_t const size = GetHeaderSize(nextNames) + GetContentSize();
    if (size > m_present.cb)
    {
        throw CabFailure{FCIERR_CAB_FORMAT_LIMIT};
    }
    std::array<char, 512> name{};
    std::strcpy(name.data(), m_present.szCabPath);
    std::strcat(name.data(), m_present.szCab);
    CallbackFile file(m_host, FCIERR_CAB_FILE);
    file.Open(name.data(), OPEN_NEW_CABINET);
    try
    {
        WriteHeader(file, hasNext, size);
        WriteData(file);
        file.Close();
    }
    catch (...)
    {
        // Half a cabinet is of no use.
        int error = 0;
        if (file.IsOpen())
        {
            m_host.calls.close(file.Release(), &error, m_host.context);
        }
        m_host.calls.remove(name.data(), &error, m_host.context);
        throw;
    }
    if (m_bFileBegins)
    {
        std::ranges::copy(m_present.szCab, m_previousCabinet.begin());
        std::ranges::copy(m_present.szDisk, m_previousDisk.begin());
    }
    m_bPrevious = hasNext;
    m_bEnded = !hasNext;
    if (hasNext)
    {
        m_present = m_next;
        m_bHasNext = false;
    }
    Clear();
    if (progress.status &&
        progress.status(statusCabinet, static_cast<ULONG>(m_nEstimate), static_cast<ULONG>(size), m_host.context) == -1)
    {
        throw CabFailure{FCIERR_USER_ABORT};
    }
}

void CabSet::Clear()
{
    m_folders.clear();
    m_entries.clear();
    m_nFiles = 0;
    m_bFileBegins = m_bJoinable = false;
    m_nDataSize = m_nWhole = 0;
    m_nRestFrom = m_nRestTo = m_nBeginning = 0;
}

void CabSet::WriteHeader(CallbackFile & file, bool hasNext, std::uint64_t size)
{
    bool const hasReserve = m_present.cbReserveCFHeader + m_nFolderReserve + m_nDataReserve > 0;
    std::uint64_t const dataStart = size - m_nDataSize;
    std::pmr::vector<std::uint8_t> head(m_piece.get_allocator());
    head.resize(HEADER_SIZE);
    std::memcpy(head.data(), SIGNATURE, sizeof SIGNATURE);
    PutDword(&head[8], static_cast<std::uint32_t>(size));
    PutDword(&head[16], static_cast<std::uint32_t>(dataStart - m_entries.size()));
    head[24] = VERSION_MINOR;
    head[25] = VERSION_MAJOR;
    PutWord(&head[26], static_cast<std::uint16_t>(m_folders.size()));
    PutWord(&head[28], static_cast<std::uint16_t>(m_nFiles));
    PutWord(&head[30], static_cast<std::uint16_t>((m_bPrevious ? FLAG_PREVIOUS : 0) | (hasNext ? FLAG_NEXT : 0) |
                                                  (hasReserve ? FLAG_RESERVE : 0)));
    PutWord(&head[32], m_present.setID);
    PutWord(&head[34], static_cast<std::uint16_t>(m_present.iCab - m_nFirstNumber));
    if (hasReserve)
    {
        head.resize(HEADER_SIZE + RESERVE_SIZES_SIZE + m_present.cbReserveCFHeader);
        PutWord(&head[HEADER_SIZE], static_cast<std::uint16_t>(m_present.cbReserveCFHeader));
        head[HEADER_SIZE + 2] = static_cast<std::uint8_t>(m_nFolderReserve);
        head[HEADER_SIZE + 3] = static_cast<std::uint8_t>(m_nDataReserve);
    }
    auto const addName = [&](char const * name) { head.insert(head.end(), name, name + std::strlen(name) + 1); };
    if (m_bPrevious)
    {
        addName(m_previousCabinet.data());
        addName(m_previousDisk.data());
    }
    if (hasNext)
    {
        addName(m_next.szCab);
        addName(m_next.szDisk);
    }
    for (Folder const & folder : m_folders)
    {
        std::size_t const at = head.size();
        head.resize(at + GetFolderSize());
        PutDword(&head[at], static_cast<std::uint32_t>(dataStart + folder.data));
        PutWord(&head[at + 4], folder.blocks);
        PutWord(&head[at + 6], folder.type);
    }
    file.Write(head.data(), static_cast<UINT>(head.size()));
    file.Write(m_entries.data(), static_cast<UINT>(m_entries.size()));
}

void CabSet::WriteData(CallbackFile & file)
{
    if (m_nRestTo > 0)
    {
        WritePiece(file, m_nRestFrom, m_nRestTo, m_bRestEnds);
    }
    for (std::uint64_t rest = m_nWhole; rest > 0;)
    {
        std::size_t const count = static_cast<std::size_t>(std::min<std::uint64_t>(rest, m_piece.size()));
        m_spool.Read(std::span(m_piece).first(count));
        file.Write(m_piece.data(), static_cast<UINT>(count));
        rest -= count;
    }
    if (m_nBeginning > 0)
    {
        m_spool.Read(std::span(m_split).first(GetBlockHeaderSize() + m_nBeginningSize));
        WritePiece(file, 0, m_nBeginning, false);
    }
}

/// A part of the block that is in several cabinets. All but the last say that they give no bytes yet.
void CabSet::WritePiece(CallbackFile & file, std::size_t from, std::size_t to, bool ends)
{
    std::size_t const headerSize = GetBlockHeaderSize();
    std::array<std::uint8_t, BLOCK_HEADER_SIZE + 255> header{};
    std::span<std::uint8_t const> const data = std::span(m_split).subspan(headerSize + from, to - from);
    SealBlock(header.data(), headerSize, data, ends ? GetWord(&m_split[6]) : 0);
    file.Write(header.data(), static_cast<UINT>(headerSize));
    file.Write(data.data(), static_cast<UINT>(data.size()));
}
} // namespace kvx::cabinet
