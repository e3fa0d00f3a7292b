#pragma once

#include "Wide.h"
#include "tests/support/TestFolder.h"

/// With paths as the API takes them.
class WideTestFolder : public TestFolder
{
protected:
    Wide Path(Wide const & strName) const { return Wide(TestFolder::Path({})) + strName; }
};
