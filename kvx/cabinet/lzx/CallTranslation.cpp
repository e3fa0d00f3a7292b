#include "kvx/cabinet/lzx/CallTranslation.h"

#include "kvx/cabinet/CabFormat.h"
#include "kvx/cabinet/lzx/LzxFormat.h"

#include <cstring>

namespace kvx::cabinet
{
namespace
{
constexpr std::size_t CALL_FREE_END = 10;
constexpr std::uint64_t TRANSLATED_FRAMES = 32768;
constexpr std::uint8_t CALL_CODE = 0xE8;

/// Gives `translate` the distance of each call and the place of its first byte; it gives what to put there.
template <class TRANSLATE>
void ForEachCall(std::span<std::uint8_t> frame, std::uint64_t number, TRANSLATE const & translate)
{
    if (number >= TRANSLATED_FRAMES || frame.size() <= CALL_FREE_END)
    {
        return;
    }
    std::uint8_t * const end = frame.data() + frame.size() - CALL_FREE_END;
    for (std::uint8_t * at = frame.data(); at < end; at += 5)
    {
        at = static_cast<std::uint8_t *>(std::memchr(at, CALL_CODE, static_cast<std::size_t>(end - at)));
        if (!at)
        {
            return;
        }
        auto const place = static_cast<std::int64_t>(number * lzx::FRAME_SIZE) + (at - frame.data());
        std::int64_t const value = static_cast<std::int32_t>(GetDword(at + 1));
        PutDword(at + 1, static_cast<std::uint32_t>(translate(value, place)));
    }
}
} // namespace

void TranslateCalls(std::span<std::uint8_t> frame, std::uint64_t number, std::int32_t size)
{
    ForEachCall(frame, number,
                [size](std::int64_t distance, std::int64_t place)
                {
                    if (distance < -place || distance >= size)
                    {
                        return distance;
                    }
                    return distance < size - place ? distance + place : distance - size;
                });
}

void UntranslateCalls(std::span<std::uint8_t> frame, std::uint64_t number, std::int32_t size)
{
    ForEachCall(frame, number,
                [size](std::int64_t target, std::int64_t place)
                {
                    if (target < -place || target >= size)
                    {
                        return target;
                    }
                    return target >= 0 ? target - place : target + size;
                });
}
} // namespace kvx::cabinet
