/*
 * A picture that says in words why there is none.
 */
#include <algorithm>
#include <sstream>
#include <vector>

#include <gd.h>
#include <gdfontg.h>

#include "panel/preview.h"

namespace
{
constexpr int kWidth = 640;
constexpr int kHeight = 360;
constexpr int kMargin = 40;
constexpr int kQuality = 80;

using CImage = std::unique_ptr<gdImage, decltype(&gdImageDestroy)>;

std::vector<std::string> Wrap(const std::string &i_strText, std::size_t i_u64Columns)
{
    std::istringstream objWords(i_strText);
    std::vector<std::string> objLines;
    std::string strWord;
    while (objWords >> strWord) {
        strWord.resize(std::min(strWord.size(), i_u64Columns));
        if (objLines.empty() || objLines.back().size() + 1 + strWord.size() > i_u64Columns) {
            objLines.push_back(strWord);
        } else {
            objLines.back() += ' ' + strWord;
        }
    }
    return objLines;
}

std::string Printable(std::string i_strText)
{
    std::replace_if(
        i_strText.begin(), i_strText.end(), [](char s8Char) { return s8Char < ' '; }, '?');
    return i_strText;
}

/* The library's own letters are 9 by 15 and do not depend on fonts that may be absent; larger ones
 * are drawn small and blown up. Answers the line's height. */
int DrawLine(gdImage *io_pImage, int i_s32Y, const std::string &i_strText, int i_s32Times,
             int i_s32Grey)
{
    const gdFontPtr pFont = gdFontGetGiant();
    const int s32Width = pFont->w * static_cast<int>(i_strText.size());
    const CImage pLine(gdImageCreateTrueColor(std::max(s32Width, 1), pFont->h), gdImageDestroy);
    if (!pLine) {
        return 0;
    }
    gdImageFilledRectangle(pLine.get(), 0, 0, s32Width, pFont->h, gdTrueColor(24, 28, 34));
    std::string strText = i_strText;
    gdImageString(pLine.get(), pFont, 0, 0, reinterpret_cast<unsigned char *>(strText.data()),
                  gdTrueColor(i_s32Grey, i_s32Grey, i_s32Grey));
    gdImageCopyResampled(io_pImage, pLine.get(), kMargin, i_s32Y, 0, 0, s32Width * i_s32Times,
                         pFont->h * i_s32Times, s32Width, pFont->h);
    return pFont->h * i_s32Times;
}
} // namespace

std::string DrawWords(const std::string &i_strTitle, const std::string &i_strSentence)
{
    const CImage pImage(gdImageCreateTrueColor(kWidth, kHeight), gdImageDestroy);
    if (!pImage) {
        return {};
    }
    gdImageFilledRectangle(pImage.get(), 0, 0, kWidth, kHeight, gdTrueColor(24, 28, 34));
    int s32Y = 90;
    for (const std::string &strLine : Wrap(Printable(i_strTitle), 20)) {
        s32Y += DrawLine(pImage.get(), s32Y, strLine, 3, 255) + 6;
    }
    s32Y += 14;
    for (const std::string &strLine : Wrap(Printable(i_strSentence), 62)) {
        if (s32Y < kHeight - kMargin) {
            s32Y += DrawLine(pImage.get(), s32Y, strLine, 1, 200) + 6;
        }
    }
    int s32Size = 0;
    void *pBytes = gdImageJpegPtr(pImage.get(), &s32Size, kQuality);
    const std::string strJpeg(static_cast<char *>(pBytes),
                              pBytes == nullptr ? 0 : static_cast<std::size_t>(s32Size));
    gdFree(pBytes);
    return strJpeg;
}
