#include "kvx/text/StringFile.h"
#include "kvx/xml/XmlDocument.h"
#include "tests/support/Raised.h"

#include <gtest/gtest.h>

namespace
{
CString Tags(CXmlElement const & parent)
{
    CString tags;
    for (CXmlElement const * child = parent.GetChild(1); child; child = child->GetNext(1))
    {
        EXPECT_EQ(child->GetParent(), &parent);
        tags += child->GetTag();
    }
    return tags;
}

CString Text(CXmlElement const & element)
{
    CString text;
    element.ToString(text);
    return text;
}

CXmlElement * Read(CXmlElement & element, LPCTSTR text)
{
    element.FromString(text);
    return &element;
}
TEST(XmlElement, HasOnePlaceAtMost)
{
    CXmlDocument document(_T("r"));
    CXmlElement * const root = document.GetRoot();
    CXmlElement * const a = root->CreateChild(_T("a"));
    CXmlElement * const b = root->CreateChild(_T("b"));
    CXmlElement * const c = b->CreateChild(_T("c"));
    root->AddChild(a); // moves it to the end
    EXPECT_STREQ(document.ToString(), "<r><b><c/></b><a/></r>");
    EXPECT_EQ(root->InsertChildBefore(a, b), 1);
    EXPECT_EQ(root->InsertChildBefore(c, nullptr), 1);
    EXPECT_STREQ(document.ToString(), "<r><a/><b/><c/></r>");
    root->InsertChild(b, a);
    EXPECT_STREQ(document.ToString(), "<r><c/><b/><a/></r>");
    EXPECT_EQ(root->GetChildCount(), 3);
    c->AddChild(b);
    CXmlDocument other(_T("o"));
    other.GetRoot()->AddChild(a, 1);
    EXPECT_STREQ(document.ToString(), "<r><c><b/></c></r>");
    EXPECT_STREQ(other.ToString(), "<o><a/></o>");

    EXPECT_TRUE(Raises<CInvalidArgException>([&] { b->AddChild(c); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { b->AddChild(b); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { b->InsertChild(root, nullptr); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { b->AcquireChildren(c); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { root->AddChild(other.GetRoot()); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { document.SetRoot(other.GetRoot()); }));
    EXPECT_STREQ(document.ToString(), "<r><c><b/></c></r>");
    document.SetRoot(c); // a part of the tree that goes
    EXPECT_STREQ(document.ToString(), "<c><b/></c>");
}
} // namespace

TEST(XmlElement, KeepsItsChildrenAndTheirCounts)
{
    CXmlElement parent(_T("p"));
    parent.SetData(_T("text"));
    for (LPCTSTR const tag : {_T("A"), _T("B"), _T("C")})
    {
        parent.CreateChild(tag);
    }
    EXPECT_TRUE(parent.GetData().IsEmpty());
    parent.InsertChild(new CXmlElement(_T("X")), parent.FindChild(_T("b")));
    EXPECT_EQ(Tags(parent), _T("ACXB"));
    EXPECT_EQ(parent.InsertChildBefore(new CXmlElement(_T("Y")), parent.FindChild(_T("C"))), 1);
    parent.InsertChildBefore(new CXmlElement(_T("Z")), nullptr);
    EXPECT_EQ(Tags(parent), _T("AYCXBZ"));
    CXmlElement stranger(_T("s"));
    EXPECT_EQ(parent.DetachChild(&stranger), nullptr);
    EXPECT_EQ(parent.RemoveChild(&stranger), 0);
    EXPECT_EQ(parent.RemoveChild(_T("z")), 1);
    EXPECT_EQ(parent.GetLastChild()->GetTag(), _T("B"));

    parent.CreateChild(_T("!"));
    EXPECT_EQ(parent.GetChildCount(0), 5);
    EXPECT_EQ(parent.GetChildCount(1), 6);
    EXPECT_EQ(parent.GetLastChild(0), nullptr);
    parent.FindChild(_T("!"))->SetTag(_T("Q"));
    EXPECT_EQ(parent.GetChildCount(0), 6);

    CXmlElement heir(_T("h"));
    heir.CreateChild(_T("0"), 0, &parent, 1);
    EXPECT_EQ(Tags(*heir.GetChild()), _T("AYCXBQ"));
    EXPECT_EQ(parent.HasChildren(1), 0);
    delete heir.GetChild()->DetachChild(LPCTSTR(_T("a")));
    EXPECT_EQ(heir.FindElement(_T("0.c"))->FindNext(_T("q"))->GetTag(), _T("Q"));
    heir.RemoveAllChildren();
    EXPECT_EQ(heir.IsEmpty(), 1);

    CXmlElement alone(_T("a"));
    EXPECT_EQ(alone.GetAttribute(_T("made")), _T(""));
    EXPECT_EQ(alone.HasAttribute(_T("made")), 1);
    alone.FromString(_T("<r v='&amp;'>&lt;</r>")); // there is no document that knows entities
    EXPECT_EQ(Text(alone), _T("<r v=\"&amp;amp;\">&amp;lt;</r>"));
}

TEST(XmlElement, CopiesBringTheSiblingsAlong)
{
    CXmlElement parent(_T("p"));
    Read(parent, _T("<p><one a='1'><in>t</in></one><two/><three/></p>"));
    auto * const copy = new CXmlElement(*parent.FindChild(_T("two")));
    EXPECT_EQ(copy->GetParent(), &parent);
    EXPECT_EQ(parent.RemoveChild(copy), 0);
    CXmlElement target(_T("t"));
    target.AddChild(copy);
    EXPECT_EQ(Tags(target), _T("twothree"));
    CXmlElement * const clone = parent.FindChild(_T("one"))->Clone();
    EXPECT_EQ(Text(*clone), _T("<one a=\"1\"><in>t</in></one>"));
    target.AddChild(clone, 1);
    EXPECT_EQ(Tags(target), _T("onetwothree"));
    CXmlElement::DeleteChain(new CXmlElement(*parent.GetChild()));
}

TEST(XmlElement, Merges)
{
    CXmlElement mine(_T("m"));
    CXmlElement theirs(_T("t"));
    Read(mine, _T("<root><item k='1'>a</item><item k='1'>a</item><set><deep/></set></root>"));
    Read(theirs, _T("<ROOT><ITEM k='1'>a</ITEM><item k='1'>b</item><set><Deep><new>x</new></Deep></set>"
                    "<item k='1'>a</item><item k='1'>a</item></ROOT>"));
    EXPECT_EQ(mine.Merge(&theirs), 1);
    EXPECT_EQ(Text(mine), _T("<root><item k=\"1\">a</item><item k=\"1\">a</item><set><deep><new>x</new></deep></set>"
                             "<item k=\"1\">b</item><item k=\"1\">a</item></root>"));
    CXmlElement empty(_T(""));
    EXPECT_EQ(empty.Merge(&mine), 1);
    EXPECT_EQ(Text(empty), Text(mine));
    EXPECT_EQ(empty.Merge(theirs.GetChild()), 0);
    EXPECT_EQ(mine.Merge(nullptr), 0);
    // Not the same, and with a parent: a copy with the siblings that follow.
    mine.RemoveAllChildren();
    EXPECT_EQ(mine.CreateChild(_T("x"))->Merge(theirs.GetChild()->GetNext()->GetNext()), 1);
    EXPECT_EQ(Tags(mine), _T("xsetitemitem"));
    // Into itself.
    CXmlElement nest(_T("a"));
    Read(nest, _T("<abc><abc></abc></abc>"));
    EXPECT_EQ(nest.GetChild()->Merge(&nest), 1);
    EXPECT_EQ(Text(nest), _T("<abc><abc><abc/></abc></abc>"));
}

TEST(XmlElement, TakesAnyDepthAndNumber)
{
    constexpr int COUNT = 300000;
    CStringA deep;
    CStringA wide("<abc");
    for (int i = 0; i < COUNT; ++i)
    {
        deep += "<abc>";
        wide.AppendFormat(" n%d='1'", i);
    }
    for (int i = 0; i < COUNT; ++i)
    {
        deep += "</abc>";
    }
    wide += ">";
    for (int i = 0; i < COUNT; ++i)
    {
        wide.AppendFormat("<e%d/>", i);
    }
    for (CStringA const & text : {deep, wide + "</abc>"})
    {
        CXmlDocument document;
        document.FromString(text);
        CXmlDocument copy;
        EXPECT_EQ(copy.Merge(document), 1);
        EXPECT_EQ(copy.Merge(document), 1); // all is the same
        EXPECT_EQ(copy.ToString(), document.ToString());
        copy = document;
        int count = 0;
        auto const add = [](CXmlElement *, void * context) -> int { return ++*static_cast<int *>(context); };
        copy.ForEachElement(add, &count);
        EXPECT_GE(count, COUNT);
        CXmlElement * const last = document.GetRoot()->DetachChild(document.GetRoot()->GetLastChild());
        CString const name = last->GetTag();
        document.FromString("<other/>");
        delete last; // and its text outlive those that they were read with
        EXPECT_FALSE(name.IsEmpty());
    }
    CXmlDocument broken;
    EXPECT_ANY_THROW(
        try { broken.FromString(deep.Left(COUNT * 5)); } catch (CException * failure) {
            failure->Delete();
            throw 0;
        });
}
