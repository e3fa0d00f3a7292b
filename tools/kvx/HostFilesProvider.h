#pragma once

#include "kvx/messaging/MsgProvider.h"

/// `host.files.list`: what is in a folder, sorted by name, without "." and "..". Parameters: `path`; `pattern` with `*`
/// and
/// `?`, default `*`; `limit`, the number of rows at most, 0 for all. Columns: name, size in bytes, modified in local
/// time, kind (file, directory, link, other).
class CHostFilesProvider : public CMsgProvider
{
public:
    void RegisterProviderMap() override;

private:
    void OnList(CMsgRequest & request);
};
