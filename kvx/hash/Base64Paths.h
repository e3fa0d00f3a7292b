#pragma once

/// The inner loops of Base64 for the instruction sets.

#include "kvx/hash/CpuPaths.h"
#include "kvx/platform/host.h"

#include <cstddef>

namespace kvx::hash
{
inline constexpr std::size_t BASE64_LINE = 76;      // characters
inline constexpr std::size_t BASE64_LINE_DATA = 57; // bytes

/// Writes `lines` lines, each with CR LF behind it if `ends`. Reads and writes not one byte more than that.
using EncodeNarrowLines = void (*)(std::uint8_t const * data, std::size_t lines, char * out, bool ends);
using EncodeWideLines = void (*)(std::uint8_t const * data, std::size_t lines, WCHAR * out, bool ends);

/// A place in a text, at the begin of a group, and in the memory for its bytes.
struct DecodeCursor
{
    char const * pText;
    char const * pTextEnd;
    std::uint8_t * pOut;
    std::uint8_t * pOutEnd;
};
/// Decodes groups for as long as that goes fast, and passes over what lies between groups and is no digit. Whoever
/// calls it decodes a group otherwise then, and may come back. Writes anything up to pOutEnd, of which what lies behind
/// the new pOut means nothing.
using DecodeGroups = void (*)(DecodeCursor & cursor);

void EncodeNarrowPortable(std::uint8_t const * data, std::size_t lines, char * out, bool ends);
void EncodeNarrowSsse3(std::uint8_t const * data, std::size_t lines, char * out, bool ends);
void EncodeNarrowAvx2(std::uint8_t const * data, std::size_t lines, char * out, bool ends);
void EncodeWidePortable(std::uint8_t const * data, std::size_t lines, WCHAR * out, bool ends);
void EncodeWideSsse3(std::uint8_t const * data, std::size_t lines, WCHAR * out, bool ends);
void EncodeWideAvx2(std::uint8_t const * data, std::size_t lines, WCHAR * out, bool ends);
void DecodePortable(DecodeCursor & cursor);
void DecodeSsse3(DecodeCursor & cursor);
void DecodeAvx2(DecodeCursor & cursor);

inline constexpr CpuPath<EncodeNarrowLines> ENCODE_NARROW_PATHS[] = {{"AVX2", CPU_AVX2, EncodeNarrowAvx2},
                                                                     {"SSSE3", CPU_SSSE3, EncodeNarrowSsse3},
                                                                     {"portable", 0, EncodeNarrowPortable}};
inline constexpr CpuPath<EncodeWideLines> ENCODE_WIDE_PATHS[] = {
    {"AVX2", CPU_AVX2, EncodeWideAvx2}, {"SSSE3", CPU_SSSE3, EncodeWideSsse3}, {"portable", 0, EncodeWidePortable}};
inline constexpr CpuPath<DecodeGroups> DECODE_PATHS[] = {
    {"AVX2", CPU_AVX2, DecodeAvx2}, {"SSSE3", CPU_SSSE3, DecodeSsse3}, {"portable", 0, DecodePortable}};

/// The decoder on one path.
struct Base64Decoded;
Base64Decoded DecodeBase64On(DecodeGroups path, char const * text, std::size_t length, std::uint8_t * out,
                             std::size_t room);
} // namespace kvx::hash
