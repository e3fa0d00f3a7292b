#pragma once

/// A request: a dotted command path, named text parameters, optional row sets, and the response that comes back.
///
///     CMsgRequest request;
///     request[_T("path")] = _T("/usr");
///     if (request.Execute(_T("host.files.list")))
///         CMsgCursor rows(request.GetResponse()); ...

#include "kvx/foundation/ValueAccessor.h"
#include "kvx/messaging/MsgResponse.h"

class CMsgConnection;

/// As a CValueAccessor a request is the set of its parameters; names are case-sensitive.
///
/// Execute runs the request on the calling thread and waits for the response. Send does the same with
/// DiscardResults set: a connection writes the request and reads nothing. The other end serves one-way requests in
/// order, on a thread of their own; a two-way request doesn't wait for those that were sent before it. Notify queues a
/// copy and returns at once. None of them throws: a failure is a code and a text in the response.
///
/// May live on the stack. Threads: one at a time; Notify hands a copy to another.
class KVX_API CMsgRequest : public CRefObject, public CValueAccessor
{
public:
    static constexpr DWORD FLAG_DISCARD_RESULTS = 1;  // one-way
    static constexpr DWORD FLAG_CLOSE_CONNECTION = 2; // the inverse of KeepAlive

    explicit CMsgRequest(DWORD flags = 0);
    /// Copies command, flags, handled, where it came from, parameters, response and row sets; a copy is tied to no
    /// connection, and to no notify queue.
    CMsgRequest(CMsgRequest const & other);
    ~CMsgRequest() override;
    CMsgRequest & operator=(CMsgRequest const &) = delete;
    operator CMsgRequest *() { return this; }
    operator CMsgRequest const *() const { return this; }

    /// Called before a request is executed or queued, for derived requests to fill themselves.
    virtual void PrepareRequest() {}
    virtual CMsgResponse & ExecuteRequest();
    virtual CMsgResponse & NotifyRequest();

    /// An empty command leaves the one that is set.
    CMsgResponse & Execute();
    CMsgResponse & Execute(CString const & command);
    /// Non-null row sets become the extended parameters.
    CMsgResponse & Execute(CString const & command, CMsgMultipleRowSets * exParams);
    CMsgResponse & Send();
    CMsgResponse & Send(CString const & command);
    CMsgResponse & Send(CString const & command, CMsgMultipleRowSets * exParams);
    /// The response says only that the notification was queued.
    CMsgResponse & Notify();
    CMsgResponse & Notify(CString const & command);
    /// The row sets become the extended parameters, even null.
    CMsgResponse & Notify(CString const & command, CMsgMultipleRowSets * exParams);

    CString const & GetCommand() const { return m_strCommand; }
    void SetCommand(LPCTSTR command) { m_strCommand = command; }
    void SetCommand(CString const & command) { m_strCommand = command; }
    /// Empty is the common queue; any other name is a queue of its own that runs in order.
    CString const & GetNotifyQueueName() const { return m_strNotifyQueue; }
    void SetNotifyQueueName(LPCTSTR name) { m_strNotifyQueue = name; }

    void SetFlag(DWORD mask, int on) { m_nFlags = on ? m_nFlags | mask : m_nFlags & ~mask; }
    /// True if any bit of the mask is set.
    int FlagIsSet(DWORD mask) const { return (m_nFlags & mask) != 0; }
    int FlagIsNotSet(DWORD mask) const { return !FlagIsSet(mask); }
    void DiscardResults(int discard) { SetFlag(FLAG_DISCARD_RESULTS, discard); }
    int DiscardResults() const { return FlagIsSet(FLAG_DISCARD_RESULTS); }
    void KeepAlive(int keep) { SetFlag(FLAG_CLOSE_CONNECTION, !keep); }
    int KeepAlive() const { return FlagIsNotSet(FLAG_CLOSE_CONNECTION); }

    int IsHandled() const { return m_bHandled; }
    void SetHandled(int handled) { m_bHandled = handled; }

    /// The request was read off a connection to another process, or is a copy of one that was. Nothing takes the mark
    /// off again.
    int IsFromOutside() const { return m_bFromOutside; }
    void SetFromOutside() { m_bFromOutside = true; }

    /// Not owned. Set on a request that a listener read; a caller may set it to pin a request to one connection.
    CMsgConnection * GetConnection() const { return m_pConnection; }
    void SetConnection(CMsgConnection * connection) { m_pConnection = connection; }

    /// Created empty if it is missing.
    CStringValue & GetParam(LPCTSTR name) { return CreateValue(name); }
    void SetParam(LPCTSTR name, CStringValue const & value) { CreateValue(name) = value; }
    /// The value of that same name, empty if `source` lacks it.
    void SetParam(LPCTSTR name, CValueAccessor const & source) { SetValue(name, source); }
    void SetParams(CValueAccessor const & source) { MergeValues(source); }
    void GetParams(CValueAccessor & target) const { target.MergeValues(*this); }
    int HasParam(LPCTSTR name) const { return HasValue(name); }
    int RemoveParam(LPCTSTR name) { return RemoveValue(name); }
    int RenameParam(LPCTSTR oldName, LPCTSTR newName) { return RenameValue(oldName, newName); }
    POSITION GetStartParamPosition() const { return GetStartValuePosition(); }
    void GetNextParam(POSITION & pos, CString & name, CString & value) const { GetNextValue(pos, name, value); }
    /// Deletes all parameters, the extended ones too.
    void ResetParams();

    int HasValue(CString const & name) const override;
    int GetValueCount() const override { return static_cast<int>(m_params.GetCount()); }
    CStringValue & CreateValue(CString const & name) override;
    int RemoveValue(CString const & name) override;
    void RemoveAllValues() override { ResetParams(); }
    POSITION GetStartValuePosition() const override { return m_params.GetStartPosition(); }
    void GetNextValue(POSITION & pos, CString & name, CString & value) const override;
    int RenameValue(CString const & oldName, CString const & newName) override;

    /// The extended parameters if there are any, else the response's row sets.
    CMsgMultipleRowSets * GetExParams() const;
    /// Shared; null clears.
    void SetExParams(CMsgMultipleRowSets * rowSets);

    CMsgResponse & GetResponse() { return *m_pResponse; }
    CMsgResponse const & GetResponse() const { return *m_pResponse; }
    void SetResponse(CMsgResponse const & response);
    /// The row sets are shared.
    void SetResponse(CMsgMultipleRowSets * rowSets);
    /// One row set with the values as its one row.
    void SetResponseValues(CValueAccessor const & values);
    /// The first row of the first row set; a response without any is the caller's mistake.
    void GetResponseValues(CValueAccessor & target) const;
    template <class... T>
    void SetResponseError(DWORD code, LPCTSTR format, T const &... values)
    {
        m_pResponse->SetError(code, format, values...);
    }

    /// Everything but the command, the name of the notify queue, and where the request came from.
    void Reset();

    /// Command and parameters, each on a line: what CLogManager::LogRequestParams logs.
    CString GetLogText() const;

    /// The wire form: see docs/wire-protocol.md. 0 on a failed stream, with the reason in the thread's last error.
    int Read(CMsgStream & stream);
    int Write(CMsgStream & stream);

protected:
    int ReadParams(CMsgStream & stream);
    int WriteParams(CMsgStream & stream);

private:
    CString m_strCommand;
    CString m_strNotifyQueue;
    DWORD m_nFlags;
    int m_bHandled = 0;
    bool m_bFromOutside = false;
    CMap<CString, CString const &, CStringValue, CStringValue const &> m_params{10};
    kvx::RefPtr<CMsgResponse> m_pResponse; // never null
    kvx::RefPtr<CMsgMultipleRowSets> m_pExParams;
    CMsgConnection * m_pConnection = nullptr;

    template <class WORK>
    CMsgResponse & Answer(WORK const & work);
    void CheckResponseReferences();
};
