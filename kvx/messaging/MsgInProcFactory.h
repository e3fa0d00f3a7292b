#pragma once

/// Providers from modules: the configuration is `inproc:module@name`. A module exports, without name mangling,
///
///     KVX_MODULE_EXPORT CMsgProvider * KVXMSG_CreateInProcProvider(CString const & name);
///
/// for every name, or one with "_" and the name behind it, which is preferred; it gives null for a name it doesn't
/// know.

#include "kvx/messaging/MsgFactory.h"

class CMsgDispatcher;

/// Each provider holds a use of its module, which is unloaded when the provider is gone. Nothing of a module may stay
/// behind: requests, texts and row sets that it gives away are the library's own and are fine.
class KVX_API CMsgInProcFactory : public CMsgFactory
{
public:
    /// Null, with the reason in the log unless the module can't be loaded: that is the last error.
    CMsgProvider * CreateProvider(LPCTSTR params) override;

    /// Registers the type "inproc".
    static void RegisterTypes(CMsgDispatcher & dispatcher);
    static void RegisterTypes();

    /// "KVXMSG_CreateInProcProvider"
    static CString const CREATE_PROVIDER;
};
