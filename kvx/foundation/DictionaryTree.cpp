#include "kvx/foundation/DictionaryTree.h"

#include "kvx/text/StringTokenizer.h"

IMPLEMENT_SERIAL(CDictionaryTree, CObject, 1)

CDictionaryTree::CDictionaryTree(LPCTSTR name, LPCTSTR separator)
    : m_strName(name), m_strSeparator(separator ? separator : _T("\\"))
{
}

void CDictionaryTree::Copy(CDictionaryTree const & other)
{
    if (this == &other)
    {
        return;
    }
    // Made aside, for either may stand in the other one's tree.
    CDictionaryTree copy;
    copy.CopyTree(other);
    RemoveAll();
    m_strName = copy.m_strName;
    m_strSeparator = copy.m_strSeparator;
    m_values = copy.m_values;
    CString key;
    CDictionaryTree * child = nullptr;
    for (POSITION pos = copy.GetStartChildPosition(); pos;)
    {
        copy.GetNextChild(pos, key, child);
        m_children.SetAt(key, child);
    }
    copy.m_children.RemoveAll(); // they have moved
}

/// Fills a new node, which stands in no tree.
void CDictionaryTree::CopyTree(CDictionaryTree const & other)
{
    // Without recursion, here and in RemoveAll: a path may be as long as a text.
    std::vector<std::pair<CDictionaryTree const *, CDictionaryTree *>> left{{&other, this}};
    while (!left.empty())
    {
        auto const [from, to] = left.back();
        left.pop_back();
        to->m_strName = from->m_strName;
        to->m_strSeparator = from->m_strSeparator;
        to->m_values = from->m_values;
        CString key;
        CDictionaryTree * child = nullptr;
        for (POSITION pos = from->GetStartChildPosition(); pos;)
        {
            from->GetNextChild(pos, key, child);
            CObject *& copy = to->m_children[key];
            copy = new CDictionaryTree;
            left.emplace_back(child, static_cast<CDictionaryTree *>(copy));
        }
    }
}

CDictionaryTree * CDictionaryTree::CreateChild(LPCTSTR path)
{
    CStringTokenizer steps(path, m_strSeparator);
    return CreateChild(steps);
}

CDictionaryTree * CDictionaryTree::CreateChild(CStringTokenizer & path)
{
    CDictionaryTree * node = this;
    for (CString step; path.GetNextString(step);)
    {
        CObject *& child = node->m_children[step];
        if (!child)
        {
            child = new CDictionaryTree;
        }
        node = static_cast<CDictionaryTree *>(child);
    }
    return node;
}

CDictionaryTree * CDictionaryTree::FindChild(LPCTSTR path) const
{
    CStringTokenizer steps(path, m_strSeparator);
    return FindChild(steps);
}

CDictionaryTree * CDictionaryTree::FindChild(CStringTokenizer & path) const
{
    auto * node = const_cast<CDictionaryTree *>(this);
    for (CString step; path.GetNextString(step);)
    {
        CObject * child = nullptr;
        if (!node->m_children.Lookup(step, child))
        {
            return nullptr;
        }
        node = static_cast<CDictionaryTree *>(child);
    }
    return node;
}

void CDictionaryTree::GetNextChild(POSITION & pos, CString & key) const
{
    CDictionaryTree * child = nullptr;
    GetNextChild(pos, key, child);
}

void CDictionaryTree::GetNextChild(POSITION & pos, CString & key, CDictionaryTree *& child) const
{
    CObject * object = nullptr;
    m_children.GetNextAssoc(pos, key, object);
    child = static_cast<CDictionaryTree *>(object);
}

CStringValue CDictionaryTree::GetValue(LPCTSTR name, LPCTSTR path) const
{
    CDictionaryTree const * const node = FindChild(path);
    return node ? node->m_values.GetValue(name) : CStringValue();
}

void CDictionaryTree::SetValue(LPCTSTR name, CStringValue const & value, LPCTSTR path)
{
    CreateChild(path)->m_values.CreateValue(name) = value;
}

void CDictionaryTree::GetValues(CDictionary & target, LPCTSTR path) const
{
    if (CDictionaryTree const * const node = FindChild(path))
    {
        target = node->m_values;
    }
}

CDictionary CDictionaryTree::operator[](LPCTSTR path) const
{
    CDictionary values;
    GetValues(values, path);
    return values;
}

void CDictionaryTree::RemoveAll()
{
    std::vector<CDictionaryTree *> left;
    TakeChildren(left);
    while (!left.empty())
    {
        CDictionaryTree * const node = left.back();
        left.pop_back();
        node->TakeChildren(left);
        delete node;
    }
}

/// Hands the children over.
void CDictionaryTree::TakeChildren(std::vector<CDictionaryTree *> & nodes)
{
    CString key;
    CDictionaryTree * child = nullptr;
    for (POSITION pos = m_children.GetStartPosition(); pos;)
    {
        GetNextChild(pos, key, child);
        nodes.push_back(child);
    }
    m_children.RemoveAll();
}

void CDictionaryTree::Serialize(CArchive & archive)
{
    if (archive.IsStoring())
    {
        m_children.Serialize(archive);
        m_values.Serialize(archive);
        archive << m_strSeparator;
        return;
    }
    RemoveAll();
    m_bTaken = true; // from now on: an archive may not make a node its own descendant
    for (auto left = archive.ReadCount(); left > 0; --left)
    {
        LoadChild(archive);
    }
    m_values.Serialize(archive);
    archive >> m_strSeparator;
    m_bTaken = false;
}

/// Takes a child from the archive, unless another node has it already or the key stands twice: each has one owner.
void CDictionaryTree::LoadChild(CArchive & archive)
{
    CString key;
    archive >> key;
    auto * const child = static_cast<CDictionaryTree *>(archive.ReadObject(RUNTIME_CLASS(CDictionaryTree)));
    CObject * known = nullptr;
    bool const bFree = child && !child->m_bTaken;
    if (!bFree || m_children.Lookup(key, known))
    {
        if (bFree)
        {
            delete child;
        }
        AfxThrowArchiveException(CArchiveException::badIndex);
    }
    child->m_bTaken = true;
    m_children.SetAt(key, child);
}
