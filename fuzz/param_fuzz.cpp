/*
 * Parameter file of arbitrary bytes: every buffer ends up with a text of its row's capacity, the
 * file is left alone by a plain load, and what a load with write-back saved can be loaded again.
 */
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "common/box/param_table.h"
#include "framework/assertion.h"

namespace
{
/* A file in memory that has a path. */
class CFile
{
public:
    CFile() : m_s32Fd(memfd_create("param", MFD_CLOEXEC))
    {
        assert(m_s32Fd >= 0);
        m_strPath = "/proc/self/fd/" + std::to_string(m_s32Fd);
    }
    const char *Path() const { return m_strPath.c_str(); }
    void Write(const void *i_pData, std::size_t i_u64Size) const
    {
        const bool bDone = ftruncate(m_s32Fd, 0) == 0 && pwrite(m_s32Fd, i_pData, i_u64Size, 0) ==
                                                             static_cast<ssize_t>(i_u64Size);
        assert(bDone);
    }
    std::string Read() const
    {
        std::string strText(static_cast<std::size_t>(lseek(m_s32Fd, 0, SEEK_END)), '\0');
        const ssize_t s64Read = pread(m_s32Fd, strText.data(), strText.size(), 0);
        assert(s64Read == static_cast<ssize_t>(strText.size()));
        return strText;
    }

private:
    int m_s32Fd;
    std::string m_strPath;
};

void Load(const CFile &i_objFile, bool i_bWriteBack)
{
    for (const PARAM_S &stRow : g_aParams) {
        memset(stRow.buffer, 'x', stRow.capacity);
    }
    RQ_XMLParser objParser(i_objFile.Path());
    assert(objParser.Parse() == 0);
    ReadTheXML(objParser, i_bWriteBack);
    for (const PARAM_S &stRow : g_aParams) {
        const std::size_t u64Length = strnlen(stRow.buffer, stRow.capacity);
        assert(u64Length < stRow.capacity);
        assert(u64Length > 0 || *stRow.default_value == '\0');
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *i_pData, std::size_t i_u64Size)
{
    static const CFile s_objFile;
    s_objFile.Write(i_pData, i_u64Size);
    Load(s_objFile, false);
    assert(s_objFile.Read() == std::string(reinterpret_cast<const char *>(i_pData), i_u64Size));
    Load(s_objFile, true);
    Load(s_objFile, false);
    return 0;
}
