#pragma once

/// A hook for documents that are loaded: it evaluates `$(...)` in texts, and sees instructions and elements.

#include "kvx/foundation/ValueAccessor.h"

class CXmlDocument;
class CXmlElement;

/// While a document is loaded it is given each text and attribute value as it is read, after its entities are replaced,
/// and each element when it stands below its parent; so children come before their parents. The root isn't given to it.
/// What an application's functions raise ends the load.
///
/// Errors: CArchiveException * with cause 5, whose file name says what is wrong. Threads: those of the documents.
class KVX_API CXmlPreprocessor : public CObject
{
public:
    /// So deep may expressions stand in each other, and so many more may one of them bring along with its value.
    static constexpr int MAX_DEPTH = 1000;
    /// Bytes of an expanded text.
    static constexpr int MAX_SIZE = 16 * 1024 * 1024;

    /// Instructions (read as special elements) go to ProcessInstruction, comments nowhere, all else to
    /// ProcessOrdinaryElement.
    virtual void ProcessElement(CXmlElement * element, CXmlDocument * document, CArchive & archive);
    /// Replaces each `$(...)`, brackets in it counted, by its value, in which further ones are replaced too. A missing
    /// bracket, an empty expression, and an expansion beyond the bounds are failures.
    virtual void ProcessString(CString & text);

protected:
    virtual CString ProcessExpression(CString const & expression);
    /// A target up to the first blank, and `name=value` pairs, which replace the attributes.
    virtual void ParseProcessingInstruction(CString const & text, CString & target, CValueAccessor & attributes);
    virtual void ProcessInstruction(CString const & target, CValueAccessor & attributes, CXmlElement * element,
                                    CXmlDocument * document, CArchive & archive) = 0;
    virtual CString EvaluateExpression(CString const & expression) = 0;
    virtual void ProcessOrdinaryElement(CXmlElement * element, CXmlDocument * document, CArchive & archive) = 0;

    /// The `)` for a bracket that was opened before `start`; -1 if there is none.
    static int FindClosingBracket(CString const & text, int start);
};
