// sharing.cpp - who may open a file that another has open.
//
// Reading, writing and deleting are shared each by itself: what one uses, every other must have allowed, at the
// later open as at the earlier one. Who opens for attributes only is in nobody's way.
#include "file.h"

#include <algorithm>

struct Use {
    ACCESS_MASK Rights;
    ULONG ulShare;
};
static const Use USES[] = {
    {FILE_READ_DATA | FILE_EXECUTE, FILE_SHARE_READ},
    {FILE_WRITE_DATA | FILE_APPEND_DATA, FILE_SHARE_WRITE},
    {DELETE, FILE_SHARE_DELETE},
};

static bool IsUser(ACCESS_MASK rights)
{
    return std::any_of(std::begin(USES), std::end(USES),
                       [=](const Use& use) { return (rights & use.Rights) != 0; });
}

static bool IsAllowed(ACCESS_MASK rights, ULONG ulShare)
{
    return std::all_of(std::begin(USES), std::end(USES),
                       [=](const Use& use) { return !(rights & use.Rights) || (ulShare & use.ulShare); });
}

// Lock: held. Fails: the file is about to go, or somebody shares it less than this needs.
NTSTATUS HostCheckSharing(const struct stat& info, ACCESS_MASK rights, ULONG ulShare)
{
    for (const FileBody* p : g->OpenFiles) {
        if (p->Device != info.st_dev || p->Node != info.st_ino) {
            continue;
        }
        if (p->bDelete) {
            return STATUS_DELETE_PENDING;
        }
        if (IsUser(rights) && IsUser(p->Rights) &&
            !(IsAllowed(rights, p->ulShare) && IsAllowed(p->Rights, ulShare))) {
            return STATUS_SHARING_VIOLATION;
        }
    }
    return STATUS_SUCCESS;
}

bool HostIsFileOpen(const char* pPath)
{
    struct stat info;
    return stat(pPath, &info) == 0 &&
           std::any_of(g->OpenFiles.begin(), g->OpenFiles.end(),
                       [&](const FileBody* p) { return p->Device == info.st_dev && p->Node == info.st_ino; });
}
