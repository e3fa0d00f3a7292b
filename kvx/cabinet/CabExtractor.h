#pragma once

#include "kvx/cabinet/CabBase.h"
#include "kvx/cabinet/CabDecompression.h"

/// Takes files out of a cabinet, or a set of them:
///
///     CCabExtractor extractor("");
///     extractor.SetConfined(1);
///     if (!extractor.Extract("Z:\\backup\\me.cab", 1, "Z:\\home\\me\\restored"))
///         ... extractor.GetError()
///
/// A subclass is told of each file, and decides. Names in a cabinet are whatever its maker wrote: by contract those
/// with a drive, and those that climb out of the destination, are followed, unless SetConfined passes them over.
///
/// What a notification throws leaves the operation, and the object can be used again; from within a notification it
/// can't be. Threads: as CCabBase.
class KVX_API CCabExtractor : public CCabBase
{
public:
    /// The room that NotifyFileCopy has at least; the library itself gives more, for long paths.
    static constexpr int DESTINATION_SIZE = 260;

    /// An empty directory becomes the current one.
    explicit CCabExtractor(char const * defaultDirectory);
    ~CCabExtractor() override;

    /// With 1, files of which the name has a drive, begins with a separator or has a component ".." are passed over,
    /// unless a file set gives them a path other than their name.
    void SetConfined(int confined) { m_bConfined = confined; }
    /// How many the last operation passed over for that.
    int GetPassedOver() const { return m_nPassedOver; }

    /// Extracts all files of a cabinet (a file that fails half-way is deleted); with `followChain`, of those that
    /// follow in its set too. The destination becomes the default directory; an empty one leaves it, or, if there is
    /// none, takes the cabinet's. By contract an empty name for the next disk marks the last cabinet. @return 1, or 0
    /// with the error. Errors: CMemoryException *.
    int Extract(char const * cabPath, int followChain, char const * destination);
    /// The files of the set, of all the cabinets: those with a path go there, extern ones into their CFile. Names are
    /// compared as they stand in the cabinet, with backslashes; that one isn't there is no failure.
    int Extract(char const * cabPath, CCabFileSet & files, char const * destination);
    /// Out of a file of the caller's, which is read from its begin.
    int Extract(CFile * file, int followChain, char const * destination);
    int Extract(CFile * file, CCabFileSet & files, char const * destination);
    /// Adds the names of all files.
    int ListContents(char const * cabPath, CCabFileSet & files);

    /// Whether there was memory for an engine.
    int IsValid() const { return m_engine != nullptr; }

    /// The next cabinet isn't there (1), is none (2) or another (10), or is simply needed (0). A subclass that can find
    /// it changes the directory; 0 aborts. By default 1: it is tried again where it was, up to 100 times.
    virtual int NotifyNextCab(char const * cabName, char const * diskName, CStringA & directory, int error);
    /// The same in the middle of a file; the directory has 260 bytes. By default the form above.
    virtual int NotifyNextCab(char const * cabName, char const * diskName, char * directory, int error);
    /// A cabinet was opened. Not above 0: aborts. What the default notes is what the way through a set needs.
    virtual int NotifyCabInfo(USHORT setId, char const * path, char const * nextCabName, char const * nextDiskName,
                              int number);
    /// A file that began in another cabinet. Not above 0: aborts.
    virtual int NotifyPartialFile(char const * name, char const * firstCab, char const * firstDisk);
    /// A file is about to be copied to `destination` (DESTINATION_SIZE bytes), which the default sets by the file set
    /// and the default directory. With `skip` it is passed over; 0 without it aborts.
    virtual int NotifyFileCopy(char const * name, LONG size, char * destination, int & skip);
    /// The file is written; what is changed here is what it gets. 0 aborts.
    virtual int NotifyFileCopied(char const * name, USHORT & date, USHORT & time, USHORT & attributes);
    /// The file has its time and attributes. 0 aborts.
    virtual int NotifyFileCopiedAndClosed(char const * name);
    /// Where the entries to go through begin, and how many they are. -1 aborts.
    virtual int NotifyEnumerate(USHORT setId, LONG & offset, USHORT & count);

private:
    static constexpr int NONE = -1;

    int m_nCabinet = NONE;
    CStringA m_strNextCabPath;
    CStringA m_strNextDisk;
    int m_nNextCabinet = NONE;
    int m_bPending = 0;
    int m_bListOnly = 0;
    std::unique_ptr<kvx::cabinet::CabDecompression> m_engine;
    int m_nFileFirstCab = NONE;
    int m_nFileLastCab = NONE;
    int m_bLastCab = 0;
    CStringA m_strDestination;
    int m_bConfined = 0;
    int m_nPassedOver = 0;
    bool m_bFileOpen = false;  // the destination isn't complete
    int m_nOpenCabinet = NONE; // the one that the engine opened last

    int GetCabInfo(char const * cabPath, FDICABINETINFO & info);
    int ExtractSet(char const * cabPath, int followChain, char const * destination);
    int FindNextCab();
    INT_PTR CopyFile(FDINOTIFICATION const & notification);
    INT_PTR CloseFile(FDINOTIFICATION const & notification);
    INT_PTR NextCab(FDINOTIFICATION & notification);
    static INT_PTR NotifyProgressProc(FDINOTIFICATIONTYPE type, FDINOTIFICATION * notification);
};
