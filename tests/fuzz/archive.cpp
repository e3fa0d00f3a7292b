// Reads arbitrary bytes as texts, packed or narrow, and as dictionaries. The first byte tells which.

#include "Require.h"

#include "kvx/files/ArchiveStreamer.h"
#include "kvx/files/PagedMemFile.h"
#include "kvx/foundation/Dictionary.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    CPagedMemFile file;
    file.Write(data + 1, static_cast<UINT>(size - 1));
    file.Seek(0, CFile::begin);
    CArchive archive(&file, CArchive::load, 128);
    CArchiveStreamer streamer(archive, data[0] & 1);
    streamer.EnablePackedStrings(data[0] & 2);
    try
    {
        for (;;)
        {
            if ((data[0] & 4) != 0)
            {
                CDictionary values;
                values.Serialize(archive);
            }
            CString text;
            streamer.Read(text);
            Require(static_cast<std::size_t>(text.GetLength()) <= size || (data[0] & 2) != 0);
        }
    }
    catch (CArchiveException * error)
    {
        error->Delete();
    }
    return 0;
}
