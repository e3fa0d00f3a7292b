#include "kvx/platform/win32/registry/key_paths.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/registry/registry_key.h"

namespace kvx::win32::registry
{

namespace
{

/// Walks as far as there are keys: `place` is then the last one, and nFound the number of names that were found.
LONG Walk(StoreConnection & connection, std::vector<Name> const & names, Place & place, std::size_t & nFound)
{
    for (nFound = 0; nFound < names.size(); ++nFound)
    {
        FoldedName const folded(names[nFound]);
        StoreQuery query(connection, Sql::FindKey);
        if (!query.Bind(place.id).Bind(folded).Next())
        {
            if (query.GetError() != 0)
            {
                return query.GetError();
            }
            break;
        }
        place = {query.GetNumber(0), place.nDepth + 1};
    }
    return nFound == 0 ? CheckKey(connection, place.id) : 0;
}

} // namespace

LONG FindPlace(StoreConnection & connection, std::vector<Name> const & names, Place & place)
{
    std::size_t nFound = 0;
    LONG const nError = Walk(connection, names, place, nFound);
    return nError == 0 && nFound < names.size() ? ERROR_FILE_NOT_FOUND : nError;
}

LONG MakePlace(RegistryStore & store, std::vector<Name> const & names, Place & place, bool & bCreated)
{
    bCreated = false;
    Place const start = place;
    std::size_t nFound = 0;
    LONG const nError =
        store.Read([&](StoreConnection & connection) { return Walk(connection, names, place, nFound); });
    if (nError != 0 || nFound == names.size())
    {
        return nError;
    }
    if (start.nDepth + names.size() > MAX_KEY_DEPTH)
    {
        return ERROR_INVALID_PARAMETER;
    }
    return store.Write(
        [&](StoreConnection & connection, RegistryStore::Changes & changes) -> LONG
        {
            place = start;
            if (LONG const nFailure = Walk(connection, names, place, nFound); nFailure != 0)
            {
                return nFailure;
            }
            for (; nFound < names.size(); ++nFound)
            {
                FoldedName const folded(names[nFound]);
                StoreQuery query(connection, Sql::InsertKey);
                LONG const nFailure = query.Bind(place.id).Bind(folded).Bind(AsBytes(names[nFound])).Run();
                if (nFailure != 0)
                {
                    return nFailure;
                }
                changes.Add(place.id);
                place = {connection.GetLastId(), place.nDepth + 1};
                bCreated = true;
            }
            return 0;
        });
}

} // namespace kvx::win32::registry
