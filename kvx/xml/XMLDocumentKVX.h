#pragma once

/// A tinyxml2 document with files and resources, paths and merging. This header, and those that it includes, are the
/// only ones that need <tinyxml2.h>; kvx/kvx.h doesn't.

#include "kvx/xml/ElementProxy.h"
#include "kvx/xml/ElementVisitor.h"
#include "kvx/xml/NodePrinter.h"
#include "kvx/xml/NodeText.h"

class CMemFile;

namespace tinyxml2
{
/// What fails is logged and gives false; reading leaves its error in the document (ErrorID). The texts in the log name
/// parsing errors by ErrorText. tinyxml2 refuses documents of more than about 100 levels. Trees that are made by hand
/// may be as deep as memory allows, and go without recursion if they hang in the document when it goes. What Clear,
/// Parse, DeleteChild or DeleteNode of the base class end, and what was made by NewElement and hangs in no document
/// when its own one goes, is deleted by tinyxml2, which recurses on the depth: some ten thousands of levels overflow
/// the stack. Insert the top of a deep tree into the document (InsertEndChild) before that.
///
/// Threads: a document belongs to one.
class KVX_API XMLDocumentKVX : public XMLDocument
{
public:
    explicit XMLDocumentKVX(bool processEntities = true, Whitespace whitespace = PRESERVE_WHITESPACE);
    /// With a root element of that name.
    explicit XMLDocumentKVX(char const * rootName, bool processEntities = true,
                            Whitespace whitespace = PRESERVE_WHITESPACE);
    explicit XMLDocumentKVX(LPCTSTR rootName, bool processEntities = true, Whitespace whitespace = PRESERVE_WHITESPACE);
    ~XMLDocumentKVX() override;

    /// A file that can't be opened or read leaves the document as it is.
    bool FromFile(LPCTSTR path);
    /// The whole file, whose position stays. False for an empty one. By contract the bytes are parsed twice, and the
    /// second result counts: it costs the time of two.
    bool FromFile(CMemFile & file);
    /// Of the type "XML".
    bool FromResource(LPCTSTR name, HINSTANCE module);
    /// With white space, over what is there. Printed by NodePrinter, as all text of this class: a CR comes back, which
    /// it doesn't from Print or SaveFile of the base class.
    bool ToFile(LPCTSTR path);
    /// Without white space, and behind what is there: a second call appends the document a second time.
    bool ToFile(CMemFile & file);

    /// The element that a path leads to, with what is missing on the way. The first step is the root's name, without
    /// regard to case; any other name becomes a new last child of the root, even if it has one of that name. Further
    /// steps have the exact name; an empty one, between two delimiters, makes an element without a name. Null for an
    /// empty path.
    XMLElement * CreateElement(LPCTSTR path, LPCTSTR delimiters);
    /// Null if there is none. The first step must be the root's name, without regard to case; the others are exact.
    XMLElement * FindElement(LPCTSTR path, LPCTSTR delimiters);

    /// Merges the other's root into this one's (ElementProxy::Merge). A document without a root becomes a copy, by way
    /// of the text; what can't be read back then is logged and refused. A refusal leaves the document as it is.
    bool Merge(XMLDocument const & other);
    bool Merge(XMLElement const * element);

private:
    bool ParseBytes(char const * bytes, std::size_t count);
    void DeleteTree();
    XMLElement * AddRoot(char const * name);
};
} // namespace tinyxml2
