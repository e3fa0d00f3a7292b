#include "kvx/cabinet/CabFileSet.h"

#include "kvx/cabinet/CabNames.h"
#include "kvx/foundation/Immortal.h"
#include "kvx/foundation/Utilities.h"

#include <charconv>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_set>

namespace
{
// The extern names of a cabinet's own come from whoever made it: an address is used only if an entry lives there.
struct ExternEntries
{
    std::mutex mutex;
    std::unordered_set<CCabFileSetEntry const *> entries;
};

ExternEntries & GetExternEntries()
{
    static kvx::Immortal<ExternEntries> s_entries;
    return *s_entries;
}
} // namespace

CCabFileSetEntry::CCabFileSetEntry(CFile * externFile) : m_nFlags(Flags::externFile), m_pFile(externFile) {}

CCabFileSetEntry::~CCabFileSetEntry()
{
    auto & known = GetExternEntries();
    std::lock_guard const lock(known.mutex);
    known.entries.erase(this);
}

CStringA CCabFileSetEntry::BuildExternFileName() const
{
    auto & known = GetExternEntries();
    std::lock_guard const lock(known.mutex);
    known.entries.insert(this);
    return (":" + std::to_string(reinterpret_cast<INT_PTR>(this))).c_str();
}

void CCabFileSetEntry::BuildExternFileName(char * name) const
{
    std::strcpy(name, BuildExternFileName());
}

CCabFileSetEntry * CCabFileSetEntry::FromExternFileName(char const * name)
{
    INT_PTR address = 0;
    char const * const end = name + std::strlen(name);
    if (*name != ':' || std::from_chars(name + 1, end, address).ptr != end)
    {
        return nullptr;
    }
    auto * const entry = reinterpret_cast<CCabFileSetEntry *>(address);
    auto & known = GetExternEntries();
    std::lock_guard const lock(known.mutex);
    return known.entries.contains(entry) ? entry : nullptr;
}

CCabFileSet::~CCabFileSet()
{
    CCabFileSet::RemoveAll();
}

int CCabFileSet::AddFile(char const * path, char const * cabName, ULONG flags, USHORT compression)
{
    CStringA const source = path ? path : cabName;
    CStringA name = cabName;
    if (name.IsEmpty())
    {
        name = source.Mid(kvx::cabinet::FileNameIndex(source));
    }
    if (name.IsEmpty())
    {
        return 0;
    }
    CCabFileSetEntry * const entry = CreateFileEntry(source, name);
    entry->SetFlags(flags & ~static_cast<ULONG>(CCabFileSetEntry::externFile));
    entry->SetCompression(compression);
    entry->SetFile(nullptr);
    return 1;
}

int CCabFileSet::AddFile(CFile * file, CStringA const & cabName, ULONG flags, USHORT compression)
{
    if (!file || cabName.IsEmpty())
    {
        return 0;
    }
    file->SeekToBegin();
    CCabFileSetEntry * const entry = CreateFileEntry(cabName, cabName);
    entry->SetFlags(flags | CCabFileSetEntry::externFile);
    entry->SetCompression(compression);
    entry->SetFile(file);
    return 1;
}

void CCabFileSet::SetFilePath(char const * cabName, char const * path)
{
    if (CCabFileSetEntry * const entry = LookupFileEntry(cabName))
    {
        entry->SetPath(path);
        return;
    }
    AddFile(path, cabName, 0, 1);
}

CCabFileSetEntry * CCabFileSet::LookupFileEntry(char const * cabName) const
{
    return static_cast<CCabFileSetEntry *>(m_lookup.Lookup(CUtilities::AnsiToString(cabName)));
}

CCabFileSetEntry * CCabFileSet::GetNextFile(POSITION & position) const
{
    return static_cast<CCabFileSetEntry *>(m_entries.GetNext(position));
}

void CCabFileSet::GetNextFileNames(POSITION & position, CStringA & cabName, CStringA & path) const
{
    CCabFileSetEntry const * const entry = GetNextFile(position);
    cabName = entry->GetCabName();
    path = entry->GetPath();
}

void CCabFileSet::RemoveAll()
{
    m_entries.RemoveAll();
    m_lookup.RemoveAll(1);
}

CCabFileSetEntry * CCabFileSet::CreateFileEntry(CStringA const & path, CStringA const & cabName)
{
    CCabFileSetEntry * entry = LookupFileEntry(cabName);
    if (!entry)
    {
        auto made = std::make_unique<CCabFileSetEntry>();
        m_lookup.SetAt(CUtilities::AnsiToString(static_cast<char const *>(cabName)), made.get());
        entry = made.release();
        m_entries.AddTail(entry);
    }
    entry->SetPath(path);
    entry->SetCabName(cabName);
    return entry;
}
