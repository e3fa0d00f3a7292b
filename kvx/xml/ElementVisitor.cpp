#include "kvx/xml/ElementVisitor.h"

namespace tinyxml2
{
bool ElementVisitor::VisitEnter(XMLElement const & element, XMLAttribute const *)
{
    if (m_strName.IsEmpty() || m_strName == element.Name())
    {
        return m_pCallback(element, m_pContext);
    }
    return true;
}
} // namespace tinyxml2
