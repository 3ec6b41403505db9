/*
 * Access to the XML parameter file. Which parameters there are is param_table.h's.
 *
 * The file's root element is CONFIGURATION; its children are sections; a section holds one PARAM
 * element per parameter, with the attributes NAME and TYPE and the value as its text. An
 * RQ_XMLParser lives for one pass over the file, on the stack of its user, and holds the file's
 * exclusive flock(2) from Parse() to its end, so that passes of any process come one after the
 * other.
 */
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include <tinyxml2.h>

#include "framework/types.h"
#include "framework/unique_fd.h"

/* The document that a missing or damaged file is read as. */
extern const char FLUSHED_XML[];

class RQ_XMLParser
{
public:
    /* Called each time another holder's lock is met: waits a while and returns true for another
     * try, or false to give up. */
    using LOCK_WAIT = std::function<Bool()>;

    /* i_pPath: at most 255 characters are kept. Opens nothing yet. */
    explicit RQ_XMLParser(const char *i_pPath);
    /* Closes the file, which releases the lock. */
    ~RQ_XMLParser();
    RQ_XMLParser(const RQ_XMLParser &) = delete;
    RQ_XMLParser &operator=(const RQ_XMLParser &) = delete;

    /* Opens the file (creating it), takes its lock and loads it. A null i_pWait waits for the lock
     * without limit. Returns Load()'s result; XML_ERROR_FILE_COULD_NOT_BE_OPENED, with nothing
     * loaded, when the wait was given up. */
    UInt32 Parse(const LOCK_WAIT &i_pWait = nullptr);
    /* Loads the file, which is neither created nor locked for that. One that cannot be loaded reads
     * as the empty configuration, see LoadError(). Returns tinyxml2's error code, 0 for success. */
    UInt32 Load();
    /* Why the file reads as the empty configuration, in tinyxml2's words; "" if it was loaded. */
    const char *LoadError() const { return m_strLoadError.c_str(); }

    /* The first PARAM of the first section of that name; null if there is none. The parameters
     * are this element and its following siblings, whatever they are called. */
    const tinyxml2::XMLElement *FirstParam(const char *i_pSection) const;

    /* --- Offered: the daemon uses nothing of what follows. ----------------------------------- */

    /* Empties the document. Returns the result of the parse. */
    SInt32 Flush();
    /* Copies the value of the first parameter of that name to o_pOut, which holds i_u32Capacity
     * characters. 1 found; 0 not: o_pOut is then as it was, or empty when the parameter has no
     * text or one that does not fit with its NUL. */
    UInt32 GetXMLParamVal(const char *i_pSection, const char *i_pName, char *o_pOut,
                          UInt32 i_u32Capacity) const;
    /* Sets type and value of the first parameter of that name; what is missing is appended.
     * 1 done, 0 an element could not be created. */
    SInt32 SetXMLParamVal(const char *i_pSection, const char *i_pName, const char *i_pType,
                          const char *i_pValue);
    /* Deletes the first parameter of that name, if any. 0 when there is no such section, else 1.
     */
    SInt32 DelXMLParam(const char *i_pSection, const char *i_pName);
    /* Saves the document over the file, indented; a failure is ignored. */
    void UpdateFile();

protected:
    tinyxml2::XMLElement *Section(const char *i_pSection);
    const tinyxml2::XMLElement *Section(const char *i_pSection) const;

    char path[256];
    tinyxml2::XMLDocument doc;
    UniqueFd fd; /* carries the lock; none until Parse() */

private:
    Bool TakeLock(const LOCK_WAIT &i_pWait) const;

    std::string m_strLoadError;
};

/* strncpy(3) that always terminates: at most i_u64Size - 1 characters, padded with NULs; nothing
 * is written for a size of 0. Returns o_pDst. */
char *rq_strncpy(char *o_pDst, const char *i_pSrc, std::size_t i_u64Size);

/* Copies the element's text to o_pOut, which holds i_u32Capacity characters. False, with o_pOut
 * empty, when there is no text or it does not fit with its NUL. */
Bool CopyParamText(const tinyxml2::XMLElement *i_pParam, char *o_pOut, UInt32 i_u32Capacity);

/* --- Offered: the daemon uses nothing of what follows. --------------------------------------- */

/* The parser with a look inside, for debugging. */
class RQ_EXXMLParser : public RQ_XMLParser
{
public:
    using RQ_XMLParser::RQ_XMLParser;

    /* Writes every section's name and its parameters' names and values to standard output. */
    void dump() const;
};

/* Constant text for an error number of the parameter file's own list. The list is older than the
 * installed tinyxml2, whose numbers differ from 6 on. */
const char *XML_StrError(UInt32 i_u32Error);
