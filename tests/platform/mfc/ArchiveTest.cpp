#include "tests/support/Raised.h"

#include "kvx/platform/mfc/Afx.h"

#include <gmock/gmock.h>

#include <memory>
#include <string_view>
#include <vector>

using testing::ElementsAre;

namespace
{
using Bytes = std::vector<BYTE>;

template <class ACTION>
Bytes Store(ACTION action, int nBufSize = 4096)
{
    CMemFile file;
    CArchive ar(&file, CArchive::store, nBufSize);
    action(ar);
    ar.Close();
    Bytes bytes(static_cast<std::size_t>(file.GetLength()));
    file.SeekToBegin();
    file.Read(bytes.data(), static_cast<UINT>(bytes.size()));
    return bytes;
}

template <class ACTION>
void Load(Bytes bytes, ACTION action, int nBufSize = 4096)
{
    CMemFile file(bytes.data(), static_cast<UINT>(bytes.size()));
    CArchive ar(&file, CArchive::load, nBufSize);
    action(ar);
}

/// A node of a graph: owns its children, points to any other node.
class CNode : public CObject
{
    DECLARE_SERIAL(CNode)

public:
    CNode() { ++sm_nAlive; }
    ~CNode() override { --sm_nAlive; }

    void Serialize(CArchive & ar) override
    {
        if (ar.IsStoring())
        {
            ar << m_strName << m_pOther << static_cast<WORD>(m_children.size());
            for (auto const & pChild : m_children)
            {
                ar << pChild.get();
            }
            return;
        }
        m_nSchema = ar.GetObjectSchema();
        WORD nChildren;
        ar >> m_strName >> m_pOther >> nChildren;
        for (; nChildren > 0; --nChildren)
        {
            CNode * pChild;
            ar >> pChild;
            m_children.emplace_back(pChild);
        }
    }

    static inline int sm_nAlive = 0;
    CString m_strName;
    CNode * m_pOther = nullptr;
    std::vector<std::unique_ptr<CNode>> m_children;
    UINT m_nSchema = 0;
};

class CFixed : public CObject
{
    DECLARE_SERIAL(CFixed)
};

IMPLEMENT_SERIAL(CNode, CObject, VERSIONABLE_SCHEMA | 3)
IMPLEMENT_SERIAL(CFixed, CObject, 7)

/// A root with two children, of which one points to the root and one to its sibling.
Bytes StoredGraph()
{
    CNode root;
    root.m_strName = _T("root");
    for (auto const * psz : {_T("left"), _T("right")})
    {
        root.m_children.emplace_back(std::make_unique<CNode>())->m_strName = psz;
    }
    root.m_children[0]->m_pOther = &root;
    root.m_children[1]->m_pOther = root.m_children[0].get();
    return Store([&](CArchive & ar) { ar << &root; });
}

/// The cause that reading so many objects of the class raises; 0 if they come. They are deleted.
template <class OBJECT>
int CauseOfReading(Bytes const & bytes, int nObjects = 1)
{
    std::vector<std::unique_ptr<OBJECT>> objects;
    return CauseOf(
        [&]
        {
            Load(bytes,
                 [&](CArchive & ar)
                 {
                     for (OBJECT * pRead = nullptr; nObjects > 0; --nObjects)
                     {
                         ar >> pRead;
                         objects.emplace_back(pRead);
                     }
                 });
        });
}
} // namespace

TEST(Archive, ValuesHaveTheirOwnWidth)
{
    auto const bytes = Store(
        [](CArchive & ar)
        {
            ar << static_cast<BYTE>(1) << static_cast<WORD>(0x203) << static_cast<LONG>(-2) << true
               << static_cast<WCHAR>('x');
            ar << static_cast<ULONGLONG>(0x0102030405060708) << 1.5f;
        });
    EXPECT_THAT(bytes,
                ElementsAre(1, 3, 2, 0xFE, 0xFF, 0xFF, 0xFF, 1, 'x', 0, 8, 7, 6, 5, 4, 3, 2, 1, 0, 0, 0xC0, 0x3F));
}

TEST(Archive, TextsAndCountsOfEveryLengthComeBack)
{
    for (int const nLength : {0, 1, 254, 255, 0xFFFD, 0xFFFE, 0xFFFF, 70000})
    {
        CString const strWide(static_cast<WCHAR>(0x20AC), nLength);
        CStringA const strNarrow('n', nLength);
        auto const bytes = Store(
            [&](CArchive & ar)
            {
                ar << strWide << strNarrow;
                ar.WriteCount(static_cast<DWORD_PTR>(nLength));
                ar << strNarrow;
            });
        Load(bytes,
             [&](CArchive & ar)
             {
                 CString strReadWide, strConverted;
                 CStringA strReadNarrow;
                 ar >> strReadWide >> strReadNarrow;
                 EXPECT_EQ(strReadWide, strWide);
                 EXPECT_EQ(strReadNarrow, strNarrow);
                 EXPECT_EQ(ar.ReadCount(), static_cast<DWORD_PTR>(nLength));
                 ar >> strConverted;
                 EXPECT_EQ(strConverted, CString(_T('n'), nLength));
             });
    }
    EXPECT_THAT(Store([](CArchive & ar) { ar << CString(_T("A")); }), ElementsAre(0xFF, 0xFE, 0xFF, 1, 'A', 0));
}

TEST(Archive, SmallBuffersSplitNothing)
{
    Bytes big(1000);
    for (std::size_t i = 0; i < big.size(); ++i)
    {
        big[i] = static_cast<BYTE>(i * 7);
    }
    auto const write = [&](CArchive & ar)
    {
        for (UINT n = 0; n < 300; ++n)
        {
            ar << n;
            ar.Write(big.data(), n);
        }
    };
    auto const bytes = Store(write, 1);
    EXPECT_EQ(bytes, Store(write));
    Load(
        bytes,
        [&](CArchive & ar)
        {
            for (UINT n = 0; n < 300; ++n)
            {
                UINT nRead;
                Bytes part(n);
                ar >> nRead;
                ASSERT_EQ(nRead, n);
                ar.EnsureRead(part.data(), n);
                ASSERT_TRUE(std::equal(part.begin(), part.end(), big.begin()));
            }
            BYTE nothing;
            EXPECT_EQ(ar.Read(&nothing, 1), 0u);
            EXPECT_EQ(CauseOf([&] { ar >> nothing; }), CArchiveException::endOfFile);
        },
        1);
}

TEST(Archive, ReadAheadGoesBackToTheFile)
{
    BYTE content[] = {1, 2, 3, 4};
    CMemFile file(content, sizeof content);
    CArchive ar(&file, CArchive::load);
    BYTE first;
    ar >> first;
    EXPECT_EQ(CauseOf([&] { ar << first; }), CArchiveException::readOnly);
    ar.Close();
    EXPECT_EQ(file.GetPosition(), 1u);
    EXPECT_EQ(CauseOf([&] { ar >> first; }), CArchiveException::genericException);
    EXPECT_EQ(CauseOf([&] { ar.Flush(); }), CArchiveException::genericException);
}

TEST(Archive, AGraphComesBackWithItsShape)
{
    Load(StoredGraph(),
         [](CArchive & ar)
         {
             CNode * pRead;
             ar >> pRead;
             std::unique_ptr<CNode> const pRoot(pRead);
             ASSERT_EQ(pRoot->m_children.size(), 2u);
             EXPECT_EQ(pRoot->m_strName, _T("root"));
             EXPECT_EQ(pRoot->m_nSchema, 3u);
             EXPECT_EQ(pRoot->m_children[0]->m_strName, _T("left"));
             EXPECT_EQ(pRoot->m_children[0]->m_pOther, pRoot.get());
             EXPECT_EQ(pRoot->m_children[1]->m_pOther, pRoot->m_children[0].get());
         });
    EXPECT_EQ(CNode::sm_nAlive, 0);
}

TEST(Archive, TruncatedGraphsRaiseAndLeakNothing)
{
    auto const graph = StoredGraph();
    for (std::size_t nCut = 0; nCut < graph.size(); ++nCut)
    {
        Bytes cut(graph.begin(), graph.begin() + static_cast<std::ptrdiff_t>(nCut));
        EXPECT_EQ(CauseOfReading<CNode>(cut), CArchiveException::endOfFile) << nCut;
        EXPECT_EQ(CNode::sm_nAlive, 0) << nCut;
    }
}

TEST(Archive, HostileTagsAreRefused)
{
    auto const withClass = [](std::string_view name, BYTE nSchema)
    {
        Bytes bytes{0xFF, 0xFF, nSchema, 0, static_cast<BYTE>(name.size()), 0};
        for (auto const c : name)
        {
            bytes.push_back(static_cast<BYTE>(c));
        }
        return bytes;
    };
    for (auto const & [bytes, nCause] : {
             std::pair<Bytes, int>{withClass("CFixed", 7), 0},
             {{0, 0}, 0},
             {withClass("CFixed", 8), CArchiveException::badSchema},
             {withClass("CNode", 3), CArchiveException::badClass},
             {withClass("CUnknown", 7), CArchiveException::badClass},
             {withClass("CFile", 7), CArchiveException::badClass}, // not serial
             {withClass(std::string(200, 'x'), 7), CArchiveException::badClass},
             {{1, 0}, CArchiveException::badIndex}, // an object that never came
             {{0, 0x80}, CArchiveException::badIndex},
             {{5, 0x80}, CArchiveException::badIndex},
             {{0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0x7F}, CArchiveException::badIndex},
             {{0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF}, CArchiveException::badIndex},
         })
    {
        EXPECT_EQ(CauseOfReading<CFixed>(bytes), nCause) << testing::PrintToString(bytes);
    }

    // Number 1 is a class and number 2 an object: neither may pass for the other.
    for (Bytes const & tag : {Bytes{1, 0}, Bytes{2, 0x80}})
    {
        auto bytes = withClass("CFixed", 7);
        bytes.insert(bytes.end(), tag.begin(), tag.end());
        EXPECT_EQ(CauseOfReading<CFixed>(bytes, 2), CArchiveException::badIndex);
    }
}

TEST(Archive, DepthIsBounded)
{
    Bytes bytes{0xFF, 0xFF, 0, 0, 7, 0, 'C', 'O', 'b', 'L', 'i', 's', 't', 1, 0};
    for (int i = 0; i < 200000; ++i)
    {
        bytes.insert(bytes.end(), {0x01, 0x80, 1, 0}); // a list that holds a list that holds ...
    }
    EXPECT_EQ(CauseOfReading<CObList>(bytes), CArchiveException::genericException);
}

TEST(Archive, FalseLengthsCostNothing)
{
    Bytes const wide{0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 'x', 0};
    Bytes const huge{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    CString str(_T("kept"));
    EXPECT_EQ(CauseOf([&] { Load(wide, [&](CArchive & ar) { ar >> str; }); }), CArchiveException::endOfFile);
    EXPECT_EQ(CauseOf([&] { Load(huge, [&](CArchive & ar) { ar >> str; }); }), CArchiveException::badIndex);
    EXPECT_EQ(str, _T("kept"));

    CStringArray texts;
    CDWordArray words;
    CMapStringToString map;
    CList<int, int> list;
    for (CObject * pCollection : std::initializer_list<CObject *>{&texts, &words, &map, &list})
    {
        EXPECT_NE(CauseOf([&] { Load(huge, [&](CArchive & ar) { pCollection->Serialize(ar); }); }), 0);
    }
    EXPECT_LE(words.GetSize(), 2048);
}

TEST(Archive, CollectionsComeBack)
{
    struct
    {
        CObList objects;
        CStringArray texts;
        CMapStringToString map;
        CMap<int, int, double, double> numbers;

        void operator()(CArchive & ar)
        {
            for (CObject * pCollection : std::initializer_list<CObject *>{&objects, &texts, &map, &numbers})
            {
                pCollection->Serialize(ar);
            }
        }
    } all, read;
    CNode node;
    node.m_strName = _T("node");
    for (CObject * const pObject : {&node, static_cast<CNode *>(nullptr), &node})
    {
        all.objects.AddTail(pObject);
    }
    all.texts.Add(_T("a"));
    all.texts.Add(_T(""));
    for (int i = 20; i > 0; --i)
    {
        CString strKey;
        strKey.Format(_T("%d"), i);
        all.map[strKey] = strKey + _T("!");
        all.numbers[i] = i / 2.0;
    }
    Load(Store([&](CArchive & ar) { all(ar); }), [&](CArchive & ar) { read(ar); });

    ASSERT_EQ(read.objects.GetCount(), 3);
    EXPECT_EQ(read.objects.GetHead(), read.objects.GetTail());
    std::unique_ptr<CNode> const pNode(DYNAMIC_DOWNCAST(CNode, read.objects.GetHead()));
    ASSERT_TRUE(pNode);
    EXPECT_EQ(pNode->m_strName, _T("node"));
    ASSERT_EQ(read.texts.GetSize(), 2);
    EXPECT_EQ(read.texts[0], _T("a"));
    EXPECT_EQ(read.numbers[7], 3.5);
    ASSERT_EQ(read.map.GetCount(), 20);
    EXPECT_EQ(read.map.PGetFirstAssoc()->key, _T("20"));
    EXPECT_EQ(read.map[_T("13")], _T("13!"));

    CMapPtrToPtr addresses;
    addresses[&node] = nullptr;
    EXPECT_TRUE(Raises<CNotSupportedException>([&] { Store([&](CArchive & ar) { addresses.Serialize(ar); }); }));
}

TEST(Object, ClassesAreKnownByNameAndDescent)
{
    EXPECT_EQ(CRuntimeClass::FromName("CFixed"), RUNTIME_CLASS(CFixed));
    EXPECT_EQ(CRuntimeClass::FromName("CFile"), nullptr);
    std::unique_ptr<CObject> const pObject(CRuntimeClass::CreateObject("CStringList"));
    ASSERT_TRUE(pObject);
    EXPECT_TRUE(pObject->IsKindOf(RUNTIME_CLASS(CObject)));
    EXPECT_TRUE(pObject->IsSerializable());
    EXPECT_EQ(DYNAMIC_DOWNCAST(CStringList, pObject.get()), pObject.get());
    EXPECT_EQ(DYNAMIC_DOWNCAST(CObList, pObject.get()), nullptr);
    EXPECT_TRUE(RUNTIME_CLASS(CMemFile)->IsDerivedFrom(RUNTIME_CLASS(CFile)));
    EXPECT_FALSE(RUNTIME_CLASS(CFile)->IsDerivedFrom(RUNTIME_CLASS(CMemFile)));

    WCHAR text[24];
    CDumpContext dc(text, std::size(text));
    pObject->Dump(dc);
    EXPECT_EQ(CString(text).Left(18), _T("a CStringList at $"));
    EXPECT_EQ(CString(text).GetLength(), 23) << "cut, with its end";
}
