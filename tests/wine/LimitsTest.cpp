/// Where Wine doesn't do what the API's documentation says, and tests of ours are skipped for it. A test here fails when
/// a later Wine does better: then it goes, and the marks that name it.

#include "tests/support/OneHost.h"

#include <windows.h>
