#include "tests/support/Raised.h"

#include "kvx/text/StringFile.h"
#include "kvx/xml/XmlDocument.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace
{
/// What is written of what was read; "!" and the place of a failure.
std::string Through(char const * text, bool bSpecial = true, bool bStandard = false, bool bUtf8 = false)
{
    CXmlDocument document;
    document.ProcessSpecialTags(bSpecial);
    document.ProcessStandardTags(bStandard);
    document.ProcessUtf8(bUtf8);
    try
    {
        document.FromString(text);
    }
    catch (CArchiveException * failure)
    {
        EXPECT_EQ(failure->m_cause, 5);
        failure->Delete();
        EXPECT_EQ(document.GetRoot(), nullptr);
        EXPECT_EQ(document.IsEmpty(), 1);
        CXmlParseError const & error = document.GetParseError();
        EXPECT_FALSE(error.strText.IsEmpty());
        return "!" + std::to_string(error.nLine) + ":" + std::to_string(error.nColumn);
    }
    EXPECT_EQ(document.GetParseError().nLine, 0);
    return std::string(document.ToString().AsView());
}

struct Case
{
    char const * text;
    char const * written;
};
} // namespace

TEST(XmlDocument, ReadsItsOwnGrammar)
{
    for (auto const & [text, written] : {
             // texts
             Case{"<r> a  b </r>", "<r>a  b</r>"},
             Case{"<r>a\n\t\r\nb \n</r>", "<r>a b</r>"},
             Case{"<r>a&foo;b&amp;&lt;&gt;&quot;&apos;</r>", "<r>afoo;b&amp;&lt;&gt;&quot;'</r>"},
             Case{"<r>a&#xZZ;b</r>", "<r>a</r>"},
             Case{"<r>a&#65;&#x42;&#x43</r>", "<r>aAB</r>"},
             Case{"<r>&#xE9;</r>", "<r>\xC3\xA9</r>"}, // bytes of UTF-8 taken for 1252
             Case{"<r v='\xC3&amp;'/>", "<r v=\"\xC3&amp;amp;\"/>"},
             Case{"<r v='&#x20AC;'/>", "<r v=\"\xE2\x82\xAC\"/>"},
             Case{"<r>\xE9t\xE9</r>", "<r>t</r>"},
             // attributes
             Case{"<r a=1 b='2' c = \"3\" d=/>", "<r a=\"1\" b=\"2\" c=\"3\" d=\"\"/>"},
             Case{"<r a=\"x\\\"y\" b='\\\"' a=2></r>", "<r a=\"2\" b=\"\\&quot;\"/>"},
             Case{"<r a='never ends b=2></r>", "<r a=\"never ends b=2\"/>"},
             Case{"<r a b=1 =2 c= d=4/>", "<r a b=\"1\" =\"2\" c=\"\" d=\"4\"/>"},
             Case{"<r a='1>2'/>", "!1:13"},
             Case{"<r\nx='1'></r\nx='1'>", "!3:7"},
             // children, and the bytes read ahead
             Case{"<r><ab x='1'/></r>", "<r><abx='1'/></r>"},
             Case{"<r><abc x='1'/><ab x='1'/></r>", "<r><abc x=\"1\"/><ab x=\"1\"/></r>"},
             Case{"<r><a>1</a></r>", "!1:16"},
             Case{"<r><a/>text<b/></r>", "<r><a/><ext<b/></r>"},
             Case{"<r><one>1</one>\n <two>2</two>\n</r >", "!3:6"},
             Case{"<r></r >", "<r/>"},
             Case{"<r>text<abc/></r>", "!1:9"},
             Case{"< r ></r>", "<r/>"},
             Case{"<r></R>", "!1:8"},
             Case{"<r>", "!1:4"},
             Case{"\n<>", "!2:1"},
             // sections
             Case{"<r><![cdata[x]]></r>", "<r><![CDATA[x]]></r>"},
             Case{"<r><![CDATA[<a>&amp;\n]]]]></r>", "<r><![CDATA[<a>&amp;\n]]]]></r>"},
             Case{"<r><![CDATA[]]></r>", "!1:4"},
             Case{"<r><![CDATA[]]>x]]></r>", "<r><![CDATA[x]]></r>"},
             Case{"<r><![DATA[x]]></r>", "!1:4"},
             // meta tags
             Case{"<?xml version=\"1.0\"?><!-- c --><r/>", "<?xml version=\"1.0\"?><!-- c --><r/>"},
             Case{"\xEF\xBB\xBF<r><!-- c --><abc/></r>", "<r><!-- c --><abc/></r>"},
             Case{"<!-- x > y --><r/>", "!1:1"},
             Case{"<!DOCTYPE r><r/>", "!1:1"},
             Case{"<?x><r/>", "!1:1"},
             Case{"<!--><r/>", "<!----><r/>"},
             Case{"<?x?>", "!1:6"},
             Case{"<r/><behind", "<r/>"},
         })
    {
        EXPECT_EQ(Through(text), written) << text;
    }
    EXPECT_EQ(Through("<?xml version=\"1.0\"?><r/>", false), "<?xml version=\"1.0\"?><r/>");
    EXPECT_EQ(Through("<!DOCTYPE r><r/>", false), "<!DOCTYPE----><r/>");
}

TEST(XmlDocument, ReadsStandardTagsAndUtf8)
{
    for (auto const & [text, written] : {
             Case{"<r><a>1</a><ab\n x='>'\t/></r\n>", "<r><a>1</a><ab x=\"&gt;\"/></r>"},
             Case{"<!-- a > b --><?p a > b?><!DOCTYPE r [<!-- it's > --><!ENTITY e '>]'>]><r><![CDATA[]]></r>",
                  "<!-- a > b --><?p a > b?><r/>"},
             Case{"\xEF\xBB\xBF<n\xC3\xA9 a='\xE2\x82\xAC'>\xF0\x9F\x98\x80&#x20AC;</n\xC3\xA9>",
                  "<n\xC3\xA9 a=\"\xE2\x82\xAC\">\xF0\x9F\x98\x80\xE2\x82\xAC</n\xC3\xA9>"},
             Case{"<r>\n <a/>\n text <b/></r>", "!3:2"},
             Case{"<r a='>", "!1:1"},
             Case{"<r><a></b></r>", "!1:7"},
         })
    {
        EXPECT_EQ(Through(text, true, true, true), written) << text;
    }
    CXmlDocument document;
    CString const text = _T("<\u4E2De a=\"\u20AC\">\U0001F600</\u4E2De>");
    document.ProcessUtf8(1);
    document.FromString(text);
    EXPECT_EQ(document.ToWideString(), text);
    document.ProcessUtf8(0);
    EXPECT_EQ(document.ToString(), "<?e a=\"\x80\">?\?</?e>");
    CString untouched = _T("kept");
    document.ToString(untouched);
    EXPECT_EQ(untouched, _T("kept"));
}

TEST(XmlDocument, WritesIndentsAndMetaTags)
{
    CXmlDocument document(_T("root"));
    document.AddMetaTag(_T("?xml version=\"1.0\"?"));
    document.AddMetaTag(_T("! note "));
    document.AddMetaTag(_T("neither"));
    CXmlElement * const element = document.CreateElement(_T("root.one.two"));
    element->SetData(_T("x"));
    element->SetAttribute(_T("a"), 1);
    element->GetParent()->CreateChild(_T("three"))->SetCData(_T("<y>"));
    EXPECT_EQ(document.ToString(), "<?xml version=\"1.0\"?><!-- note --><root><one><two a=\"1\">x</two>"
                                   "<three><![CDATA[<y>]]></three></one></root>");
    document.SetOutputIndent(2, ' ');
    EXPECT_EQ(document.ToString(), "<?xml version=\"1.0\"?>\r\n<!-- note -->\r\n<root>\r\n  <one>\r\n"
                                   "    <two a=\"1\">x</two>\r\n    <three><![CDATA[<y>]]></three>\r\n  </one>\r\n"
                                   "</root>\r\n");
    CString text;
    element->ToString(text);
    EXPECT_EQ(text, _T("    <two a=\"1\">x</two>\r\n"));
    CXmlDocument other;
    other = document;
    EXPECT_EQ(other.ToString(), "<root><one><two a=\"1\">x</two><three><![CDATA[<y>]]></three></one></root>");
    EXPECT_EQ(other.GetRoot()->GetChild()->GetDocument(), &other);
    CXmlElement * const old = other.DetachRoot();
    EXPECT_EQ(old->GetDocument(), nullptr);
    delete old;
    EXPECT_EQ(other.ToString(), "</>");
}

TEST(XmlDocument, LeavesTheArchiveBehindTheRoot)
{
    // Whatever the buffer, so that every token is cut somewhere.
    CStringA text("<?p?><root a='1' bcd='&amp;'><abc>  t\n\nx </abc><d><![CDATA[]>]]></d><ef/></root>tail");
    for (int const size : {128, 4096})
    {
        for (int pad = 0; pad < 128; ++pad)
        {
            CStringA padded = CStringA(' ', pad) + text;
            CStringFileA file(padded);
            CArchive archive(&file, CArchive::load, size);
            CXmlDocument document(_T("gone"));
            document.Serialize(archive);
            EXPECT_EQ(document.ToString(),
                      "<?p?><root a=\"1\" bcd=\"&amp;\"><abc>t x</abc><d><![CDATA[]>]]></d><ef/></root>");
            char tail[4];
            archive.EnsureRead(tail, 4);
            EXPECT_EQ(std::string(tail, 4), "tail");
        }
    }
    CStringA empty;
    CStringFileA file(empty);
    CXmlDocument document(_T("kept"));
    document.FromFile(file);
    EXPECT_EQ(document.ToString(), "<kept/>");
    EXPECT_EQ(CauseOf([&] { document.FromFile(CString(_T("/no/such/file"))); }), CFileException::badPath);
}

TEST(XmlDocument, FindsMakesAndWalksPaths)
{
    CXmlDocument document;
    document.CreateElement(_T("config.server"))->SetAttribute(_T("port"), 80);
    EXPECT_EQ(document.CreateElement(_T("CONFIG/Server/log"), 0, _T("/"))->GetParent()->GetAttribute(_T("port")),
              _T("80"));
    document.CreateElement(_T("other.first"), 1);
    EXPECT_EQ(document.ToString(), "<config><other><first/></other><server port=\"80\"><log/></server></config>");
    EXPECT_EQ(document.FindElement(_T("Config.Server.Log"))->GetTag(), _T("log"));
    EXPECT_EQ(document.FindElement(_T("server.log")), nullptr);
    EXPECT_EQ(document.FindElement(_T("config.server.no.log")), nullptr);

    // The rest of a path is split at points, whatever the delimiter, and the first child goes behind the new one.
    document.InsertElement(new CXmlElement(_T("x")), _T("config.other/new"), _T("/"));
    EXPECT_EQ(document.FindElement(_T("config.other"))->GetChild()->GetTag(), _T("new"));
    EXPECT_EQ(document.RemoveElement(_T("config.other.new")), 1);
    EXPECT_EQ(document.RemoveElement(_T("config.other.new")), 0);
    EXPECT_EQ(document.RemoveElement(_T("config.none.new")), 0);

    CString seen;
    auto const add = [](CXmlElement * element, void * context) -> int
    {
        *static_cast<CString *>(context) += element->GetTag() + _T(" ");
        return element->GetTag() != _T("server");
    };
    document.FindElement(_T("config.other"))->CreateChild(_T("!"));
    EXPECT_EQ(document.ForEachElement(add, &seen), 0);
    EXPECT_EQ(seen, _T("config other first ! server "));
    seen.Empty();
    EXPECT_EQ(document.ForEachElement(add, &seen, document.FindElement(_T("config.other"))->GetChild()), 1);
    EXPECT_EQ(document.ForEachElement(CString(_T("log")), add, &seen), 1);
    EXPECT_EQ(seen, _T("first ! log "));

    CXmlIterator children(document);
    EXPECT_EQ((++children)->GetTag(), _T("other"));
    CXmlIterator siblings(children.Current()->GetNext());
    EXPECT_EQ(siblings->GetTag(), _T("config"));
    EXPECT_EQ(siblings.GetNext(), children++);
    EXPECT_EQ(children->GetTag(), _T("server"));
    EXPECT_EQ(children.GetNext(), nullptr);
}

TEST(XmlDocument, EncodesAndDecodesTexts)
{
    CString const text = _T("a&b<c>\"d'\t&#x41;&#");
    CString const encoded = CXmlDocument::Encode(text);
    EXPECT_EQ(encoded, _T("a&amp;b&lt;c&gt;&quot;d&apos;&#x09;&#x41;&amp;#"));
    EXPECT_EQ(CXmlDocument::DecodeEntities(encoded), _T("a&b<c>\"d'\tA&#"));
    EXPECT_EQ(CXmlDocument::DecodeEntities(_T("&#x1F600;&#65;&#x110000;&none;&#")),
              _T("\U0001F600A&#x110000;&none;&#"));
    EXPECT_EQ(CXmlDocument::Decode(_T("%41 b%")), CString(_T("D b%")));
}

TEST(XmlDocument, ReadsWhatThisMachineHas)
{
    std::filesystem::path const folder("/usr/share/mime/packages");
    if (!std::filesystem::exists(folder / "freedesktop.org.xml"))
    {
        GTEST_SKIP() << "no shared-mime-info here";
    }
    std::string const path = (folder / "freedesktop.org.xml").string();
    CXmlDocument document;
    document.ProcessUtf8(1);
    document.ProcessStandardTags(1);
    document.FromFile(kvx::FromUtf8(path));
    CStringA const written = document.ToString();
    CXmlDocument again;
    again.ProcessUtf8(1);
    again.ProcessStandardTags(1);
    again.FromString(written);
    EXPECT_GT(again.GetRoot()->GetChildCount(1), 500);
    EXPECT_EQ(again.ToString(), written);
}
