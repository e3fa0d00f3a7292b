#pragma once

/// Typed access to the registry.
///
///     CRegistry key;
///     CString strPath;
///     if (key.OpenKey(_T("HKLM\\Software\\Acme"), KEY_READ) == 0)
///         key.QueryValue(_T("Path"), strPath);

#include "kvx/foundation/ValueAccessor.h"

class CXmlDocument;
class CXmlElement;

namespace tinyxml2
{
class XMLDocument;
class XMLElement;
} // namespace tinyxml2

/// Finds the predefined key of a text: the long names ("HKEY_LOCAL_MACHINE") and the short ones ("HKLM", "HKCU",
/// "HKCR", "HKCC", "HKUS", "HKPD", "HKDD"), in any case.
class KVX_API CRegistryRootKeyLookup : public CMapStringToPtr
{
public:
    CRegistryRootKeyLookup();

    /// Null for any other text.
    HKEY LookupRoot(CString const & text) const;
    /// Splits `path` at the first backslash: the root's key is the result, what follows goes to `subKey`.
    HKEY LookupPath(CString const & path, CString & subKey) const;
};

/// Owns one open key, or none. Every operation returns the system's code, 0 for success, and raises nothing; a damaged
/// or unwritable registry is logged as well.
///
/// Copies share the handle, and each of them closes it: detach it from all but one, or don't copy. An assignment
/// doesn't close what the target held.
///
/// Threads: an object belongs to one thread.
class KVX_API CRegistry
{
public:
    /// May change both; its result is ignored.
    using TranslationProc = int (*)(HKEY & parent, CString & subKey);
    /// 0 ends the walk.
    using SubKeyProc = int (*)(CRegistry & key, CString const & name, int index, void * context);

    CRegistry() = default;
    explicit CRegistry(HKEY hKey) : m_hKey(hKey) {}
    CRegistry(CRegistry const &) = default;
    CRegistry & operator=(CRegistry const &) = default;
    virtual ~CRegistry() { CloseKey(); }

    // The key

    /// Takes ownership, and gives up the handle that it had.
    HKEY AttachKey(HKEY hKey);
    HKEY DetachKey() { return AttachKey(nullptr); }
    HKEY GetHandle() const { return m_hKey; }
    operator HKEY() const { return m_hKey; }
    /// 6 if no key is open.
    LONG CloseKey();

    /// Closes the present key first, so that it can't be its own parent; after a failure none is open. A path begins
    /// with the name of a root; an unknown one gives 6.
    LONG OpenKey(HKEY parent, LPCTSTR subKey, DWORD samDesired = KEY_ALL_ACCESS, DWORD options = 0);
    LONG OpenKey(LPCTSTR path, DWORD samDesired = KEY_ALL_ACCESS, DWORD options = 0);
    /// Opens the key after making what is missing of its path. `disposition` becomes REG_CREATED_NEW_KEY or
    /// REG_OPENED_EXISTING_KEY.
    LONG CreateKey(HKEY parent, LPCTSTR subKey, DWORD reserved = 0, DWORD samDesired = KEY_ALL_ACCESS,
                   SECURITY_ATTRIBUTES * security = nullptr, DWORD * disposition = nullptr);
    LONG CreateKey(LPCTSTR path, DWORD reserved = 0, DWORD samDesired = KEY_ALL_ACCESS,
                   SECURITY_ATTRIBUTES * security = nullptr, DWORD * disposition = nullptr);

    /// Deletes a subkey; null is the key itself. One that has subkeys goes only with `recursive`.
    LONG DeleteKey(LPCTSTR subKey, int recursive = 0);
    /// With all that is below it.
    static LONG DeleteKey(HKEY parent, LPCTSTR subKey);
    LONG DeleteValue(LPCTSTR name);

    static HKEY LookupRootKey(CString const & text);
    /// Splits a path into the predefined key (null for an unknown one) and the rest.
    static void ParseRootKey(CString const & path, HKEY & root, CString & subKey);
    /// Sets what every open and create passes its key through, and returns the procedure before. There is no lock: set
    /// it before other threads open keys.
    static TranslationProc SetTranslationProc(TranslationProc proc);
    /// No key is exempt: 0.
    static int IsExemptRedirectedKey(CString const & path);

    // Values. A null or empty name is the key's default value.

    LONG QueryType(LPCTSTR name, DWORD & type);
    /// 13 for a value of another type than REG_DWORD; its first bytes may have been copied then.
    LONG QueryValue(LPCTSTR name, DWORD & value);
    /// `size` is the room in bytes, and afterwards the size of the data.
    LONG QueryValue(LPCTSTR name, DWORD & type, void * data, DWORD & size);
    /// With variables expanded and texts terminated. Of the two pointers one is the type's; the other is null.
    static LONG QueryValue(HKEY key, LPCTSTR name, DWORD * type, DWORD * reserved, void * data, DWORD * size);
    /// REG_SZ and REG_EXPAND_SZ, without the NUL at the end and with nothing expanded; 13 for other types.
    LONG QueryValue(LPCTSTR name, CString & value);
    /// 13 for another type than REG_MULTI_SZ. A last piece without a NUL isn't in the list.
    LONG QueryMultistringValue(LPCTSTR name, CStringList & list);
    LONG SetValue(LPCTSTR name, CString const & value);
    LONG SetValue(LPCTSTR name, DWORD value);
    LONG SetValue(LPCTSTR name, DWORD type, void const * data, DWORD size);
    /// Makes the subkey if it is missing.
    static LONG SetValue(HKEY key, LPCTSTR subKey, LPCTSTR name, DWORD type, void const * data, DWORD size);
    LONG SetMultistringValue(LPCTSTR name, CStringList const & list);

    // Enumerations. `maxCount` -1 means all. 6 if no key is open.

    /// The values as texts: REG_SZ and REG_EXPAND_SZ, REG_DWORD as a signed decimal, all others empty. Nothing is read
    /// from a key that has a value of more than 4000 bytes.
    LONG QueryValues(CValueAccessor & values, int maxCount = -1);
    /// Writes each as REG_SZ, up to the first failure.
    LONG SetValues(CValueAccessor const & values);
    LONG QueryValueNames(CStringList & names, int maxCount = -1);
    LONG QuerySubKeys(CStringList & names, int maxCount = -1);
    LONG EnumSubKeys(SubKeyProc callback, void * context, int maxCount = -1);
    /// Count, longest data (bytes), longest name (characters); 1 on success.
    int GetLengths(DWORD & valueCount, DWORD & longestData, DWORD & longestName);

    // Backup as XML. The element REGISTRY holds a KEY with the attributes `name`, the whole path, and `WOW64` where the
    // access flags hold KEY_WOW64_64KEY. A KEY holds its VALUE elements, in the order of the enumeration, and then the
    // KEY elements of its subkeys, with their names alone. A VALUE has the attributes `name`, `type` (a type's name,
    // which some types share), `original-size` (of the data, in bytes) and `encoded-size` (of the text), and the data
    // in Base64, in lines of 76 characters that end in CR LF. Text is UTF-8. A CR in a name comes back if a
    // document of tinyxml2's is printed by XMLDocumentKVX or ToStringA: tinyxml2's own printing loses it.
    //
    // What fails below the top key is only logged. For whole trees, with nothing left out unsaid, see CRegistryBackup.
    //
    // A document belongs to the caller, as does its safety among threads.

    /// Replaces the document by a backup of the key: of the one value with `oneValue`, else of all its values and, with
    /// `recursive`, of all below it. Values of more than `maxValueSize` bytes keep their sizes but not their data, as
    /// do those that can't be read; a subkey that can't be opened stays empty. By contract subkeys are opened without
    /// the flags.
    /// @return 1 if the key could be opened, else 0 with an empty KEY in the document.
    static int SaveKeyToXML(tinyxml2::XMLDocument & document, CString const & keyPath, int oneValue,
                            CString const & valueName, int recursive, DWORD maxValueSize, DWORD accessFlags);
    /// The same on a document of the library's own, by contract with no value at all; the KEY comes behind what its
    /// root holds, and the root becomes REGISTRY.
    static int SaveKeyToXML(CXmlDocument & document, CString const & keyPath, int oneValue, CString const & valueName,
                            int recursive, DWORD maxValueSize, DWORD accessFlags);
    /// Makes the keys and sets the values of a backup; other values stay. By contract values without data, also empty
    /// ones, aren't written. A VALUE without `original-size` has a plain text (ConvertFromString).
    /// @return 1 if all succeeded, also where there is nothing; else 0, with all the rest restored.
    static int RestoreFromXML(tinyxml2::XMLDocument const & document, DWORD accessFlags);
    /// The same of the first child of the root, whatever the two are called. By contract every VALUE is taken for plain
    /// text, also Base64.
    static int RestoreFromXML(CXmlDocument const & document, DWORD accessFlags);

protected:
    static constexpr DWORD RESTORE_ACCESS = 0xF001F; ///< all rights on the keys

    static void SaveValuesToXML(tinyxml2::XMLElement * element, CRegistry & key, CStringList const & names,
                                DWORD maxValueSize);
    static void SaveSubKeysToXML(tinyxml2::XMLElement * element, CRegistry & key, DWORD maxValueSize,
                                 DWORD accessFlags);
    static int RestoreSubkeyFromXML(tinyxml2::XMLElement const * element, CRegistry & key, DWORD accessFlags);
    static int RestoreValueFromXML(tinyxml2::XMLElement const * element, CRegistry & key);
    static void SaveValuesToXML(CXmlElement * element, CRegistry & key, CStringList const & names, DWORD maxValueSize);
    static void SaveSubKeysToXML(CXmlElement * element, CRegistry & key, DWORD maxValueSize, DWORD accessFlags);
    static int RestoreSubkeyFromXML(CXmlElement const * element, CRegistry & key, DWORD accessFlags);
    static int RestoreValueFromXML(CXmlElement const * element, CRegistry & key);
    static int RestorePlainValue(CRegistry & key, CString const & name, DWORD type, CString const & text);

    static constexpr LPCTSTR WOW64 = _T("WOW64");
    static constexpr LPCTSTR WOW64_64 = _T("WOW64_64");
    static constexpr DWORD NO_LENGTH = 0xFFFFFFFF;

    /// In characters with the NUL, or NO_LENGTH.
    DWORD GetLongestNameLength();
    DWORD GetLongestSubkeyNameLength();

    /// The text form of a value, for people and files.
    static CString ConvertToString(DWORD type, void const * data, DWORD size);
    /// Back from it. `*data` is the caller's, to be ended with free(); null if there is nothing. Missing and wrong
    /// digits count as 0.
    static void ConvertFromString(CString const & text, DWORD type, void ** data, DWORD * size);
    /// Several types share a name: 0 and 6 have that of REG_SZ, 5 that of REG_DWORD; 9 and unknown ones have none.
    static CString GetRegistryTypeName(DWORD type);
    /// REG_SZ for any other text.
    static DWORD GetRegistryTypeFromName(CString const & name);

private:
    friend class CRegistryBackup;

    // RegistryTree.h
    template <class ELEMENT>
    static int SaveOpened(ELEMENT * element, CString const & keyPath, int oneValue, CString const & valueName,
                          int recursive, DWORD maxValueSize, DWORD accessFlags);
    template <class ADD>
    static void SaveEachSubKey(CRegistry & key, DWORD maxValueSize, DWORD accessFlags, ADD const & add);
    template <class ELEMENT>
    static int RestoreTop(ELEMENT const * element, CString const & name, CString const & wow64, DWORD accessFlags);
    template <class ELEMENT, class NAME>
    static int RestoreChild(ELEMENT const * child, CString const & tag, CRegistry & key, DWORD accessFlags,
                            NAME const & nameOf);

    HKEY m_hKey = nullptr;

    static TranslationProc sm_pTranslationProc;

    static DWORD GetAccessMask();

    template <class F>
    LONG WalkNames(DWORD longest, int maxCount, F const & next);
};
