#include "kvx/sql/SQLMetaData.h"

#include "kvx/foundation/Utilities.h"

using tinyxml2::XMLElement;

namespace
{
// Null without a root or without a child element.
XMLElement * FirstElement(tinyxml2::XMLDocument & document)
{
    XMLElement * const root = document.RootElement();
    return root ? root->FirstChildElement() : nullptr;
}
} // namespace

CSQLMetaData::CSQLMetaData(CMsgProvider * provider, CStringA const & xml) : m_pProvider(provider)
{
    SetMetaXML(xml);
}

int CSQLMetaData::SetMetaXML(CStringA const & xml)
{
    return m_document.Parse(xml) == tinyxml2::XML_SUCCESS;
}

int CSQLMetaData::IsXMLMetaDataSet() const
{
    return FirstElement(const_cast<tinyxml2::XMLDocumentKVX &>(m_document)) != nullptr;
}

int CSQLMetaData::Initialize(CString const & application)
{
    ReadCurrentStructure();
    XMLElement * element = FirstElement(m_document);
    int result = element ? 1 : 0;
    for (; element; element = element->NextSiblingElement())
    {
        CString const name = CUtilities::MB2T(element->Name(), CP_UTF8);
        CString const wanted = CUtilities::MB2T(element->Attribute("application_specific"), CP_UTF8);
        if (!wanted.IsEmpty() && (application.IsEmpty() || wanted.Find(application) < 0))
        {
            continue;
        }
        if (name.CompareNoCase(_T("TABLE")) == 0)
        {
            result &= CreateTable(element, application);
        }
        else if (name.CompareNoCase(_T("INDEX")) == 0)
        {
            result &= CreateIndex(element, application);
        }
        else if (name.CompareNoCase(_T("VIEW")) == 0)
        {
            result &= CreateView(element, application);
        }
        else
        {
            result &= CreateElement(element, application);
        }
    }
    return result;
}

int CSQLMetaData::ReadCurrentStructure()
{
    return 0;
}

int CSQLMetaData::CreateElement(XMLElement *, CString const &)
{
    return 0;
}
