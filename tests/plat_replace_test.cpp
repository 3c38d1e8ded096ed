// plat_replace_test.cpp: complete files that take a name in one step.
#include "plat_file.h"
#include "plat_support.h"

namespace fs = std::filesystem;

class Replace : public FolderTest
{
protected:
    PlatHandle Open(const char* a_szName) const
    {
        return PlatFileOpen(Wide(PathOf(a_szName)).c_str(), PLAT_ACCESS_READ | PLAT_ACCESS_WRITE,
                            PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE, PLAT_DISPOSITION_OPENEXISTING, 0);
    }
    // The error, 0 for success.
    uint32_t Put(PlatHandle a_plathandle, const char* a_szName) const
    {
        return PlatFileReplace(a_plathandle, Wide(PathOf(a_szName)).c_str(), "new", 3) ? 0 : PlatGetLastError();
    }
};

TEST_F(Replace, TheNameIsOfTheNewFileAndTheHandleOfTheOldOne)
{
    WriteWhole(PathOf("file"), "old text");
    fs::create_symlink(PathOf("file"), PathOf("link"));
    const PlatHandle plathandle = Open("file");
    EXPECT_EQ(Put(plathandle, "link"), 0u);
    EXPECT_EQ(ReadWhole(PathOf("file")), "new");
    char achText[16] = "";
    size_t sizetRead = 0;
    EXPECT_TRUE(PlatFileRead(plathandle, achText, sizeof achText, &sizetRead));
    EXPECT_EQ(std::string(achText, sizetRead), "old text");
    EXPECT_EQ(Put(plathandle, "file"), PLAT_ERROR_FILENOTFOUND) << "it is another one now";
    EXPECT_EQ(Put(plathandle, "none"), PLAT_ERROR_FILENOTFOUND);
    EXPECT_EQ(ReadWhole(PathOf("file")), "new");
    PlatClose(plathandle);
}

TEST_F(Replace, AFileIsMadeWholeWhereThereIsNone)
{
    const std::u16string wstrPath = Wide(PathOf("file"));
    EXPECT_TRUE(PlatFileCreateWhole(wstrPath.c_str(), "new", 3));
    EXPECT_FALSE(PlatFileCreateWhole(wstrPath.c_str(), "other", 5));
    EXPECT_EQ(PlatGetLastError(), PLAT_ERROR_ALREADYEXISTS);
    EXPECT_EQ(ReadWhole(PathOf("file")), "new");
}
