// append_resources.cpp: gives a program file its resources.
//
//     append_resources PROGRAM NAME=@FILE|NAME=TEXT...
//
// What the program carried before is replaced, so that it may be run again. The bytes of the program stay as they are.
#include "os_cosresource_footer.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace fs = std::filesystem;

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);

static bool Refuse(const char* a_szName, const char* a_szReason)
{
    std::fprintf(stderr, "append_resources: %s: %s\n", a_szName, a_szReason);
    return false;
}

// The size that the program has without its resources, to which the file is cut.
static uint64_t RemoveFooter(const fs::path& a_pathProgram)
{
    const uint64_t u64Size = fs::file_size(a_pathProgram);
    OsResourceTrailer osresourcetrailer{};
    std::ifstream stream(a_pathProgram, std::ios::binary);
    stream.seekg(-static_cast<std::streamoff>(sizeof osresourcetrailer), std::ios::end);
    stream.read(reinterpret_cast<char*>(&osresourcetrailer), sizeof osresourcetrailer);
    if (!stream || !OsResourceIsSound(osresourcetrailer, u64Size))
        return u64Size;
    fs::resize_file(a_pathProgram, osresourcetrailer.u64Begin);
    return osresourcetrailer.u64Begin;
}

namespace
{
// What goes behind the program.
struct Footer
{
    uint64_t u64Begin;
    uint32_t u32Count = 0;
    std::string strData;
    std::string strTable;
};
}   // namespace

// Adds one NAME=VALUE.
static bool AddResource(const char* a_szArgument, Footer& a_footer)
{
    const char* const szEquals = std::strchr(a_szArgument, '=');
    const auto sizetName = static_cast<size_t>(szEquals ? szEquals - a_szArgument : 0);
    if (sizetName == 0 || sizetName >= OS_RESOURCENAMESIZE || a_footer.u32Count == OS_RESOURCECOUNT)
        return Refuse(a_szArgument, "bad name, or too many resources");

    std::string strValue = szEquals + 1;
    if (!strValue.empty() && strValue[0] == '@')
    {
        std::ifstream stream(strValue.substr(1), std::ios::binary);
        if (!stream)
            return Refuse(a_szArgument, "cannot be read");
        strValue.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    }

    OsResourceEntry osresourceentry{};
    std::memcpy(osresourceentry.szName, a_szArgument, sizetName);
    osresourceentry.u64Offset = a_footer.u64Begin + a_footer.strData.size();
    osresourceentry.u64Size = strValue.size();
    a_footer.strTable.append(reinterpret_cast<const char*>(&osresourceentry), sizeof osresourceentry);
    a_footer.strData += strValue;
    ++a_footer.u32Count;
    return true;
}

static bool Append(const fs::path& a_pathProgram, const Footer& a_footer)
{
    OsResourceTrailer osresourcetrailer{};
    osresourcetrailer.u64Begin = a_footer.u64Begin;
    osresourcetrailer.u64Table = a_footer.u64Begin + a_footer.strData.size();
    osresourcetrailer.u32Count = a_footer.u32Count;
    osresourcetrailer.u32Version = OS_RESOURCEVERSION;
    std::memcpy(osresourcetrailer.szMagic, OS_RESOURCEMAGIC, sizeof OS_RESOURCEMAGIC);

    std::ofstream stream(a_pathProgram, std::ios::binary | std::ios::app);
    stream << a_footer.strData << a_footer.strTable;
    stream.write(reinterpret_cast<const char*>(&osresourcetrailer), sizeof osresourcetrailer);
    stream.close();
    return !stream.fail() || Refuse(a_pathProgram.c_str(), "cannot be written");
}

static bool Run(const char* a_szProgram, int a_iResources, char* const* a_aszResource)
{
    Footer footer{RemoveFooter(a_szProgram), 0, {}, {}};
    for (int i = 0; i < a_iResources; ++i)
    {
        if (!AddResource(a_aszResource[i], footer))
            return false;
    }
    return Append(a_szProgram, footer);
}

int main(int a_iArguments, char** a_aszArgument)
try
{
    if (a_iArguments < 2)
        return Refuse("usage", "append_resources PROGRAM NAME=@FILE|NAME=TEXT...") ? 0 : 1;
    return Run(a_aszArgument[1], a_iArguments - 2, a_aszArgument + 2) ? 0 : 1;
}
catch (const std::exception& exception)
{
    Refuse("failed", exception.what());
    return 1;
}
