#include "kvx/xml/XmlWriter.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/platform/mfc/Archive.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace kvx
{
namespace
{
constexpr std::size_t BUFFER = 65536;
constexpr int WIDEST_INDENT = 1024;

bool IsControl(unsigned c)
{
    return c < 0x20 || c == 0x7F;
}
} // namespace

XmlWriter::XmlWriter(CArchive & archive, CXmlDocument const * document, bool bUtf8)
    : m_archive(archive), m_pDocument(document), m_bUtf8(bUtf8),
      m_bStandard(document && document->ProcessStandardTags()), m_pBuffer(new char[BUFFER])
{
}

/// Whether it is written as an entity or reference. A reader that isn't told what controls are drops them.
bool XmlWriter::IsEscaped(unsigned c) const
{
    return c == '&' || c == '<' || c == '>' || c == '"' || (m_bStandard && IsControl(c));
}

void XmlWriter::Flush()
{
    m_archive.Write(m_pBuffer.get(), static_cast<UINT>(std::exchange(m_nUsed, 0)));
}

/// Room for so many bytes, at most BUFFER.
char * XmlWriter::Reserve(std::size_t count)
{
    if (BUFFER - m_nUsed < count)
    {
        Flush();
    }
    return m_pBuffer.get() + m_nUsed;
}

void XmlWriter::Put(std::string_view bytes)
{
    while (!bytes.empty())
    {
        std::size_t const count = std::min(bytes.size(), BUFFER);
        std::memcpy(Reserve(count), bytes.data(), count);
        m_nUsed += count;
        bytes.remove_prefix(count);
    }
}

void XmlWriter::PutEscaped(std::string_view bytes)
{
    for (std::size_t start = 0; start < bytes.size();)
    {
        std::size_t end = start;
        while (end < bytes.size() && !IsEscaped(static_cast<unsigned char>(bytes[end])))
        {
            ++end;
        }
        Put(bytes.substr(start, end - start));
        if (end < bytes.size())
        {
            char const c = bytes[end];
            if (IsControl(static_cast<unsigned char>(c)))
            {
                Put("&#" + std::to_string(static_cast<int>(c)) + ";");
            }
            else
            {
                Put(c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : "&quot;");
            }
        }
        start = end + 1;
    }
}

template <bool ESCAPE>
void XmlWriter::PutText(CString const & text)
{
    auto const units = text.AsView();
    if (units.size() <= BUFFER)
    {
        // Nearly every text is plain, and then is copied in this one pass.
        char * const out = Reserve(units.size());
        unsigned wide = 0;
        bool bMark = false;
        for (std::size_t i = 0; i < units.size(); ++i)
        {
            auto const c = static_cast<unsigned>(units[i]);
            wide |= c;
            bMark |= ESCAPE && IsEscaped(c);
            out[i] = static_cast<char>(c);
        }
        if (wide < 0x80 && !bMark)
        {
            m_nUsed += units.size();
            return;
        }
    }
    CStringA const bytes = m_bUtf8 ? CUtilities::W2MB(text, CP_UTF8) : CUtilities::StringToAnsi(text);
    if constexpr (ESCAPE)
    {
        PutEscaped(bytes.AsView());
    }
    else
    {
        Put(bytes.AsView());
    }
}

/// A text, whose blanks at the ends readers drop.
void XmlWriter::PutData(CString const & text)
{
    int const last = text.GetLength() - 1;
    int const first = m_bStandard && text[0] == ' ' ? 1 : 0;
    int const behind = m_bStandard && last > 0 && text[last] == ' ' ? 1 : 0;
    Put(first > 0 ? "&#32;" : "");
    PutText<true>(first + behind > 0 ? text.Mid(first, last + 1 - first - behind) : text);
    Put(behind > 0 ? "&#32;" : "");
}

/// A comment or an instruction, which this would end.
void XmlWriter::PutSpecial(CString text, LPCTSTR end)
{
    CString parted = end;
    parted.Insert(1, ' ');
    while (m_bStandard && text.Replace(end, parted) > 0)
    {
    }
    PutText<false>(text);
}

/// Whether there are lines.
bool XmlWriter::PutIndent(int depth)
{
    char character = '\0';
    int const indent = m_pDocument ? m_pDocument->CalcOutputIndent(character, depth) : 0;
    if (indent > 0 && character)
    {
        auto const count = static_cast<std::size_t>(std::min(indent, WIDEST_INDENT));
        std::memset(Reserve(count), character, count);
        m_nUsed += count;
    }
    return indent > 0 || character;
}

void XmlWriter::PutLineEnd(int depth)
{
    char character = '\0';
    if (m_pDocument && (m_pDocument->CalcOutputIndent(character, depth) > 0 || character))
    {
        Put("\r\n");
    }
}

/// Writes all of an element but its children and what follows them: then it is true.
bool XmlWriter::WriteOpening(CXmlElement const & element, int depth)
{
    PutIndent(depth);
    Put("<");
    PutText<false>(element.m_strTag);
    CString name;
    CString value;
    for (POSITION pos = element.GetStartAttributePosition(); pos;)
    {
        element.m_attributes.GetNextValue(pos, name, value);
        Put(" ");
        PutText<false>(name);
        Put("=\"");
        PutText<true>(value);
        Put("\"");
    }
    if (element.IsSpecialElement())
    {
        bool const bInstruction = element.m_strTag[0] == '?';
        Put(bInstruction ? "" : "--");
        PutSpecial(element.m_strData, bInstruction ? _T("?>") : _T("--"));
        Put(bInstruction ? "?>" : "-->");
        PutLineEnd(depth);
        return false;
    }
    if (element.m_pFirstChild)
    {
        Put(">");
        PutLineEnd(depth);
        return true;
    }
    if (element.m_strData.IsEmpty())
    {
        Put("/>");
        PutLineEnd(depth);
        return false;
    }
    Put(element.m_bCData ? "><![CDATA[" : ">");
    if (element.m_bCData)
    {
        PutText<false>(element.m_strData);
        Put("]]>");
    }
    else
    {
        PutData(element.m_strData);
    }
    WriteClosing(element, depth, false);
    return false;
}

void XmlWriter::WriteClosing(CXmlElement const & element, int depth, bool bIndent)
{
    if (bIndent)
    {
        PutIndent(depth);
    }
    Put("</");
    PutText<false>(element.m_strTag);
    Put(">");
    PutLineEnd(depth);
}

void XmlWriter::WriteElement(CXmlElement const & top)
{
    int depth = 0;
    for (CXmlElement const * above = top.m_pParent; above; above = above->m_pParent)
    {
        ++depth;
    }
    CXmlElement const * element = &top;
    while (element)
    {
        if (WriteOpening(*element, depth))
        {
            element = element->m_pFirstChild;
            ++depth;
            continue;
        }
        while (element != &top && !element->m_pNext)
        {
            element = element->m_pParent;
            WriteClosing(*element, --depth, true);
        }
        element = element == &top ? nullptr : element->m_pNext;
    }
}

void XmlWriter::Write(CXmlElement const & element)
{
    WriteElement(element);
    Flush();
}

void XmlWriter::WriteDocument()
{
    for (CXmlElement const * meta = m_pDocument->m_pMeta; meta; meta = meta->m_pNext)
    {
        if (!meta->m_strTag.IsEmpty())
        {
            WriteElement(*meta);
        }
    }
    if (m_pDocument->m_pRoot)
    {
        WriteElement(*m_pDocument->m_pRoot);
    }
    Flush();
}
} // namespace kvx
