/*
 * Loading the parameter file, beside a bare tinyxml2 parse of the same file.
 *
 * The argument is the number of PARAM elements. In the large file the known parameters stand last
 * and every other name is unknown, so that nothing ends the search early.
 */
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

#include "common/box/param_table.h"

namespace
{
class CParamFile
{
public:
    explicit CParamFile(std::size_t i_u64Elements)
    {
        int s32File = mkstemp(m_szPath);
        if (s32File < 0) {
            abort();
        }
        close(s32File);
        std::ofstream objFile(m_szPath);
        objFile << "<CONFIGURATION>\n    <CHANNEL_1>\n";
        for (std::size_t i = PARAM_COUNT; i < i_u64Elements; i++) {
            Write(objFile, "unknown_parameter_" + std::to_string(i), "12345");
        }
        for (const PARAM_S &stRow : g_aParams) {
            Write(objFile, stRow.name, stRow.default_value[0] != '\0' ? stRow.default_value : "x");
        }
        objFile << "    </CHANNEL_1>\n</CONFIGURATION>\n";
    }
    ~CParamFile() { unlink(m_szPath); }
    CParamFile(const CParamFile &) = delete;
    CParamFile &operator=(const CParamFile &) = delete;

    const char *Path() const { return m_szPath; }

private:
    static void Write(std::ofstream &o_objFile, const std::string &i_strName,
                      const std::string &i_strValue)
    {
        o_objFile << "        <PARAM NAME=\"" << i_strName << "\" TYPE=\"string\">" << i_strValue
                  << "</PARAM>\n";
    }

    char m_szPath[32] = "/tmp/param-bench-XXXXXX";
};

void LoadParameters(benchmark::State &io_objState)
{
    CParamFile objFile(static_cast<std::size_t>(io_objState.range(0)));
    for (auto _ : io_objState) {
        RQ_XMLParser objParser(objFile.Path());
        if (objParser.Parse() != 0 || objParser.LoadError()[0] != '\0') {
            io_objState.SkipWithError("the file was not loaded");
            break;
        }
        ReadTheXML(objParser, false);
        benchmark::ClobberMemory();
    }
}

void BareParse(benchmark::State &io_objState)
{
    CParamFile objFile(static_cast<std::size_t>(io_objState.range(0)));
    for (auto _ : io_objState) {
        tinyxml2::XMLDocument objDoc(true, tinyxml2::PRESERVE_WHITESPACE);
        if (objDoc.LoadFile(objFile.Path()) != tinyxml2::XML_SUCCESS) {
            io_objState.SkipWithError("the file was not parsed");
            break;
        }
        benchmark::ClobberMemory();
    }
}

BENCHMARK(LoadParameters)->Name("param/load/ours")->Arg(37);
BENCHMARK(BareParse)->Name("param/load/tinyxml2")->Arg(37);
BENCHMARK(LoadParameters)->Name("param/load/ours")->Arg(10000);
BENCHMARK(BareParse)->Name("param/load/tinyxml2")->Arg(10000);
} // namespace

BENCHMARK_MAIN();
