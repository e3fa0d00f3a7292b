#pragma once

#include "kvx/platform/mfc/Afx.h"

#include <tinyxml2.h>

namespace tinyxml2
{
/// Calls a function for the elements of a walk that have a name, or for all with an empty one; upper and lower case
/// differ. Used as `document.Accept(&visitor)`, or with Walk (NodeText.h). False from the function ends the walk of
/// what is below the element.
class KVX_API ElementVisitor : public XMLVisitor
{
public:
    using Callback = bool(CALLBACK *)(XMLElement const & element, void * context);

    ElementVisitor(Callback callback, void * context, char const * name)
        : m_pCallback(callback), m_pContext(context), m_strName(name)
    {
    }

    using XMLVisitor::VisitEnter;
    bool VisitEnter(XMLElement const & element, XMLAttribute const * firstAttribute) override;

private:
    Callback m_pCallback;
    void * m_pContext;
    CStringA m_strName;
};
} // namespace tinyxml2
