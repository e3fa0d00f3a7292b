#pragma once

/// A reader of sets that takes nothing on trust, and knows nothing of what the library knows but numbers.

#include "kvx/cabinet/CabFormat.h"
#include "kvx/cabinet/CabTypes.h"
#include "kvx/cabinet/lzx/LzxDecoder.h"
#include "kvx/cabinet/mszip/MszipDecoder.h"

#include <array>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

struct SetReader
{
    struct Folder
    {
        int type;
        std::string data;
        std::unique_ptr<kvx::cabinet::FolderDecoder> decoder;
    };
    struct File
    {
        std::size_t folder;
        std::uint32_t offset;
        std::uint32_t size;
        bool goesOn;
        std::uint16_t attributes;
        bool operator==(File const &) const = default;
    };

    std::vector<std::size_t> sizes; // of the cabinets
    std::vector<int> flags;
    std::vector<std::vector<std::string>> names; // those in each header
    std::vector<int> numbers;
    std::vector<Folder> folders;
    std::map<std::string, File> files;
    std::string part; // of a block that goes on

    static void Require(bool bTrue, char const * what)
    {
        if (!bTrue)
        {
            throw std::runtime_error(what);
        }
    }

    /// Reads the cabinet of that name, and those that it names as next ones.
    SetReader(std::map<std::string, std::string> const & all, std::string name)
    {
        while (!name.empty())
        {
            Require(all.contains(name), "a cabinet is missing");
            name = ReadCabinet(all.at(name));
        }
        Require(part.empty(), "a block has no end");
    }

    std::string Get(std::string const & name) const
    {
        File const & file = files.at(name);
        Require(!file.goesOn && file.offset + std::size_t{file.size} <= folders[file.folder].data.size(), "no data");
        return folders[file.folder].data.substr(file.offset, file.size);
    }

private:
    std::string ReadCabinet(std::string const & cabinet)
    {
        using namespace kvx::cabinet;
        auto const * const bytes = reinterpret_cast<std::uint8_t const *>(cabinet.data());
        Require(cabinet.size() >= 36 && cabinet.starts_with("MSCF") && GetDword(bytes + 8) == cabinet.size() &&
                    GetDword(bytes + 4) == 0 && GetDword(bytes + 12) == 0 && GetDword(bytes + 20) == 0 &&
                    GetWord(bytes + 24) == 0x103,
                "header");
        int const flag = GetWord(bytes + 30);
        sizes.push_back(cabinet.size());
        flags.push_back(flag);
        numbers.push_back(GetWord(bytes + 34));
        std::size_t at = 36;
        std::size_t folderReserve = 0;
        std::size_t dataReserve = 0;
        auto const skipZeros = [&](std::size_t count)
        {
            Require(cabinet.find_first_not_of('\0', at) >= at + count, "reserve");
            at += count;
        };
        if (flag & 4)
        {
            folderReserve = bytes[at + 2];
            dataReserve = bytes[at + 3];
            at += 4;
            skipZeros(GetWord(bytes + at - 4));
        }
        names.emplace_back();
        for (int i = 0; i < ((flag & 1) + (flag & 2) / 2) * 2; ++i)
        {
            names.back().push_back(cabinet.c_str() + at);
            at += names.back().back().size() + 1;
        }
        std::vector<std::array<std::uint32_t, 3>> places; // where their data are, number of blocks, type
        for (int i = 0; i < GetWord(bytes + 26); ++i)
        {
            places.push_back({GetDword(bytes + at), GetWord(bytes + at + 4), GetWord(bytes + at + 6)});
            at += 8;
            skipZeros(folderReserve);
        }
        Require(at == GetDword(bytes + 16), "offset of the files");
        std::size_t const entries = at;
        bool continues = false;
        for (int i = 0; i < GetWord(bytes + 28); ++i)
        {
            continues = continues || GetWord(bytes + at + 8) == 0xFFFD || GetWord(bytes + at + 8) == 0xFFFF;
            at += 17 + std::strlen(cabinet.c_str() + at + 16);
        }
        std::size_t const first = folders.size() - (continues ? 1 : 0);
        Require(continues == !part.empty() && continues <= !places.empty(), "continued folder");
        for (auto const & place : places)
        {
            Require(place[0] == at, "offset of the data");
            if (!std::exchange(continues, false))
            {
                folders.push_back({static_cast<int>(place[2]), "", nullptr});
            }
            for (std::uint32_t i = 0; i < place[1]; ++i)
            {
                ReadBlock(cabinet, at, dataReserve);
            }
            Require(part.empty() || &place == &places.back(), "a block goes on in the middle");
        }
        Require(at == cabinet.size() && (part.empty() || (flag & 2)), "end");

        for (at = entries; at < (places.empty() ? cabinet.size() : places[0][0]);)
        {
            unsigned const number = GetWord(bytes + at + 8);
            bool const from = number == 0xFFFD || number == 0xFFFF;
            bool const to = number >= 0xFFFE;
            std::string const name = cabinet.c_str() + at + 16;
            File const file{from ? first
                            : to ? folders.size() - 1
                                 : first + number,
                            GetDword(bytes + at + 4), GetDword(bytes + at), to, GetWord(bytes + at + 14)};
            Require(file.folder < folders.size() && files.contains(name) == from, "folder of a file");
            File const before{file.folder, file.offset, file.size, true, file.attributes};
            Require(!from || files.at(name) == before, "continued file");
            files[name] = file;
            at += 17 + name.size();
        }
        return flag & 2 ? names.back()[names.back().size() - 2] : "";
    }

    void ReadBlock(std::string const & cabinet, std::size_t & at, std::size_t reserve)
    {
        using namespace kvx::cabinet;
        Require(at + 8 + reserve <= cabinet.size(), "block header");
        auto const * const header = reinterpret_cast<std::uint8_t const *>(cabinet.data()) + at;
        std::size_t const size = GetWord(header + 4);
        std::size_t const plain = GetWord(header + 6);
        at += 8 + reserve;
        Require(size > 0 && at + size <= cabinet.size(), "block");
        Require(GetDword(header) == Checksum({header + 4, 4 + reserve}, Checksum({header + 8 + reserve, size})),
                "checksum");
        part.append(cabinet, at, size);
        at += size;
        if (plain == 0)
        {
            return;
        }
        Folder & folder = folders.back();
        Require(folder.data.size() % 32768 == 0 && plain <= 32768, "size of a block");
        std::string data = part;
        if (folder.type != tcompTYPE_NONE)
        {
            auto * const memory = std::pmr::get_default_resource();
            if (folder.data.empty())
            {
                folder.decoder = folder.type == tcompTYPE_MSZIP
                                     ? MakeMszipDecoder(memory)
                                     : MakeLzxDecoder(static_cast<unsigned>(folder.type >> 8), memory);
            }
            data.resize(plain);
            Require(folder.decoder->Decode({reinterpret_cast<std::uint8_t *>(part.data()), part.size()},
                                           {reinterpret_cast<std::uint8_t *>(data.data()), plain}),
                    "compressed block");
        }
        Require(data.size() == plain, "stored block");
        folder.data += data;
        part.clear();
    }
};
