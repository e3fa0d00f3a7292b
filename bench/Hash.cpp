/// Digests, checksums, the cipher and Base64 in memory: against OpenSSL, zlib and libdeflate, and against plain rates.
/// --size=MiB chooses how much memory.

#include "Harness.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/hash/Base64.h"
#include "kvx/hash/Blowfish.h"
#include "kvx/hash/Crc32.h"
#include "kvx/hash/Md5Digest.h"
#include "kvx/hash/Sha1Digest.h"
#include "kvx/hash/Sha256Digest.h"

#include <libdeflate.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace
{
using namespace bench;
using Bytes = std::vector<std::uint8_t>;

int g_rounds = 20;

/// Nanoseconds of 1,024 bytes.
template <class CALL>
double PerKiB(std::size_t size, CALL const & call)
{
    auto const start = Clock::now();
    call();
    return 1024 * Since(start) / static_cast<double>(size);
}

/// Both results have to be the same, or there is nothing to measure.
void Check(bool bSame, std::string const & name)
{
    if (!bSame)
    {
        Fail(name + ": another result than the other's");
    }
}

template <class DIGEST>
void MeasureDigest(Options const & options, std::string const & name, char const * theirName, Bytes const & data)
{
    if (!options.Wants(name))
    {
        return;
    }
    typename DIGEST::Value value;
    typename DIGEST::Value theirs;
    std::unique_ptr<EVP_MD, void (*)(EVP_MD *)> const kind(EVP_MD_fetch(nullptr, theirName, nullptr), EVP_MD_free);
    Compare(
        {name + ", OpenSSL's rate", 0, 0, Target::AtLeast, 0.9}, g_rounds,
        [&]
        {
            return PerKiB(data.size(),
                          [&]
                          {
                              DIGEST digest;
                              digest.Update(data);
                              value = digest.Final();
                          });
        },
        [&]
        {
            return PerKiB(data.size(),
                          [&] { EVP_Digest(data.data(), data.size(), theirs.data(), nullptr, kind.get(), nullptr); });
        });
    Check(value == theirs, name);
}

void MeasureChecksum(Options const & options, Bytes const & data)
{
    std::uint32_t value = 0;
    std::uint32_t theirs = 0;
    auto const ours = [&] { return PerKiB(data.size(), [&] { value = kvx::hash::Crc32(data); }); };
    if (options.Wants("CRC-32, zlib's"))
    {
        Compare({"CRC-32, zlib's rate", 0, 0, Target::AtLeast, 2}, g_rounds, ours,
                [&] {
                    return PerKiB(data.size(),
                                  [&] { theirs = static_cast<std::uint32_t>(crc32_z(0, data.data(), data.size())); });
                });
        Check(value == theirs, "zlib");
    }
    if (options.Wants("CRC-32, libdeflate's"))
    {
        Compare({"CRC-32, libdeflate's rate", 0, 0, Target::AtLeast, 1}, g_rounds, ours,
                [&] { return PerKiB(data.size(), [&] { theirs = libdeflate_crc32(0, data.data(), data.size()); }); });
        Check(value == theirs, "libdeflate");
    }
}

void MeasureCipher(Options const & options, Bytes const & data)
{
    if (!options.Wants("Blowfish"))
    {
        return;
    }
    OSSL_PROVIDER * const legacy = OSSL_PROVIDER_load(nullptr, "legacy");
    OSSL_PROVIDER * const standard = OSSL_PROVIDER_load(nullptr, "default");
    EVP_CIPHER * const kind = EVP_CIPHER_fetch(nullptr, "BF-ECB", nullptr);
    if (!kind)
    {
        std::printf("Blowfish: this OpenSSL has no legacy provider\n");
        return;
    }
    unsigned char key[] = "0123456789abcdef"; // 128 bits, its default
    Bytes value(data.size());
    Bytes theirs(data.size());
    EVP_CIPHER_CTX * const context = EVP_CIPHER_CTX_new();
    for (bool const encrypts : {true, false})
    {
        Compare(
            {std::string("Blowfish ") + (encrypts ? "encryption" : "decryption") + ", OpenSSL's rate", 0, 0,
             Target::AtLeast, 1},
            g_rounds,
            [&]
            {
                return PerKiB(data.size(),
                              [&]
                              {
                                  auto const run = encrypts ? CUtilities::BlowfishEncrypt : CUtilities::BlowfishDecrypt;
                                  run(key, 16, value.data(), const_cast<std::uint8_t *>(data.data()),
                                      static_cast<LONG>(data.size()));
                              });
            },
            [&]
            {
                return PerKiB(data.size(),
                              [&]
                              {
                                  int size = 0;
                                  EVP_CipherInit_ex2(context, kind, key, nullptr, encrypts, nullptr);
                                  EVP_CIPHER_CTX_set_padding(context, 0);
                                  EVP_CipherUpdate(context, theirs.data(), &size, data.data(),
                                                   static_cast<int>(data.size()));
                              });
            });
        Check(value == theirs, "Blowfish");
    }
    EVP_CIPHER_CTX_free(context);
    EVP_CIPHER_free(kind);
    OSSL_PROVIDER_unload(standard);
    OSSL_PROVIDER_unload(legacy);
}

/// Against a plain rate, that of a processor with AVX2.
template <class CALL>
void MeasureRate(Options const & options, std::string const & name, std::size_t size, CALL const & call)
{
    constexpr double LEAST = 4000; // MB/s
    if (options.Wants(name))
    {
        Compare(
            {name + ", " + std::to_string(static_cast<int>(LEAST)) + " MB/s", 0, 0, Target::AtLeast, 1}, g_rounds,
            [&] { return PerKiB(size, call); }, [] { return 1024 * 1000 / LEAST; });
    }
}

void MeasureBase64(Options const & options, Bytes const & data)
{
    int const size = static_cast<int>(data.size());
    int const room = CUtilities::Base64EncodeGetRequiredLength(size, 0);
    std::vector<char> narrow(static_cast<std::size_t>(room));
    std::vector<WCHAR> wide(static_cast<std::size_t>(room));
    Bytes decoded(data.size());
    int length = room;
    int wideLength = 0;
    int decodedSize = 0;
    CUtilities::Base64Encode(data.data(), size, narrow.data(), &length, 0);
    MeasureRate(options, "Base64, to wide lines", data.size(),
                [&] { CUtilities::Base64Encode(data.data(), size, wide.data(), &wideLength, 0); });
    MeasureRate(options, "Base64, to narrow lines", data.size(),
                [&]
                {
                    int all = room;
                    CUtilities::Base64Encode(data.data(), size, narrow.data(), &all, 0);
                });
    MeasureRate(options, "Base64, from lines", data.size(),
                [&]
                {
                    decodedSize = size;
                    CUtilities::Base64Decode(narrow.data(), length, decoded.data(), &decodedSize);
                });
    Check((wideLength == length || wideLength == 0) && (decodedSize == 0 || decoded == data), "Base64");
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    g_rounds = options.IsBrief() ? 2 : options.GetNumber("rounds", 20);
    Bytes data(static_cast<std::size_t>(options.GetNumber("size", options.IsBrief() ? 1 : 64)) << 20);
    std::uint32_t state = 1;
    std::ranges::generate(data,
                          [&]
                          {
                              state = state * 1664525 + 1013904223;
                              return static_cast<std::uint8_t>(state >> 24);
                          });
    MeasureDigest<kvx::hash::Sha256Digest>(options, "SHA-256", "SHA256", data);
    MeasureDigest<kvx::hash::Sha1Digest>(options, "SHA-1", "SHA1", data);
    MeasureDigest<kvx::hash::Md5Digest>(options, "MD5", "MD5", data);
    MeasureChecksum(options, data);
    Bytes const part(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(data.size() / 8));
    MeasureCipher(options, part);
    MeasureBase64(options, part);
    return 0;
}
