#include "kvx/cabinet/mszip/MszipDecoder.h"

#include "kvx/cabinet/ResourceObject.h"
#include "kvx/cabinet/mszip/Inflater.h"

namespace kvx::cabinet
{
namespace
{
class MszipDecoder : public FolderDecoder
{
public:
    explicit MszipDecoder(std::pmr::memory_resource * memory) : m_inflater(memory) {}

    bool Decode(std::span<std::uint8_t const> data, std::span<std::uint8_t> out) override
    {
        return data.size() >= 2 && data[0] == 'C' && data[1] == 'K' && m_inflater->Inflate(data.subspan(2), out);
    }

private:
    ResourceObject<Inflater> m_inflater; // some 100 KiB
};
} // namespace

std::unique_ptr<FolderDecoder> MakeMszipDecoder(std::pmr::memory_resource * memory)
{
    return std::make_unique<MszipDecoder>(memory);
}
} // namespace kvx::cabinet
