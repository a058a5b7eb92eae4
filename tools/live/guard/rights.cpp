// rights.cpp - users and capabilities.
#include "rights.h"

#include "tools/common/failure.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

UserIds FindUser(const std::string& name)
{
    char* pEnd = nullptr;
    const unsigned long ulNumber = strtoul(name.c_str(), &pEnd, 10);
    const bool bNumber = !name.empty() && *pEnd == 0;
    const passwd* pEntry = bNumber ? getpwuid(static_cast<uid_t>(ulNumber)) : getpwnam(name.c_str());
    if (!pEntry)
        throw InputError("--user: there is no user '" + name + "'");
    return {pEntry->pw_uid, pEntry->pw_gid};
}

void BecomeUser(const UserIds& user)
{
    if (setgroups(0, nullptr) != 0 || setresgid(user.uGroup, user.uGroup, user.uGroup) != 0 ||
        setresuid(user.uUser, user.uUser, user.uUser) != 0)
        throw std::runtime_error(std::string("--user: ") + strerror(errno));
}

void DropRights(bool bMayEnd)
{
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    __user_cap_header_struct head = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct rights[2] = {};
    if (bMayEnd)
        rights[0].effective = rights[0].permitted = 1u << CAP_KILL;
    if (syscall(SYS_capset, &head, rights) != 0 &&
        bMayEnd) { // who never had that right gives up all the same
        rights[0] = {};
        syscall(SYS_capset, &head, rights);
    }
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
}
