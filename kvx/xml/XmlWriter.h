#pragma once

/// Writes elements to an archive: the text form that CXmlDocument tells of.

#include "kvx/xml/XmlDocument.h"

#include <memory>

namespace kvx
{
/// Each call hands all that it wrote over to the archive.
class XmlWriter
{
public:
    /// The document at the top of what is written, or null: it knows the indent and the encoding.
    XmlWriter(CArchive & archive, CXmlDocument const * document, bool bUtf8);
    XmlWriter(CArchive & archive, CXmlDocument const * document)
        : XmlWriter(archive, document, document && document->m_bUtf8)
    {
    }

    void WriteDocument();
    /// An element with all that is below it.
    void Write(CXmlElement const & element);

private:
    CArchive & m_archive;
    CXmlDocument const * m_pDocument;
    bool m_bUtf8;
    bool m_bStandard; // what is written comes back through ProcessStandardTags
    std::unique_ptr<char[]> m_pBuffer;
    std::size_t m_nUsed = 0;

    bool IsEscaped(unsigned c) const;
    void Flush();
    char * Reserve(std::size_t count);
    void Put(std::string_view bytes);
    template <bool ESCAPE>
    void PutText(CString const & text);
    void PutEscaped(std::string_view bytes);
    void PutData(CString const & text);
    void PutSpecial(CString text, LPCTSTR end);
    bool PutIndent(int depth);
    void PutLineEnd(int depth);
    bool WriteOpening(CXmlElement const & element, int depth);
    void WriteElement(CXmlElement const & element);
    void WriteClosing(CXmlElement const & element, int depth, bool bIndent);
};
} // namespace kvx
