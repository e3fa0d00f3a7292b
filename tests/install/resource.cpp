#include "kvx/kvx.h"

// The exit status tells whether the resource that the project has put in is there.
int main()
{
    CStringA project;
    bool const bLoaded = CUtilities::LoadResource(project, _T("project"), _T("TEXT"), nullptr) != 0;
    return bLoaded && project.Find("project(Foreign") >= 0 ? 0 : 1;
}
