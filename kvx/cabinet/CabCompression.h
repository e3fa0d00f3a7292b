#pragma once

#include "kvx/cabinet/CabTypes.h"

#include <memory>

namespace kvx::cabinet
{
/// How hard the compressors try; any level gives what any reader takes.
enum class Level
{
    Fast,
    Default,
    Best,
};

/// The writing half of the engine: makes a cabinet, or a set of them, from files that callbacks read, with the
/// published interface for it (FCI). Files are read into a folder, which is compressed as one; folders go into a
/// cabinet. Where one doesn't fit, the cabinet is filled, and the folder goes on in the next one, whose name a callback
/// gives.
///
/// A folder that has data ends when it is flushed, when a file asks for another type of compression, and behind the
/// file with which
///   - its compressed data have reached the threshold (data that haven't been compressed yet, as up to a block always,
///     don't count; nor does a folder end without any),
///   - or it may not fit into the present cabinet any more, with headers and room for the next one's names,
///   - or it has 1 GiB before compression.
///
/// Compressed data wait in temporary files, in memory are the names and headers of one cabinet. Memory comes from the
/// alloc callback, but for small objects.
///
/// Errors: an operation that fails gives 0 and fills in the ERF of Create, and every later one on the object gives 0 as
/// well. `erfType` is the error number that the callback gave, if one failed, or 0.
///   - FCIERR_OPEN_SRC, FCIERR_READ_SRC: a source can't be opened; or not be read or closed
///   - FCIERR_ALLOC_FAIL: no memory
///   - FCIERR_TEMP_FILE: a temporary file can't be created, written or read
///   - FCIERR_BAD_COMPR_TYPE, with 15 for erfType: no such compression. There are
///     none, MSZIP, and LZX with windows of 15 to 21 bits
///   - FCIERR_CAB_FILE: a cabinet can't be written; what there is of it has been deleted
///   - FCIERR_USER_ABORT: filePlaced or status gave -1, or getNextCabinet 0
///   - FCIERR_CAB_FORMAT_LIMIT: a name of more than 255 bytes, a file of 4 GiB or more, a cabinet number above 65,535;
///   a
///     cabinet that is too small for a file's header and some data; and what needs a further cabinet while there is
///     no callback for it: more than `cb` bytes, 65,535 files, 65,533 folders or 65,535 blocks of a folder (2 GiB)
///   - FCIERR_MCI_FAIL: arguments that can't be, as reserves beyond what CCAB tells; a next cabinet without a name, or
///     with the path and name (in any case of ASCII) of the one before, which it would overwrite; with
///     `fFailOnIncompressible` a whole block that compression doesn't make smaller; a thread of the pool that was
///     killed while it compressed; and whatever else is no one else's fault
///
/// The destructor closes and deletes what is temporary, and writes nothing: what wasn't flushed is lost.
///
/// Threads: one at a time, which makes all callbacks, in the calls of this object.
class KVX_API CabCompression
{
public:
    /// All of them are needed. None may throw, nor may those that operations are given: what one throws isn't told as
    /// such, and may have to pass code of other libraries, which can't give back what they hold. Names are passed in
    /// buffers of 260 bytes at least, which they may change.
    struct Callbacks
    {
        PFNFCIFILEPLACED filePlaced;
        PFNFCIALLOC alloc;
        PFNFCIFREE free;
        PFNFCIOPEN open;
        PFNFCIREAD read;
        PFNFCIWRITE write;
        PFNFCICLOSE close;
        PFNFCISEEK seek;
        PFNFCIDELETE remove;
        PFNFCIGETTEMPFILE getTempFile;
    };
    /// Beyond the published interface.
    struct Options
    {
        Level level = Level::Default;
        bool translateCalls = true; ///< LZX: addresses of x86 calls become absolute, which compresses programs better
        unsigned jobs = 1; ///< threads that compress, the caller's among them, at most 64; the others are the pool's
    };

    /// Null with the error in `erf`, which has to live as long as the object. Creates a temporary file. `ccab` is
    /// copied. Its `cb` is at most 0x7FFFFFFF, which 0 stands for too.
    static std::unique_ptr<CabCompression> Create(ERF * erf, Callbacks const & callbacks, CCAB const * ccab,
                                                  void * context);
    ~CabCompression();

    /// Before the first file. Cabinets don't depend on the number of jobs, nor does the order of the calls of
    /// filePlaced, getNextCabinet and status; but with more than one these may come later, at the next operations that
    /// have room for more, with their callbacks, and all of them by the end of FlushCabinet. With MSZIP all jobs share
    /// a folder. An LZX folder is one job's work, so that several are of use only if folders end by themselves: where
    /// the threshold ends them the next one can't begin before that is known.
    void SetOptions(Options const & options);

    /// Adds what `getOpenInfo` opens under the name `sourceFile`, up to its end, as `fileName`, with the date, time and
    /// attributes that it gives; of those are kept CAB_ATTRIBUTES, CAB_ATTRIBUTE_EXECUTE, which `execute` sets too, and
    /// CAB_ATTRIBUTE_NAME_IS_UTF, which belongs to names in UTF-8 with bytes above 0x7F. The source is closed by the
    /// close callback. `status`, which may be null, gets statusFile with each block that is done.
    ///
    /// `getNextCabinet` may be null where no further cabinet is wanted. It gets the present cabinet's CCAB with `iCab`
    /// increased by 1, puts the next one's names and size there, and is asked before the present cabinet is written,
    /// because these names stand there: the size that it is told is an estimate. Changed reserves for folders and
    /// blocks are ignored; readers need the same in all cabinets.
    int AddFile(char const * sourceFile, char const * fileName, BOOL execute, PFNFCIGETNEXTCABINET getNextCabinet,
                PFNFCISTATUS status, PFNFCIGETOPENINFO getOpenInfo, USHORT typeCompress);
    /// Ends the folder and writes the cabinet: under the path and the name that its CCAB has. With `getNextCab` the
    /// cabinet says that one comes behind it, and there has to be one. Otherwise it is the last, and a file that is
    /// added later begins a new cabinet, with no tie to this one. With nothing to write it does nothing, and gives 1.
    ///
    /// `status` gets statusCabinet with the size that getNextCabinet was told, if it was asked, and the actual one.
    /// Only a result of -1 means something: the next cabinet's size comes from getNextCabinet.
    int FlushCabinet(BOOL getNextCab, PFNFCIGETNEXTCABINET getNextCabinet, PFNFCISTATUS status);
    /// Ends the folder, if there are any data in it: one of empty files alone isn't taken by every reader, and goes on
    /// with whatever comes. filePlaced is called for each of its files, in each cabinet that has a part of it, and then
    /// `status` with statusFolder, the bytes of the folder's data up to there and all of them. A set may go on in
    /// further cabinets in this, and where AddFile ends a folder as well.
    int FlushFolder(PFNFCIGETNEXTCABINET getNextCabinet, PFNFCISTATUS status);

private:
    class Impl;
    explicit CabCompression(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};
} // namespace kvx::cabinet
