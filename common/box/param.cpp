/*
 * Access to the XML parameter file, over tinyxml2.
 *
 * The lookups follow the document's order: the first root, the first section, the first parameter
 * of a name count, and everything after a section's first PARAM is a parameter if it has a NAME.
 */
#include "common/box/param.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

using tinyxml2::XMLElement;
using tinyxml2::XMLNode;

const char FLUSHED_XML[] = "<CONFIGURATION></CONFIGURATION>";

namespace
{
constexpr char kRoot[] = "CONFIGURATION";
constexpr char kParam[] = "PARAM";
constexpr char kName[] = "NAME";
constexpr char kType[] = "TYPE";

Bool IsNamed(const XMLElement *i_pElem, const char *i_pName)
{
    const char *pName = i_pElem->Attribute(kName);
    return pName != nullptr && strcmp(pName, i_pName) == 0;
}

/* The first of i_pElem and its following siblings that has the name; null if none has. */
const XMLElement *FindNamed(const XMLElement *i_pElem, const char *i_pName)
{
    while (i_pElem != nullptr && !IsNamed(i_pElem, i_pName)) {
        i_pElem = i_pElem->NextSiblingElement();
    }
    return i_pElem;
}

XMLElement *FindNamed(XMLElement *i_pElem, const char *i_pName)
{
    return const_cast<XMLElement *>(FindNamed(static_cast<const XMLElement *>(i_pElem), i_pName));
}

XMLElement *AppendElement(XMLNode *i_pParent, const char *i_pTag)
{
    XMLElement *pElem = i_pParent->GetDocument()->NewElement(i_pTag);
    return pElem != nullptr && i_pParent->InsertEndChild(pElem) != nullptr ? pElem : nullptr;
}

XMLElement *FindOrAppend(XMLNode *i_pParent, const char *i_pTag)
{
    XMLElement *pElem = i_pParent->FirstChildElement(i_pTag);
    return pElem != nullptr ? pElem : AppendElement(i_pParent, i_pTag);
}

XMLElement *AppendParam(XMLElement *i_pSection, const char *i_pName)
{
    XMLElement *pParam = AppendElement(i_pSection, kParam);
    if (pParam != nullptr) {
        pParam->SetAttribute(kName, i_pName);
    }
    return pParam;
}
} // namespace

RQ_XMLParser::RQ_XMLParser(const char *i_pPath) : doc(true, tinyxml2::PRESERVE_WHITESPACE)
{
    rq_strncpy(path, i_pPath, sizeof(path));
}

RQ_XMLParser::~RQ_XMLParser()
{
    doc.Clear();
    /* Kept: descriptors 0 and 1 are never closed here, because they may be the process's streams,
     * whoever opened them. */
    if (fd.Get() <= 1) {
        (void)fd.Release();
    }
}

UInt32 RQ_XMLParser::Parse(const LOCK_WAIT &i_pWait)
{
    m_strLoadError.clear();
    /* A second Parse() must not wait for the lock of the first one's descriptor. */
    if (!fd) {
        fd.Reset(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0770));
    }
    if (fd && !TakeLock(i_pWait)) {
        return tinyxml2::XML_ERROR_FILE_COULD_NOT_BE_OPENED;
    }
    return Load();
}

UInt32 RQ_XMLParser::Load()
{
    m_strLoadError.clear();
    /* Reading a pipe or a device could wait, or go on, for ever. */
    struct stat stStat;
    if (stat(path, &stStat) == 0 && !S_ISREG(stStat.st_mode)) {
        m_strLoadError = "not a regular file";
    } else if (doc.LoadFile(path) != tinyxml2::XML_SUCCESS) {
        m_strLoadError = doc.ErrorStr();
    } else {
        return tinyxml2::XML_SUCCESS;
    }
    return doc.Parse(FLUSHED_XML);
}

/* False when the wait was given up. A file system without locks counts as locked, like a file that
 * cannot be opened. */
Bool RQ_XMLParser::TakeLock(const LOCK_WAIT &i_pWait) const
{
    const int s32Operation = i_pWait ? LOCK_EX | LOCK_NB : LOCK_EX;
    while (flock(fd.Get(), s32Operation) != 0 && (errno == EINTR || errno == EWOULDBLOCK)) {
        if (errno == EWOULDBLOCK && !i_pWait()) {
            return false;
        }
    }
    return true;
}

SInt32 RQ_XMLParser::Flush()
{
    return doc.Parse(FLUSHED_XML);
}

const XMLElement *RQ_XMLParser::Section(const char *i_pSection) const
{
    const XMLElement *pRoot = doc.FirstChildElement(kRoot);
    return pRoot != nullptr ? pRoot->FirstChildElement(i_pSection) : nullptr;
}

XMLElement *RQ_XMLParser::Section(const char *i_pSection)
{
    return const_cast<XMLElement *>(static_cast<const RQ_XMLParser *>(this)->Section(i_pSection));
}

const XMLElement *RQ_XMLParser::FirstParam(const char *i_pSection) const
{
    const XMLElement *pSection = Section(i_pSection);
    return pSection != nullptr ? pSection->FirstChildElement(kParam) : nullptr;
}

UInt32 RQ_XMLParser::GetXMLParamVal(const char *i_pSection, const char *i_pName, char *o_pOut,
                                    UInt32 i_u32Capacity) const
{
    const XMLElement *pParam = FindNamed(FirstParam(i_pSection), i_pName);
    return pParam != nullptr && CopyParamText(pParam, o_pOut, i_u32Capacity) ? 1 : 0;
}

SInt32 RQ_XMLParser::SetXMLParamVal(const char *i_pSection, const char *i_pName,
                                    const char *i_pType, const char *i_pValue)
{
    XMLElement *pRoot = FindOrAppend(&doc, kRoot);
    XMLElement *pSection = pRoot != nullptr ? FindOrAppend(pRoot, i_pSection) : nullptr;
    if (pSection == nullptr) {
        return 0;
    }
    XMLElement *pParam = FindNamed(pSection->FirstChildElement(kParam), i_pName);
    if (pParam == nullptr) {
        pParam = AppendParam(pSection, i_pName);
    }
    if (pParam == nullptr) {
        return 0;
    }
    pParam->SetAttribute(kType, i_pType);
    /* Kept: the first child takes the value whatever kind of node it is, so that a comment there
     * is lost; files in the field were written that way. */
    if (pParam->FirstChild() != nullptr) {
        pParam->FirstChild()->SetValue(i_pValue);
        return 1;
    }
    return pParam->InsertFirstChild(doc.NewText(i_pValue)) != nullptr ? 1 : 0;
}

SInt32 RQ_XMLParser::DelXMLParam(const char *i_pSection, const char *i_pName)
{
    XMLElement *pSection = Section(i_pSection);
    if (pSection == nullptr) {
        return 0;
    }
    XMLElement *pParam = FindNamed(pSection->FirstChildElement(kParam), i_pName);
    if (pParam != nullptr) {
        pSection->DeleteChild(pParam);
    }
    return 1;
}

void RQ_XMLParser::UpdateFile()
{
    /* Written in place: the lock belongs to this very file, a renamed copy would escape it. */
    (void)doc.SaveFile(path);
}

void RQ_EXXMLParser::dump() const
{
    const XMLElement *pRoot = doc.FirstChildElement(kRoot);
    const XMLElement *pSection = pRoot != nullptr ? pRoot->FirstChildElement() : nullptr;
    for (; pSection != nullptr; pSection = pSection->NextSiblingElement()) {
        printf("%s\n", pSection->Name());
        const XMLElement *pParam = pSection->FirstChildElement(kParam);
        for (; pParam != nullptr; pParam = pParam->NextSiblingElement()) {
            const char *pName = pParam->Attribute(kName);
            if (pName != nullptr) {
                const char *pText = pParam->GetText();
                printf("    %s %s\n", pName, pText != nullptr ? pText : "");
            }
        }
    }
}

const char *XML_StrError(UInt32 i_u32Error)
{
    static const char *const pTexts[] = {
        "XML ok",
        "XML no attribute",
        "XML wrong attribute type",
        "XML file not found",
        "XML file could not be opened",
        "XML file read error",
        "XML element mismatch",
        "XML parsing element failed",
        "XML parsing attribute failed",
        "XML identifying tag",
        "XML parsing text failed",
        "XML parsing CDATA failed",
        "XML parsing comment failed",
        "XML parsing declaration failed",
        "XML parsing unknown failed",
        "XML empty document",
        "XML mismatched element",
        "XML parsing failed",
        "XML can not convert text",
        "XML no text node",
    };
    return i_u32Error < std::size(pTexts) ? pTexts[i_u32Error] : "XML unknown error";
}

char *rq_strncpy(char *o_pDst, const char *i_pSrc, std::size_t i_u64Size)
{
    if (i_u64Size != 0) {
        strncpy(o_pDst, i_pSrc, i_u64Size - 1);
        o_pDst[i_u64Size - 1] = '\0';
    }
    return o_pDst;
}

Bool CopyParamText(const XMLElement *i_pParam, char *o_pOut, UInt32 i_u32Capacity)
{
    const char *pText = i_pParam->GetText();
    std::size_t u64Length = pText != nullptr ? strlen(pText) : 0;
    if (pText == nullptr || u64Length >= i_u32Capacity) {
        if (i_u32Capacity != 0) {
            o_pOut[0] = '\0';
        }
        return false;
    }
    memcpy(o_pOut, pText, u64Length + 1);
    return true;
}
