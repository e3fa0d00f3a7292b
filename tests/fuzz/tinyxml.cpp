// Reads, prints, walks and merges documents by the wrapper over tinyxml2: the input is two of them, parted by a 0.

#include "Require.h"

#include "kvx/foundation/Dictionary.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/platform/mfc/File.h"
#include "kvx/xml/XMLDocumentKVX.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace
{
using namespace tinyxml2;

bool Read(XMLDocumentKVX & document, std::vector<BYTE> bytes)
{
    CMemFile file(bytes.data(), static_cast<UINT>(bytes.size()));
    return document.FromFile(file);
}

void Speak(XMLDocumentKVX & document)
{
    ElementProxy root(document.RootElement());
    CDictionary values;
    root.GetAttributes(values);
    root.SetAttributes(values);
    Require(root.GetChildElementCount() <= root.GetChildCount());
    Require(root.IsNULL() || root == *root);
    XMLElement * const made = document.CreateElement(_T("a/b/c"), _T("/"));
    Require(made != nullptr);
    ElementProxy(made).SetText("text");
    CMsgMultipleRowSets sets;
    sets.FromXml(document.RootElement());
    sets.ToXml(document.RootElement());
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    auto const * const middle = std::find(data, data + size, 0);
    XMLDocumentKVX first;
    XMLDocumentKVX second;
    bool const bFirst = Read(first, {data, middle});
    if (middle != data + size)
    {
        Read(second, {middle + 1, data + size});
    }
    if (bFirst)
    {
        // The walk without recursion is the library's own.
        NodePrinter printer(nullptr, true);
        first.Print(&printer);
        Require(ToStringA(&first) == printer.CStr());
    }
    first.Merge(second);
    if (XMLElement * const root = first.RootElement())
    {
        Require(ElementProxy(root).Merge(root));
        if (XMLElement * const child = root->FirstChildElement())
        {
            Require(ElementProxy(child).Merge(root));
            ElementProxy(child).MergeChildren(root);
            Require(ElementProxy(root).MergeChildren(child));
        }
    }
    Speak(first);
    Speak(second);
    Require(!ToStringA(&first).IsEmpty());
    return 0;
}
