// rights.h - gives up what a process may do and does not need.
#pragma once

#include <string>
#include <sys/types.h>

struct UserIds {
    uid_t uUser;
    gid_t uGroup;
};

// By name or number. Fails (InputError): there is no such user.
UserIds FindUser(const std::string& name);
// From here on this process is that user's. Fails (std::runtime_error).
void BecomeUser(const UserIds& user);
// No program that it starts gets more rights than it has, and it has none beyond its user's files; bMayEnd leaves the
// right to end another user's process. What may not be given up was not there.
void DropRights(bool bMayEnd);
