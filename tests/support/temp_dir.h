/*
 * A directory of the test's own, removed with everything in it, and whole files.
 */
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class CTempDir
{
public:
    CTempDir()
    {
        char szPath[] = "/tmp/mv3300-test-XXXXXX";
        m_strPath = mkdtemp(szPath);
    }
    ~CTempDir() { std::filesystem::remove_all(m_strPath); }
    CTempDir(const CTempDir &) = delete;
    CTempDir &operator=(const CTempDir &) = delete;

    std::string Path(const std::string &i_strName) const { return m_strPath + "/" + i_strName; }

private:
    std::string m_strPath;
};

inline void WriteFile(const std::string &i_strPath, const std::string &i_strText)
{
    std::ofstream(i_strPath, std::ios::binary | std::ios::trunc) << i_strText;
}

inline std::string ReadFile(const std::string &i_strPath)
{
    std::ifstream objFile(i_strPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(objFile), {}};
}

/* How many files or folders it holds: /proc/self/fd tells the open descriptors, for example. */
inline std::ptrdiff_t EntriesIn(const std::string &i_strFolder)
{
    return std::distance(std::filesystem::directory_iterator(i_strFolder), {});
}
