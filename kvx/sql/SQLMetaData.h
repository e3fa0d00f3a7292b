#pragma once

/// What brings a database's structure in line with a description in XML: the description and the walk over it. All that
/// touches a database is in derived classes.

#include "kvx/platform/mfc/Afx.h"
#include "kvx/xml/XMLDocumentKVX.h"

class CMsgProvider;

/// The root's child elements are TABLE, INDEX and VIEW, in any case, or others that a derived class knows. An element
/// with the attribute "application_specific" is for the applications that it names. Threads: one at a time.
class KVX_API CSQLMetaData
{
public:
    /// The provider isn't owned.
    CSQLMetaData(CMsgProvider * provider, CStringA const & xml);
    CSQLMetaData(CSQLMetaData const &) = delete;
    CSQLMetaData & operator=(CSQLMetaData const &) = delete;
    virtual ~CSQLMetaData() = default;

    /// Offers every element for the application, in the order of the document, also when one has failed. The result is
    /// the bitwise "and" of what the operations give, so that 1 is success and 2 is failure; 0 without any element. An
    /// element is for the application if its attribute contains the application's name anywhere, in the same case, and
    /// one with the attribute is for none whose name is empty.
    virtual int Initialize(CString const & application);

    /// Called first; the result means nothing. The definition here gives 0.
    virtual int ReadCurrentStructure() = 0;
    virtual int CreateTable(tinyxml2::XMLElement * element, CString const & application) = 0;
    virtual int CreateIndex(tinyxml2::XMLElement * element, CString const & application) = 0;
    virtual int CreateView(tinyxml2::XMLElement * element, CString const & application) = 0;
    /// Any other element, which fails here.
    virtual int CreateElement(tinyxml2::XMLElement * element, CString const & application);

    /// Takes the place of what was there; 0 if it can't be read, and there is nothing then.
    int SetMetaXML(CStringA const & xml);
    /// Whether there is a root with a child element.
    int IsXMLMetaDataSet() const;
    CMsgProvider * GetProvider() const { return m_pProvider; }

private:
    tinyxml2::XMLDocumentKVX m_document;
    CMsgProvider * m_pProvider;
};
