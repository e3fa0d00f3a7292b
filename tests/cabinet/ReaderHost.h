#pragma once

/// The other side of the reader's callbacks: cabinets and extracted files in memory, a count of what is open, and a
/// call that fails.

#include "kvx/cabinet/CabDecompression.h"

#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

struct ReaderHost
{
    using CabDecompression = kvx::cabinet::CabDecompression;

    struct Handle
    {
        std::string * data;
        std::size_t at = 0;
    };

    std::map<std::string, std::string> cabinets;
    std::map<std::string, std::string> extracted;
    std::vector<std::string> events;
    std::function<bool(std::string const &)> isWanted = [](std::string const &) { return true; };
    std::set<Handle *> open;
    std::size_t memory = 0; // bytes in use
    std::size_t memoryPeak = 0;
    int calls = 0;
    int failing = 0; // the call with that number fails
    ERF erf = {};
    inline static ReaderHost * sm_pCurrent = nullptr;

    ReaderHost() { sm_pCurrent = this; }

    bool Fails() { return ++calls == failing; }

    static void * Alloc(ULONG size)
    {
        ReaderHost & self = *sm_pCurrent;
        if (self.Fails())
        {
            return nullptr;
        }
        self.memory += size;
        self.memoryPeak = std::max(self.memoryPeak, self.memory);
        auto * const block = static_cast<std::size_t *>(std::malloc(size + 16));
        *block = size;
        return block + 16 / sizeof(std::size_t);
    }
    static void Free(void * memory)
    {
        auto * const block = static_cast<std::size_t *>(memory) - 16 / sizeof(std::size_t);
        sm_pCurrent->memory -= *block;
        std::free(block);
    }
    static INT_PTR Add(std::string & data)
    {
        return reinterpret_cast<INT_PTR>(*sm_pCurrent->open.insert(new Handle{&data}).first);
    }
    static INT_PTR Open(char * name, int, int)
    {
        auto const found = sm_pCurrent->cabinets.find(name);
        return sm_pCurrent->Fails() || found == sm_pCurrent->cabinets.end() ? -1 : Add(found->second);
    }
    static UINT Read(INT_PTR hf, void * memory, UINT size)
    {
        auto & file = *reinterpret_cast<Handle *>(hf);
        if (sm_pCurrent->Fails())
        {
            return static_cast<UINT>(-1);
        }
        std::size_t const count =
            file.at < file.data->size() ? file.data->copy(static_cast<char *>(memory), size, file.at) : 0;
        file.at += count;
        return static_cast<UINT>(count);
    }
    static UINT Write(INT_PTR hf, void * memory, UINT size)
    {
        reinterpret_cast<Handle *>(hf)->data->append(static_cast<char *>(memory), size);
        return sm_pCurrent->Fails() ? 0 : size;
    }
    static int Close(INT_PTR hf)
    {
        auto * const file = reinterpret_cast<Handle *>(hf);
        if (sm_pCurrent->open.erase(file) != 1)
        {
            std::abort();
        }
        delete file;
        return 0;
    }
    static LONG Seek(INT_PTR hf, LONG distance, int origin)
    {
        auto & file = *reinterpret_cast<Handle *>(hf);
        if (sm_pCurrent->Fails())
        {
            return -1;
        }
        file.at = static_cast<std::size_t>(distance) + (origin == SEEK_END   ? file.data->size()
                                                        : origin == SEEK_CUR ? file.at
                                                                             : 0);
        return static_cast<LONG>(file.at);
    }
    static INT_PTR Notify(FDINOTIFICATIONTYPE type, FDINOTIFICATION * data)
    {
        auto & self = *static_cast<ReaderHost *>(data->pv);
        bool const fails = self.Fails();
        switch (type)
        {
        case fdintCABINET_INFO:
            self.events.push_back("cabinet " + std::to_string(data->iCabinet) + ", next " + data->psz1);
            return fails ? -1 : 0;
        case fdintPARTIAL_FILE:
            self.events.push_back(std::string("partial ") + data->psz1);
            return fails ? -1 : 0;
        case fdintCOPY_FILE:
            if (fails)
            {
                return -1;
            }
            self.events.push_back(std::string("copy ") + data->psz1);
            return self.isWanted(data->psz1) ? Add(self.extracted[data->psz1]) : 0;
        case fdintCLOSE_FILE_INFO:
            Close(data->hf);
            return fails ? 0 : 1;
        case fdintNEXT_CABINET:
            self.events.push_back(std::string("next ") + data->psz1 + " after " + std::to_string(data->fdie));
            return fails ? -1 : 0;
        default:
            return fails ? -1 : 0;
        }
    }

    std::unique_ptr<CabDecompression> Create()
    {
        return CabDecompression::Create({Alloc, Free, Open, Read, Write, Close, Seek}, &erf);
    }
    /// All of a cabinet, or of several in a row.
    FDIERROR Copy(std::vector<std::string> const & names)
    {
        auto const reader = Create();
        for (std::string const & name : names)
        {
            if (!reader || !reader->Copy(name.c_str(), "", Notify, this))
            {
                return static_cast<FDIERROR>(erf.erfOper);
            }
        }
        return FDIERROR_NONE;
    }
};
