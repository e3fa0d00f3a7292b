#include "kvx/foundation/Utilities.h"
#include "kvx/hash/Blowfish.h"
#include "kvx/hash/Crc32.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

using namespace kvx::hash;

namespace
{
template <class RUN>
void RunCipher(unsigned char const * key, LONG keySize, unsigned char * output, unsigned char const * input, LONG size,
               RUN const & run)
{
    if (!key || keySize <= 0 || (size > 0 && (!output || !input)))
    {
        AfxThrowInvalidArgException();
    }
    if (size >= static_cast<LONG>(Blowfish::BLOCK))
    {
        Blowfish const cipher(std::span(key, static_cast<std::size_t>(keySize)));
        run(cipher, input, output, static_cast<std::size_t>(size) / Blowfish::BLOCK);
    }
}

struct CipherTest
{
    std::string_view key;
    std::array<std::uint8_t, Blowfish::BLOCK> plain;
    std::array<std::uint8_t, Blowfish::BLOCK> cipher;
    char const * pszEncryption; // what to say if it fails
    char const * pszDecryption;
};

constexpr CipherTest CIPHER_TESTS[] = {
    {"abcdefghijklmnopqrstuvwxyz",
     {'B', 'L', 'O', 'W', 'F', 'I', 'S', 'H'},
     {0x32, 0x4E, 0xD0, 0xFE, 0xF4, 0x13, 0xA2, 0x03},
     "Blowfish selftest failed (1).",
     "Blowfish selftest failed (2)."},
    {"Who is John Galt?",
     {0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10},
     {0xCC, 0x91, 0x73, 0x2B, 0x80, 0x22, 0xF6, 0x84},
     "Blowfish selftest failed (3).",
     "Blowfish selftest failed (4)."},
};
} // namespace

void CUtilities::BlowfishEncrypt(unsigned char * key, LONG keySize, unsigned char * output, unsigned char * input,
                                 LONG size)
{
    RunCipher(key, keySize, output, input, size,
              [](Blowfish const & cipher, auto from, auto to, std::size_t blocks)
              { cipher.Encrypt(from, to, blocks); });
}

void CUtilities::BlowfishDecrypt(unsigned char * key, LONG keySize, unsigned char * output, unsigned char * input,
                                 LONG size)
{
    RunCipher(key, keySize, output, input, size,
              [](Blowfish const & cipher, auto from, auto to, std::size_t blocks)
              { cipher.Decrypt(from, to, blocks); });
}

char const * CUtilities::BlowfishSelfTest()
{
    for (CipherTest const & test : CIPHER_TESTS)
    {
        Blowfish const cipher(std::span(reinterpret_cast<std::uint8_t const *>(test.key.data()), test.key.size()));
        std::array<std::uint8_t, Blowfish::BLOCK> block = test.plain;
        cipher.Encrypt(block.data(), block.data(), 1);
        if (block != test.cipher)
        {
            return test.pszEncryption;
        }
        cipher.Decrypt(block.data(), block.data(), 1);
        if (block != test.plain)
        {
            return test.pszDecryption;
        }
    }
    return nullptr;
}

ULONG CUtilities::ComputeCRC32(char * data, ULONG size)
{
    return data ? Crc32(std::span(reinterpret_cast<std::uint8_t const *>(data), size)) : 0;
}

LONG CUtilities::GetHashSize(LONG entries)
{
    constexpr LONG SIZES[] = {29,    127,   251,   509,    1024,   2017,   4057,  8999,
                              16069, 32063, 64067, 104729, 200003, 400009, 800011};
    auto const found = std::ranges::upper_bound(SIZES, entries / 5);
    return found == std::end(SIZES) ? *std::rbegin(SIZES) : *found;
}
