/*
 * The newest preview picture. The file is replaced many times a second and is absent for moments;
 * the last whole picture is kept.
 *
 * Any thread.
 */
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include <sys/stat.h>

#include "framework/types.h"

struct PREVIEW_S {
    UInt64 u64Version = 0; /* grows with every picture */
    double f64Time = 0;    /* seconds since the epoch, when it was written */
    std::string strJpeg;
};

class CPreview
{
public:
    explicit CPreview(std::string i_strFile) : m_strFile(std::move(i_strFile)) {}
    /* Looks at the file and answers the newest whole picture; none before the first. */
    std::shared_ptr<const PREVIEW_S> Get();

private:
    const std::string m_strFile;
    std::mutex m_objMutex;
    struct timespec m_stTime = {};
    ino_t m_u64Inode = 0;
    std::shared_ptr<const PREVIEW_S> m_pPicture;
};

/* Whether the bytes begin and end as a JPEG picture does (ITU-T T.81, B.2.1). */
Bool IsWholeJpeg(const std::string &i_strBytes);

/* A picture of 640 by 360 that says the title and, beneath it, the sentence; printable ASCII, what
 * is not is shown as '?'. */
std::string DrawWords(const std::string &i_strTitle, const std::string &i_strSentence);
