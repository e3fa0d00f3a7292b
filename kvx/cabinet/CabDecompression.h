#pragma once

#include "kvx/cabinet/CabTypes.h"

#include <memory>

namespace kvx::cabinet
{
/// The reading half of the engine: lists and decompresses cabinets and sets of them ([MS-CAB]). The files are read and
/// written by callbacks; what it finds, and what it is to do with it, goes through a notification.
///
/// Methods: none, MSZIP, LZX with windows of 2^15 to 2^21 bytes; any other (Quantum among them) is
/// FDIERROR_BAD_COMPR_TYPE when a file of such a folder is to be copied. Checksums are checked where there are any.
///
/// Memory: the window of one folder and some 400 KiB, whatever the cabinet says, by the alloc callback. Files of a
/// folder come cheapest in the order of their data; going back decompresses the folder again, of which one Copy does as
/// much as 64 times the cabinet's size and 64 MiB are, before and after compression together, and else takes the
/// cabinet for damaged. A read or seek that fails is damage too: the callback knows more.
///
/// Threads: one at a time; callbacks run on the caller's. What `notify` throws leaves Copy, with nothing open but what
/// is the callback's; the others mustn't throw. During a Copy the object takes IsCabinet, and refuses another Copy
/// (FDIERROR_MDI_FAIL).
class KVX_API CabDecompression
{
public:
    /// Results as the C library's: -1 (as UINT for `read` and `write`) is failure, the handle -1 is none. The pointer
    /// to a name may be written to. Files are opened with the flags of OpenFlags.h.
    struct Callbacks
    {
        PFNALLOC alloc;
        PFNFREE free;
        PFNOPEN open;
        PFNREAD read;
        PFNWRITE write;
        PFNCLOSE close;
        PFNSEEK seek;
    };

    /// Null with FDIERROR_ALLOC_FAIL in `erf` if there is no memory. `erf` belongs to the caller, outlives the object,
    /// and tells of each operation how it went.
    static std::unique_ptr<CabDecompression> Create(Callbacks const & callbacks, ERF * erf);
    ~CabDecompression();

    /// Whether a cabinet of this version begins at the handle's position; `info` (or null) tells about it. The handle
    /// stays open, and its position isn't kept.
    BOOL IsCabinet(INT_PTR hf, FDICABINETINFO * info);

    /// Goes through the cabinet `path` + `cabinet`, and calls `notify` with
    ///
    ///   - fdintCABINET_INFO at each cabinet that is opened: psz1 the next cabinet, psz2 its disk, psz3 the path,
    ///   setID,
    ///     iCabinet (0 for the first). -1 aborts.
    ///   - fdintENUMERATE before the files: cb where the first one's entry stands, iFolder the number of files, setID;
    ///     cb and iFolder may be changed, to begin with another entry. At the end iFolder is 0. -1 aborts.
    ///   - fdintPARTIAL_FILE for a file that began in an earlier cabinet, or can't be decompressed without one: psz1
    ///   its
    ///     name, psz2 the previous cabinet, psz3 its disk. -1 aborts.
    ///   - fdintCOPY_FILE for any other file: psz1 name, cb size, date, time, attribs, iFolder. 0 passes it over, -1
    ///     aborts, and anything else is the handle to write it to.
    ///   - fdintCLOSE_FILE_INFO when it is written: hf, psz1, date, time, attribs, iFolder, cb whether it is to be run.
    ///     The handle is the callback's to close. 0 and -1 abort.
    ///   - fdintNEXT_CABINET where a file goes on in the next cabinet: psz1 its name, psz2 its disk, psz3 the path,
    ///   which
    ///     may be changed (260 bytes, or as many as it has). fdie is what was wrong with the one before: it comes again
    ///     until there is the right cabinet, but no more than 100 times. -1 aborts.
    ///
    /// Files that began in the cabinet, and no others, are copied, also where they end in a later one. A file that
    /// begins in a later cabinet of the set, in a folder that began here, wants this Copy first, even if it passes
    /// everything over. 0 with the error in the ERF; a handle whose file failed is closed.
    BOOL Copy(char const * cabinet, char const * path, PFNFDINOTIFY notify, void * context);

private:
    class Impl;
    explicit CabDecompression(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};
} // namespace kvx::cabinet
