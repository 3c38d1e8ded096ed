// plat_file_append.cpp: a file that is kept open between the pieces that are appended to it, and in nobody's way
// meanwhile.
//
// A handle points to an object that is not changed until it is closed: the open file, the path as this system takes
// it, and the identity of what was opened.
#include "plat_posix_file.h"

#include <fcntl.h>
#include <memory>
#include <new>

namespace
{
struct PosixAppendFile
{
    explicit PosixAppendFile(PlatHandle a_plathandle) : plathandleFile(a_plathandle) {}

    PlatHandle plathandleFile;
    PosixFileIdentity posixfileidentity = {};
    std::string strPath;
};
}   // namespace

PlatHandle PlatAppendOpen(const char16_t* a_wszPath)
{
    const PlatHandle plathandleFile =
        PlatFileOpen(a_wszPath, PLAT_ACCESS_READ | PLAT_ACCESS_WRITE,
                     PLAT_SHARE_READ | PLAT_SHARE_WRITE | PLAT_SHARE_DELETE, PLAT_DISPOSITION_OPENALWAYS, 0);
    if (plathandleFile == PLAT_INVALID)
        return PLAT_INVALID;

    // The locks let the open fail where it must; from then on they would only stand in the way.
    const int iDescriptor = PosixDescriptorOf(plathandleFile);
    PosixShareDrop(iDescriptor);

    // An append that is asked for once costs less than one that is asked for with each piece.
    fcntl(iDescriptor, F_SETFL, O_NONBLOCK | O_APPEND);
    try
    {
        auto uniqueAppendFile = std::make_unique<PosixAppendFile>(plathandleFile);
        const bool blKnown = PosixPath(a_wszPath, uniqueAppendFile->strPath) &&
                             PosixIdentityOf(iDescriptor, "", uniqueAppendFile->posixfileidentity);
        if (blKnown)
            return PosixMakeHandle(PosixKind::AppendFile, uniqueAppendFile.release());
    }
    catch (const std::bad_alloc&)
    {
    }
    PlatClose(plathandleFile);
    PosixFail(PLAT_ERROR_NOMEMORY);
    return PLAT_INVALID;
}

static const PosixAppendFile* AppendFileOf(PlatHandle a_plathandle)
{
    if (PosixKindOf(a_plathandle) == PosixKind::AppendFile)
        return PosixObjectOf<PosixAppendFile>(a_plathandle);
    PosixFail(PLAT_ERROR_INVALIDHANDLE);
    return nullptr;
}

// The number of an open file is not given to another one, so the same number is the same file.
bool PlatAppendIsCurrent(PlatHandle a_plathandle)
{
    const PosixAppendFile* pposixappendfile = AppendFileOf(a_plathandle);
    PosixFileIdentity posixfileidentity;
    return pposixappendfile && PosixIdentityOf(AT_FDCWD, pposixappendfile->strPath.c_str(), posixfileidentity) &&
           posixfileidentity == pposixappendfile->posixfileidentity &&
           PosixShareAdmitsAll(PosixDescriptorOf(pposixappendfile->plathandleFile));
}

bool PlatAppendWrite(PlatHandle a_plathandle, const void* a_pvBuffer, size_t a_sizetBytes, size_t* a_psizetWritten)
{
    const PosixAppendFile* pposixappendfile = AppendFileOf(a_plathandle);
    if (pposixappendfile)
    {
        return PosixWriteAppending(PosixDescriptorOf(pposixappendfile->plathandleFile), a_pvBuffer, a_sizetBytes,
                                   a_psizetWritten);
    }
    if (a_psizetWritten)
        *a_psizetWritten = 0;
    return false;
}

bool PlatAppendFlush(PlatHandle a_plathandle)
{
    const PosixAppendFile* pposixappendfile = AppendFileOf(a_plathandle);
    return pposixappendfile && PlatFileFlush(pposixappendfile->plathandleFile);
}

bool PosixCloseAppend(PlatHandle a_plathandle)
{
    const std::unique_ptr<PosixAppendFile> uniqueAppendFile(PosixObjectOf<PosixAppendFile>(a_plathandle));
    return PlatClose(uniqueAppendFile->plathandleFile);
}
