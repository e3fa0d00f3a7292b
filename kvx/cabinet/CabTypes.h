#pragma once

/// What both halves of the cabinet engine share with their callers: the structures, notifications and codes of the
/// published interfaces to the Cabinet format, with handles and contexts of pointer size. Names are bytes: as the
/// caller's callbacks take them, and in cabinets as they stand there.

#include "kvx/platform/mfc/Afx.h"

/// What went wrong, of the operation that gave 0.
struct ERF
{
    int erfOper; ///< an FCIERROR or FDIERROR
    int erfType; ///< the error number of the callback that failed, or 0
    BOOL fError; ///< whether there was an error
};

/// How a set of cabinets is to be written; the engine keeps the numbers and names of the present cabinet here, and the
/// next-cabinet callback changes it.
struct CCAB
{
    ULONG cb;               ///< a cabinet's maximum size in bytes; 0 for 0x7FFFFFFF
    ULONG cbFolderThresh;   ///< the size in bytes at which a folder is closed
    UINT cbReserveCFHeader; ///< bytes set aside in each cabinet's header, at most 60,000
    UINT cbReserveCFFolder; ///< in each folder's, at most 255
    UINT cbReserveCFData;   ///< and in each data block's, at most 255
    int iCab;               ///< number of the cabinet, from 1 by custom
    int iDisk;              ///< number of the disk
    int fFailOnIncompressible;
    USHORT setID; ///< the same in all cabinets of a set
    char szDisk[256];
    char szCab[256];
    char szCabPath[256]; ///< the folder with its separator at the end; put in front of `szCab`
};

struct FDICABINETINFO
{
    LONG cbCabinet;
    USHORT cFolders;
    USHORT cFiles;
    USHORT setID;
    USHORT iCabinet; ///< from 0 on in the file
    BOOL fReserve;   ///< whether there are reserved areas
    BOOL hasprev;
    BOOL hasnext;
};

/// The codes of a compression that failed.
enum FCIERROR
{
    FCIERR_NONE,
    FCIERR_OPEN_SRC,
    FCIERR_READ_SRC,
    FCIERR_ALLOC_FAIL,
    FCIERR_TEMP_FILE,
    FCIERR_BAD_COMPR_TYPE,
    FCIERR_CAB_FILE,
    FCIERR_USER_ABORT,
    FCIERR_MCI_FAIL,
    FCIERR_CAB_FORMAT_LIMIT,
};

/// The codes of a decompression that failed.
enum FDIERROR
{
    FDIERROR_NONE,
    FDIERROR_CABINET_NOT_FOUND,
    FDIERROR_NOT_A_CABINET,
    FDIERROR_UNKNOWN_CABINET_VERSION,
    FDIERROR_CORRUPT_CABINET,
    FDIERROR_ALLOC_FAIL,
    FDIERROR_BAD_COMPR_TYPE,
    FDIERROR_MDI_FAIL,
    FDIERROR_TARGET_FILE,
    FDIERROR_RESERVE_MISMATCH,
    FDIERROR_WRONG_CABINET,
    FDIERROR_USER_ABORT,
};

enum FDINOTIFICATIONTYPE
{
    fdintCABINET_INFO,
    fdintPARTIAL_FILE,
    fdintCOPY_FILE,
    fdintCLOSE_FILE_INFO,
    fdintNEXT_CABINET,
    fdintENUMERATE,
};

struct FDINOTIFICATION
{
    LONG cb;
    char * psz1;
    char * psz2;
    char * psz3; ///< of fdintNEXT_CABINET: 260 bytes with the path, which may be changed
    void * pv;   ///< the caller's context
    INT_PTR hf;
    USHORT date; ///< as in MS-DOS: days from bit 0, months from bit 5, years since 1980 from bit 9
    USHORT time; ///< pairs of seconds from bit 0, minutes from bit 5, hours from bit 11
    USHORT attribs;
    USHORT setID;
    USHORT iCabinet;
    USHORT iFolder;
    FDIERROR fdie;
};

/// Attributes in a cabinet, as the system's, and two of the format's own.
inline constexpr USHORT CAB_ATTRIBUTES = 0x27; ///< read-only, hidden, system, archive
inline constexpr USHORT CAB_ATTRIBUTE_EXECUTE = 0x40;
inline constexpr USHORT CAB_ATTRIBUTE_NAME_IS_UTF = 0x80;

/// The compression type of a folder: the method in the low four bits; for LZX the window's bits in bits 8 to 12.
inline constexpr USHORT tcompMASK_TYPE = 0x000F;
inline constexpr USHORT tcompTYPE_NONE = 0;
inline constexpr USHORT tcompTYPE_MSZIP = 1;
inline constexpr USHORT tcompTYPE_QUANTUM = 2;
inline constexpr USHORT tcompTYPE_LZX = 3;
inline constexpr USHORT tcompBAD = 0x000F;
inline constexpr USHORT tcompMASK_LZX_WINDOW = 0x1F00;
inline constexpr int tcompSHIFT_LZX_WINDOW = 8;

/// LZX with a window of 2 to the power of `windowBits` bytes, 15 to 21.
constexpr USHORT TCOMPfromLZXWindow(int windowBits)
{
    return static_cast<USHORT>(windowBits << tcompSHIFT_LZX_WINDOW | tcompTYPE_LZX);
}

/// How often a next cabinet that isn't there is asked for: a person who changes disks gives up before that.
inline constexpr int NEXT_CABINET_TRIES = 100;

// Kinds of the status callback of a compression.
inline constexpr UINT statusFile = 0;    ///< block of a file: cb1 compressed, cb2 uncompressed bytes
inline constexpr UINT statusFolder = 1;  ///< folder copied into the cabinet: cb1 bytes of cb2
inline constexpr UINT statusCabinet = 2; ///< cabinet done: cb1 estimated, cb2 actual size; gives the size to count with

// The callbacks of a compression. `err` receives an error number of the C library where the result tells failure
// (-1, or 0 of allocations and the others); names and flags are the C library's, in the form that CCabBase tells.
using PFNFCIFILEPLACED = int (*)(CCAB * pccab, char * file, LONG cbFile, BOOL fContinuation, void * context);
using PFNFCIALLOC = void * (*)(ULONG cb);
using PFNFCIFREE = void (*)(void * memory);
using PFNFCIOPEN = INT_PTR (*)(char * file, int oflag, int pmode, int * err, void * context);
using PFNFCIREAD = UINT (*)(INT_PTR hf, void * memory, UINT cb, int * err, void * context);
using PFNFCIWRITE = UINT (*)(INT_PTR hf, void * memory, UINT cb, int * err, void * context);
using PFNFCICLOSE = int (*)(INT_PTR hf, int * err, void * context);
using PFNFCISEEK = LONG (*)(INT_PTR hf, LONG distance, int origin, int * err, void * context);
using PFNFCIDELETE = int (*)(char * file, int * err, void * context);
using PFNFCIGETTEMPFILE = BOOL (*)(char * name, int size, void * context);
using PFNFCIGETNEXTCABINET = BOOL (*)(CCAB * pccab, ULONG cbPrevCab, void * context);
using PFNFCISTATUS = LONG (*)(UINT typeStatus, ULONG cb1, ULONG cb2, void * context);
using PFNFCIGETOPENINFO = INT_PTR (*)(char * name, USHORT * date, USHORT * time, USHORT * attribs, int * err,
                                      void * context);

// The callbacks of a decompression.
using PFNALLOC = void * (*)(ULONG cb);
using PFNFREE = void (*)(void * memory);
using PFNOPEN = INT_PTR (*)(char * file, int oflag, int pmode);
using PFNREAD = UINT (*)(INT_PTR hf, void * memory, UINT cb);
using PFNWRITE = UINT (*)(INT_PTR hf, void * memory, UINT cb);
using PFNCLOSE = int (*)(INT_PTR hf);
using PFNSEEK = LONG (*)(INT_PTR hf, LONG distance, int origin);
using PFNFDINOTIFY = INT_PTR (*)(FDINOTIFICATIONTYPE type, FDINOTIFICATION * notification);
