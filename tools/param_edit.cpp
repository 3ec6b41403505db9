/*
 * Changes of single values in the text of a parameter file.
 *
 * A position is an offset in the text. Comments, CDATA sections, processing instructions and
 * declarations are stepped over as wholes, so that what looks like a tag in them is none.
 */
#include "tools/param_edit.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace
{
constexpr std::string_view kRoot = "CONFIGURATION";
constexpr std::string_view kParam = "PARAM";
constexpr std::string_view kSpaces = " \t\r\n";
constexpr auto npos = std::string_view::npos;

enum class Token { Text, Comment, CData, Other, Open, Close, Empty, Bad };

struct TOKEN_S {
    Token eKind;
    std::size_t u64Begin;
    std::size_t u64End;
};

struct ELEMENT_S {
    std::string_view strTag; /* from "<" to ">" */
    bool bEmpty;             /* "<X/>": nothing of the following but u64End */
    std::size_t u64Content;  /* behind the start tag */
    std::size_t u64Close;    /* of the end tag */
    std::size_t u64Begin;
    std::size_t u64End;
};

bool IsSpace(std::string_view i_strText)
{
    return i_strText.find_first_not_of(kSpaces) == npos;
}

TOKEN_S Until(std::string_view i_strText, std::size_t i_u64Begin, Token i_eKind,
              std::string_view i_strEnd)
{
    const std::size_t u64End = i_strText.find(i_strEnd, i_u64Begin);
    return u64End == npos ? TOKEN_S{Token::Bad, i_u64Begin, i_strText.size()}
                          : TOKEN_S{i_eKind, i_u64Begin, u64End + i_strEnd.size()};
}

/* A start tag ends at the first ">" outside of quotes. */
TOKEN_S StartTag(std::string_view i_strText, std::size_t i_u64Begin)
{
    char s8Quote = '\0';
    for (std::size_t i = i_u64Begin; i < i_strText.size(); i++) {
        const char s8Char = i_strText[i];
        if (s8Quote != '\0') {
            s8Quote = s8Char == s8Quote ? '\0' : s8Quote;
        } else if (s8Char == '"' || s8Char == '\'') {
            s8Quote = s8Char;
        } else if (s8Char == '>') {
            return {i_strText[i - 1] == '/' ? Token::Empty : Token::Open, i_u64Begin, i + 1};
        }
    }
    return {Token::Bad, i_u64Begin, i_strText.size()};
}

/* The token that begins there, before the end of the text. */
TOKEN_S NextToken(std::string_view i_strText, std::size_t i_u64Begin)
{
    const std::string_view strRest = i_strText.substr(i_u64Begin);
    if (strRest[0] != '<') {
        return {Token::Text, i_u64Begin,
                std::min(i_strText.find('<', i_u64Begin), i_strText.size())};
    }
    if (strRest.starts_with("<!--")) {
        return Until(i_strText, i_u64Begin, Token::Comment, "-->");
    }
    if (strRest.starts_with("<![CDATA[")) {
        return Until(i_strText, i_u64Begin, Token::CData, "]]>");
    }
    if (strRest.starts_with("<?")) {
        return Until(i_strText, i_u64Begin, Token::Other, "?>");
    }
    if (strRest.starts_with("<!")) {
        return Until(i_strText, i_u64Begin, Token::Other, ">");
    }
    return strRest.starts_with("</") ? Until(i_strText, i_u64Begin, Token::Close, ">")
                                     : StartTag(i_strText, i_u64Begin);
}

/* The elements directly between the positions; none if the tags there do not match up. */
std::optional<std::vector<ELEMENT_S>> Children(std::string_view i_strText, std::size_t i_u64Begin,
                                               std::size_t i_u64End)
{
    std::vector<ELEMENT_S> objElements;
    std::size_t u64Depth = 0;
    while (i_u64Begin < i_u64End) {
        const TOKEN_S stToken = NextToken(i_strText.substr(0, i_u64End), i_u64Begin);
        const std::string_view strTag =
            i_strText.substr(stToken.u64Begin, stToken.u64End - stToken.u64Begin);
        i_u64Begin = stToken.u64End;
        switch (stToken.eKind) {
        case Token::Bad:
            return std::nullopt;
        case Token::Empty:
        case Token::Open:
            if (u64Depth == 0) {
                objElements.push_back({strTag, stToken.eKind == Token::Empty, stToken.u64End,
                                       stToken.u64End, stToken.u64Begin, stToken.u64End});
            }
            u64Depth += stToken.eKind == Token::Open ? 1 : 0;
            break;
        case Token::Close:
            if (u64Depth == 0) {
                return std::nullopt;
            }
            if (--u64Depth == 0) {
                objElements.back().u64Close = stToken.u64Begin;
                objElements.back().u64End = stToken.u64End;
            }
            break;
        default:
            break;
        }
    }
    return u64Depth == 0 ? std::optional(objElements) : std::nullopt;
}

bool IsCalled(const ELEMENT_S &i_stElement, std::string_view i_strName)
{
    return i_stElement.strTag.substr(1, i_stElement.strTag.find_first_of(" \t\r\n/>") - 1) ==
           i_strName;
}

/* The value of the attribute NAME, as it is written. */
std::string_view NameOf(const ELEMENT_S &i_stElement)
{
    std::string_view strRest = i_stElement.strTag;
    strRest.remove_prefix(std::min(strRest.find_first_of(kSpaces), strRest.size()));
    while (true) {
        const std::size_t u64Equals = strRest.find('=');
        const std::size_t u64Quote = strRest.find_first_of("\"'", u64Equals);
        if (u64Equals == npos || u64Quote == npos) {
            return {};
        }
        const std::size_t u64End = strRest.find(strRest[u64Quote], u64Quote + 1);
        std::string_view strName = strRest.substr(0, u64Equals);
        strName.remove_prefix(std::min(strName.find_first_not_of(kSpaces), strName.size()));
        strName = strName.substr(0, strName.find_first_of(kSpaces));
        if (strName == "NAME" || u64End == npos) {
            return u64End == npos ? std::string_view()
                                  : strRest.substr(u64Quote + 1, u64End - u64Quote - 1);
        }
        strRest.remove_prefix(u64End + 1);
    }
}

std::string Escaped(const std::string &i_strValue)
{
    std::string strEscaped;
    for (const char s8Char : i_strValue) {
        switch (s8Char) {
        case '&':
            strEscaped += "&amp;";
            break;
        case '<':
            strEscaped += "&lt;";
            break;
        case '>':
            strEscaped += "&gt;";
            break;
        default:
            strEscaped += s8Char;
        }
    }
    return strEscaped;
}

/* The name out of a start tag, for its end tag. */
std::string EndTag(const ELEMENT_S &i_stElement)
{
    const std::size_t u64End = i_stElement.strTag.find_first_of(" \t\r\n/>");
    return "</" + std::string(i_stElement.strTag.substr(1, u64End - 1)) + ">";
}

/* "<X/>" becomes "<X>content</X>". */
void FillEmpty(std::string &io_strText, const ELEMENT_S &i_stElement,
               const std::string &i_strContent)
{
    const std::string strFilled = ">" + i_strContent + EndTag(i_stElement);
    io_strText.replace(i_stElement.u64End - 2, 2, strFilled);
}

/* False if the element holds something else than a text and comments. */
bool SetText(std::string &io_strText, const ELEMENT_S &i_stElement, const std::string &i_strValue)
{
    if (i_stElement.bEmpty) {
        FillEmpty(io_strText, i_stElement, i_strValue);
        return true;
    }
    /* The value is the first text that is more than space, behind any comments. */
    std::size_t u64Begin = i_stElement.u64Content;
    std::size_t u64Next = u64Begin;
    while (u64Next < i_stElement.u64Close) {
        const TOKEN_S stToken = NextToken(io_strText, u64Next);
        const std::size_t u64Length = stToken.u64End - stToken.u64Begin;
        u64Next = stToken.u64End;
        if (stToken.eKind == Token::Comment) {
            u64Begin = stToken.u64End;
        } else if (stToken.eKind == Token::CData ||
                   (stToken.eKind == Token::Text &&
                    !IsSpace(std::string_view(io_strText).substr(stToken.u64Begin, u64Length)))) {
            io_strText.replace(stToken.u64Begin, u64Length, i_strValue);
            return true;
        } else if (stToken.eKind != Token::Text) {
            return false;
        }
    }
    io_strText.replace(u64Begin, i_stElement.u64Close - u64Begin, i_strValue);
    return true;
}

/* Puts the child behind the parent's last one, on a line of its own with the same indentation. */
void AppendChild(std::string &io_strText, const ELEMENT_S &i_stParent,
                 const std::vector<ELEMENT_S> &i_objChildren, const std::string &i_strChild,
                 std::size_t i_u64Depth)
{
    const std::string strNewline = io_strText.find("\r\n") != npos ? "\r\n" : "\n";
    std::string strIndent = strNewline + std::string(4 * i_u64Depth, ' ');
    const std::string strOuter = strNewline + std::string(4 * (i_u64Depth - 1), ' ');
    if (i_stParent.bEmpty) {
        FillEmpty(io_strText, i_stParent, strIndent + i_strChild + strOuter);
        return;
    }
    if (i_objChildren.empty()) {
        const bool bBlank = i_stParent.u64Content == i_stParent.u64Close;
        io_strText.insert(i_stParent.u64Content,
                          strIndent + i_strChild + (bBlank ? strOuter : std::string()));
        return;
    }
    const ELEMENT_S &stLast = i_objChildren.back();
    const std::size_t u64Line = io_strText.find_last_not_of(" \t", stLast.u64Begin - 1) + 1;
    if (io_strText[u64Line - 1] == '\n') {
        strIndent = strNewline + io_strText.substr(u64Line, stLast.u64Begin - u64Line);
    }
    io_strText.insert(stLast.u64End, strIndent + i_strChild);
}

const ELEMENT_S *FindCalled(const std::vector<ELEMENT_S> &i_objElements, std::string_view i_strName)
{
    const auto pFound =
        std::find_if(i_objElements.begin(), i_objElements.end(), [&](const ELEMENT_S &i_stElement) {
            return IsCalled(i_stElement, i_strName);
        });
    return pFound != i_objElements.end() ? &*pFound : nullptr;
}

std::string ParamElement(const PARAM_CHANGE_S &i_stChange)
{
    return "<PARAM NAME=\"" + i_stChange.strName + "\" TYPE=\"string\">" +
           Escaped(i_stChange.strValue) + "</PARAM>";
}

/* Empty, or what is wrong. */
std::string Apply(std::string &io_strText, const PARAM_CHANGE_S &i_stChange)
{
    const std::string strDamaged = "its elements do not match up";
    const auto objRoots = Children(io_strText, 0, io_strText.size());
    if (!objRoots) {
        return strDamaged;
    }
    const ELEMENT_S *pRoot = FindCalled(*objRoots, kRoot);
    if (pRoot == nullptr) {
        return "it has no element CONFIGURATION";
    }
    const auto objSections = Children(io_strText, pRoot->u64Content, pRoot->u64Close);
    if (!objSections) {
        return strDamaged;
    }
    const ELEMENT_S *pSection = FindCalled(*objSections, i_stChange.strSection);
    if (pSection == nullptr) {
        AppendChild(io_strText, *pRoot, *objSections,
                    "<" + i_stChange.strSection + "></" + i_stChange.strSection + ">", 1);
        return Apply(io_strText, i_stChange);
    }
    const auto objParams = Children(io_strText, pSection->u64Content, pSection->u64Close);
    if (!objParams) {
        return strDamaged;
    }
    /* From the first PARAM on every element is a parameter. */
    const ELEMENT_S *pEnd = objParams->data() + objParams->size();
    const ELEMENT_S *pFirst = FindCalled(*objParams, kParam);
    const ELEMENT_S *pParam =
        std::find_if(pFirst != nullptr ? pFirst : pEnd, pEnd, [&](const ELEMENT_S &i_stElement) {
            return NameOf(i_stElement) == i_stChange.strName;
        });
    if (pParam == pEnd) {
        AppendChild(io_strText, *pSection, *objParams, ParamElement(i_stChange), 2);
        return "";
    }
    return SetText(io_strText, *pParam, Escaped(i_stChange.strValue))
               ? ""
               : "the element of " + i_stChange.strName + " holds more than a text";
}
} // namespace

std::optional<std::string> EditParams(const std::string &i_strText,
                                      const std::vector<PARAM_CHANGE_S> &i_objChanges,
                                      std::string &o_strError)
{
    std::string strText = IsSpace(i_strText) ? "<CONFIGURATION>\n</CONFIGURATION>\n" : i_strText;
    for (const PARAM_CHANGE_S &stChange : i_objChanges) {
        o_strError = Apply(strText, stChange);
        if (!o_strError.empty()) {
            return std::nullopt;
        }
    }
    return strText;
}
