#pragma once

/// The other side of the writer's callbacks: files in memory, what was called, and a call that fails.

#include "kvx/cabinet/CabCompression.h"
#include "kvx/cabinet/CabFormat.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct MemoryHost
{
    using CabCompression = kvx::cabinet::CabCompression;

    std::map<std::string, std::string> files;                         // sources, temporary files and cabinets by name
    std::map<INT_PTR, std::pair<std::string *, std::size_t>> handles; // data and position
    std::vector<std::string> events; // of what is seen by callers that have no interest in files
    INT_PTR lastHandle = 0;
    int temporary = 0;
    int calls = 0;
    int failing = 0; // the call with that number fails
    std::string failed;
    ULONG nextMax = 0; // for the next cabinets
    ULONG previousSize = 0;
    USHORT attributes = 0x20;
    inline static MemoryHost * sm_pCurrent = nullptr; // for callbacks without a context
    inline static int sm_nBlocks = 0;

    static MemoryHost & Of(void * context) { return *static_cast<MemoryHost *>(context); }
    /// Whether this is the call that fails.
    bool Fails(char const * name, int * err = nullptr)
    {
        if (++calls != failing)
        {
            return false;
        }
        failed = name;
        if (err)
        {
            *err = 77;
        }
        return true;
    }

    static void * Alloc(ULONG size)
    {
        if (sm_pCurrent && sm_pCurrent->Fails("alloc"))
        {
            return nullptr;
        }
        sm_nBlocks++;
        return std::malloc(size);
    }
    static void Free(void * memory)
    {
        sm_nBlocks -= memory ? 1 : 0;
        std::free(memory);
    }
    INT_PTR Add(std::string & data)
    {
        handles[++lastHandle] = {&data, 0};
        return lastHandle;
    }
    static INT_PTR Open(char * name, int, int, int * err, void * context)
    {
        if (Of(context).Fails("open", err))
        {
            return -1;
        }
        std::string & data = Of(context).files[name];
        data.clear();
        std::memset(name, '#', 260); // as callbacks may
        return Of(context).Add(data);
    }
    static UINT Read(INT_PTR hf, void * memory, UINT size, int * err, void * context)
    {
        if (Of(context).Fails("read", err))
        {
            return static_cast<UINT>(-1);
        }
        auto & [data, at] = Of(context).handles.at(hf);
        std::size_t const count = data->copy(static_cast<char *>(memory), size, at);
        at += count;
        return static_cast<UINT>(count);
    }
    static UINT Write(INT_PTR hf, void * memory, UINT size, int * err, void * context)
    {
        if (Of(context).Fails("write", err))
        {
            return size - 1;
        }
        auto & [data, at] = Of(context).handles.at(hf);
        data->replace(std::min(at, data->size()), size, static_cast<char *>(memory), size);
        at += size;
        return size;
    }
    static int Close(INT_PTR hf, int * err, void * context)
    {
        if (Of(context).handles.erase(hf) != 1)
        {
            std::abort();
        }
        return Of(context).Fails("close", err) ? -1 : 0;
    }
    static LONG Seek(INT_PTR hf, LONG distance, int, int * err, void * context)
    {
        if (Of(context).Fails("seek", err))
        {
            return -1;
        }
        Of(context).handles.at(hf).second = static_cast<std::size_t>(distance);
        return distance;
    }
    static int Remove(char * name, int *, void * context) { return Of(context).files.erase(name) == 1 ? 0 : -1; }
    static BOOL GetTempFile(char * name, int size, void * context)
    {
        std::snprintf(name, static_cast<std::size_t>(size), "temporary %d", ++Of(context).temporary);
        return !Of(context).Fails("getTempFile");
    }
    static int FilePlaced(CCAB * ccab, char * name, LONG size, BOOL continued, void * context)
    {
        Of(context).events.push_back(std::string(ccab->szCab) + (continued ? " goes on with " : " has ") + name + " " +
                                     std::to_string(size));
        return Of(context).Fails("filePlaced") ? -1 : 0;
    }
    static BOOL GetNextCabinet(CCAB * ccab, ULONG previousSize, void * context)
    {
        std::snprintf(ccab->szCab, sizeof ccab->szCab, "%d.cab", ccab->iCab);
        std::snprintf(ccab->szDisk, sizeof ccab->szDisk, "disk %d", ++ccab->iDisk);
        ccab->cb = Of(context).nextMax ? Of(context).nextMax : ccab->cb;
        Of(context).previousSize = previousSize;
        Of(context).events.push_back(std::string("next ") + ccab->szCab);
        return !Of(context).Fails("getNextCabinet");
    }
    static LONG Status(UINT type, ULONG first, ULONG second, void * context)
    {
        Of(context).events.push_back("status " + std::to_string(type) + ": " + std::to_string(first) + ", " +
                                     std::to_string(second));
        return Of(context).Fails("status") ? -1 : 0;
    }
    static INT_PTR GetOpenInfo(char * name, USHORT * date, USHORT * time, USHORT * attributes, int * err,
                               void * context)
    {
        auto const found = Of(context).files.find(name);
        if (found == Of(context).files.end() || Of(context).Fails("getOpenInfo", err))
        {
            return -1;
        }
        *date = 0x5A21;
        *time = 0x6000;
        *attributes = Of(context).attributes;
        return Of(context).Add(found->second);
    }

    static CabCompression::Callbacks GetCallbacks()
    {
        return {FilePlaced, Alloc, Free, Open, Read, Write, Close, Seek, Remove, GetTempFile};
    }
    std::unique_ptr<CabCompression> Create(ERF & erf, CCAB const & ccab)
    {
        return CabCompression::Create(&erf, GetCallbacks(), &ccab, this);
    }
    int Add(CabCompression & writer, std::string const & name, USHORT type, BOOL execute = FALSE)
    {
        return writer.AddFile(name.c_str(), name.c_str(), execute, GetNextCabinet, Status, GetOpenInfo, type);
    }
    static int Flush(CabCompression & writer, BOOL next = FALSE)
    {
        return writer.FlushCabinet(next, GetNextCabinet, Status);
    }
};

inline CCAB MakeCcab(ULONG size = 0, ULONG threshold = 0x7FFFFFFF, UINT header = 0, UINT folder = 0, UINT data = 0)
{
    return {size, threshold, header, folder, data, 1, 1, 0, 0x1234, "disk 1", "1.cab", ""};
}

/// Of a size, with some of it new and some from before.
inline std::string MakeData(std::size_t size, unsigned seed)
{
    std::string data = "Once";
    for (std::uint32_t state = seed; data.size() < size;)
    {
        state = state * 1664525 + 1013904223;
        data += static_cast<char>(state >> 24);
        if ((state >> 28) > 11)
        {
            data += data.substr(data.size() - 1 - (state >> 16) % std::min<std::size_t>(data.size() - 1, 40000), 30);
        }
    }
    data.resize(size);
    return data;
}
