#include "kvx/foundation/Dictionary.h"
#include "kvx/platform/mfc/File.h"
#include "kvx/xml/XMLDocumentKVX.h"

#include "tests/support/KeptLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace
{
using testing::ElementsAre;
using namespace tinyxml2;

std::string Text(XMLNode const * node)
{
    return ToStringA(node).GetString();
}

std::string Merged(char const * into, char const * what)
{
    tinyxml2::XMLDocument target;
    tinyxml2::XMLDocument source;
    EXPECT_EQ(target.Parse(into), XML_SUCCESS);
    EXPECT_EQ(source.Parse(what), XML_SUCCESS);
    EXPECT_TRUE(ElementProxy(target.RootElement()).Merge(source.RootElement()));
    return Text(&target);
}
} // namespace

TEST(XmlDocumentKvx, FilesComeBackAndFailuresAreLogged)
{
    KeptLog log;
    auto const folder = std::filesystem::temp_directory_path() / ("kvx-xml-" + std::to_string(GetCurrentProcessId()));
    std::filesystem::create_directories(folder);
    std::string const name = (folder / "a.xml").string();
    CString const path = kvx::FromUtf8(name);

    XMLDocumentKVX written(_T("rööt"));
    written.CreateElement(_T("RÖÖT/a/b"), _T("/"))->SetText("x < \"y\"\r");
    written.CreateElement(_T("other/c"), _T("/"));
    ASSERT_TRUE(written.ToFile(path));
    XMLDocumentKVX read;
    ASSERT_TRUE(read.FromFile(path));
    EXPECT_EQ(Text(&read), "<rööt><a><b>x &lt; \"y\"&#13;</b></a><other><c/></other></rööt>");
    EXPECT_EQ(read.FindElement(_T("RÖÖT/a/b"), _T("/"))->GetText(), std::string("x < \"y\"\r"));
    EXPECT_EQ(read.FindElement(_T("rööt/A"), _T("/")), nullptr); // only the root's case doesn't matter
    EXPECT_EQ(read.CreateElement(_T(""), _T("/")), nullptr);

    CMemFile memory;
    EXPECT_FALSE(read.FromFile(memory)); // an empty one says nothing
    ASSERT_TRUE(read.ToFile(memory));
    memory.Seek(3, CFile::begin);
    ASSERT_TRUE(written.FromFile(memory));
    EXPECT_EQ(memory.GetPosition(), 3u);
    EXPECT_EQ(Text(&written), Text(&read));
    ASSERT_TRUE(read.ToFile(memory)); // a second document behind the first: not one that can be read
    EXPECT_EQ(memory.GetLength(), 2 * Text(&read).size());
    BYTE full[4];
    CMemFile fixed(full, sizeof(full));
    EXPECT_FALSE(read.ToFile(fixed));

    EXPECT_TRUE(log.Take().size() == 1);
    EXPECT_FALSE(written.FromFile(kvx::FromUtf8(name + ".none")));
    EXPECT_FALSE(written.ToFile(kvx::FromUtf8(name + "/none")));
    std::ofstream(name) << "<a><b></a>";
    EXPECT_FALSE(written.FromFile(path));
    EXPECT_EQ(ErrorName(written.ErrorID()), _T("XML_ERROR_MISMATCHED_ELEMENT"));
    EXPECT_FALSE(written.FromResource(_T("none"), nullptr));
    EXPECT_THAT(log.Take(),
                ElementsAre("E XMLDocumentKVX::FromFile(" + name + ".none) file error 2",
                            "E XMLDocumentKVX::ToFile(" + name + "/none) file error 3",
                            "E XMLDocumentKVX::FromFile(" + name + ") parsing error XML_ERROR_PARSING_UNKNOWN",
                            testing::HasSubstr("Error loading resource of type XML: none"),
                            testing::HasSubstr("XMLDocumentKVX::FromResource(none) resource error ")));
    EXPECT_EQ(ErrorText(static_cast<XMLError>(20)), _T("<<unknown:20>>"));
    std::filesystem::remove_all(folder);
}

TEST(XmlNodePrinter, ControlCharactersComeBack)
{
    std::string const controls = "\r\n&\t\r<\x01\x1F\r";
    XMLDocumentKVX document("r");
    document.RootElement()->SetAttribute("a", controls.c_str());
    document.RootElement()->InsertNewText(controls.c_str());
    document.RootElement()->InsertNewText("\r]")->SetCData(true); // references aren't read in there
    std::string const printed = "\n&amp;\t&#13;&lt;&#1;&#31;&#13;";
    EXPECT_EQ(Text(&document), "<r a=\"&#13;" + printed + "\">\r" + printed + "<![CDATA[\r]]]></r>");
    tinyxml2::XMLDocument read;
    ASSERT_EQ(read.Parse(Text(&document).c_str()), XML_SUCCESS);
    EXPECT_EQ(read.RootElement()->Attribute("a"), controls);
    EXPECT_EQ(read.RootElement()->GetText(), controls.substr(1)); // a line end became one

    XMLDocumentKVX bare("r", false); // where nothing would turn a reference back
    bare.RootElement()->SetText("\r");
    bare.RootElement()->InsertNewText("\r")->SetCData(true);
    EXPECT_EQ(Text(&bare), "<r>\r<![CDATA[\r]]></r>");
}

TEST(XmlElementProxy, SpeaksTextsAndValueSets)
{
    XMLDocumentKVX document("r");
    ElementProxy root(document.RootElement());
    root.AddChild("n", CStringValue(_T("ü")));
    root.AddChild("N");
    root->InsertFirstChild(document.NewComment("c"));
    EXPECT_EQ(root.FindChildElement(_T("N")), root->FirstChildElement()); // the first in any case
    EXPECT_EQ(root.GetChildElementCount("n"), 2);
    EXPECT_EQ(root.GetChildCount(), 3);
    EXPECT_FALSE(root.HasChildElements(_T("m")));
    root.SetText(root.FindChildElement("n")->GetText());
    root.SetText(_T("again"));
    EXPECT_EQ(Text(root), "<r>again<!--c--><n>ü</n><N/></r>");

    CDictionary values;
    values[_T("ä")] = _T("1");
    values[_T("b")] = _T("");
    root->SetAttribute("z", 9);
    root.SetAttributes(values);
    root.MergeAttributes(values);
    CDictionary back;
    back[_T("kept")] = 1;
    root.GetAttributes(back);
    EXPECT_EQ(root.GetAttributeCount(), 2);
    EXPECT_TRUE(back.HasValue(_T("b")) && back.HasValue(_T("kept")) && back[_T("ä")] == _T("1"));

    ElementProxy none(nullptr);
    EXPECT_TRUE(none.IsNULL());
    EXPECT_FALSE(none == *root || none.HasChildren() || none.HasAttribute("a") || none.Merge(root) || root.Merge(none));
    EXPECT_EQ(none.GetChildCount() + none.GetChildElementCount() + none.GetAttributeCount(), 0);
    EXPECT_EQ(none.AddChild("a"), nullptr);
    none.SetText("a");
    none.SetAttributes(values);
    KeptLog log;
    EXPECT_EQ(none.operator->(), nullptr);
    EXPECT_THAT(log.Take(), ElementsAre("E ElementProxy::operator -> () null pointer exception"));
}

TEST(XmlElementProxy, MergingMatchesEachElementOnce)
{
    EXPECT_EQ(
        Merged("<r><a x='1' y='2'><p/></a><a x='1' y='2'/></r>",
               "<R><A y='2' x='1'><p/><q>t</q></A><a x='1' y='2'><s/></a><a x='1' y='2'>u</a><a x='1'>v<w/></a></R>"),
        "<r><a x=\"1\" y=\"2\"><p/><q>t</q></a><a x=\"1\" y=\"2\"><s/></a><a x=\"1\" y=\"2\">u</a>"
        "<a x=\"1\"><w/></a></r>");
    tinyxml2::XMLDocument document;
    document.Parse("<r><a><a/></a></r>");
    XMLElement * const root = document.RootElement();
    EXPECT_TRUE(ElementProxy(root->FirstChildElement()).Merge(root)); // becomes a sibling, once
    EXPECT_EQ(Text(&document), "<r><a><a/></a><r><a><a/></a></r></r>");
    EXPECT_TRUE(ElementProxy(root->FirstChildElement()).MergeChildren(root)); // below what it comes from
    EXPECT_EQ(Text(&document), "<r><a><a><a/></a><r><a><a/></a></r></a><r><a><a/></a></r></r>");
    EXPECT_TRUE(ElementProxy(root).Merge(root));

    XMLDocumentKVX copy;
    EXPECT_FALSE(copy.Merge(nullptr));
    EXPECT_TRUE(copy.Merge(document));
    EXPECT_EQ(Text(&copy), Text(&document));
    EXPECT_FALSE(copy.Merge(XMLDocumentKVX("other"))); // a root has no siblings
    XMLDocumentKVX unnamed("");
    document.Parse("<r b='c'>t<!--d--><e><f/></e></r>");
    EXPECT_TRUE(unnamed.Merge(document));
    EXPECT_EQ(Text(&unnamed), Text(&document));
}

TEST(XmlElementProxy, ManyAndDeepElementsAreMerged)
{
    XMLDocumentKVX wide("r");
    for (int i = 0; i < 100000; ++i)
    {
        wide.RootElement()->InsertNewChildElement("a")->SetAttribute("n", i);
    }
    XMLDocumentKVX other("r");
    EXPECT_TRUE(other.Merge(wide));
    EXPECT_TRUE(other.Merge(wide)); // all are there
    EXPECT_EQ(ElementProxy(other.RootElement()).GetChildElementCount(), 100000);

    XMLDocumentKVX deep("r");
    XMLElement * at = deep.RootElement();
    for (int i = 0; i < 300000; ++i)
    {
        at = at->InsertNewChildElement("a");
    }
    EXPECT_TRUE(other.Merge(deep));
    EXPECT_TRUE(ElementProxy(other.RootElement()->LastChildElement()).Merge(deep.RootElement()));
    EXPECT_EQ(ToStringA(&deep).GetLength(), 300000 * 7 - 3 + 7);
    KeptLog log;
    XMLDocumentKVX kept;
    kept.Parse("<?xml version='1.0'?><!-- keep -->");
    std::string const before = Text(&kept);
    XMLElement * const unlinked = kept.NewElement("later");
    EXPECT_FALSE(kept.Merge(deep)); // its text is too deep to be read
    EXPECT_THAT(log.Take(), ElementsAre(testing::StartsWith("E XMLDocumentKVX::Merge parsing error ")));
    kept.InsertEndChild(unlinked);
    EXPECT_EQ(Text(&kept), before + "<later/>");

    // What was made apart goes with the document once it hangs in there, behind others too.
    XMLElement * const top = kept.NewElement("top");
    at = top;
    for (int i = 0; i < 300000; ++i)
    {
        at = ElementProxy(at).AddChild("a");
    }
    kept.InsertEndChild(top);
}

TEST(XmlElementVisitor, CallsForTheNameAndStopsWhereItIsTold)
{
    tinyxml2::XMLDocument document;
    document.Parse("<r><a i='1'><b/><a i='2'/></a><A/><a i='3'/></r>");
    std::string seen;
    auto const callback = [](XMLElement const & element, void * context)
    {
        static_cast<std::string *>(context)->append(element.Attribute("i"));
        return !element.Attribute("i", "1");
    };
    ElementVisitor visitor(callback, &seen, "a");
    document.Accept(&visitor);
    EXPECT_EQ(std::exchange(seen, {}), "13");
    Walk(document, visitor);
    EXPECT_EQ(seen, "13");
}
