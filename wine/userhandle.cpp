// userhandle.cpp - duplicates the handle out of the requesting process first. See userhandle.h.
#include "userhandle.h"

#include "modules.h"

namespace
{
typedef NTSTATUS(NTAPI OpenProcess)(PHANDLE phProcess, ACCESS_MASK access, POBJECT_ATTRIBUTES pAttributes,
                                    PVOID pClientId);
typedef NTSTATUS(NTAPI DuplicateObject)(HANDLE hFromProcess, HANDLE hFrom, HANDLE hToProcess, PHANDLE phTo,
                                        ACCESS_MASK access, ULONG ulAttributes, ULONG ulOptions);
enum : ACCESS_MASK { DuplicateAccess = 0x40 };

NTSTATUS OpenRequester(PHANDLE phProcess)
{
    // The current process is the sender's while a request is handled.
    static auto pOpen = reinterpret_cast<OpenProcess*>(FindExport(L"ntdll.dll", "NtOpenProcess"));
    struct {
        HANDLE hProcess, hThread;
    } id = {PsGetCurrentProcessId(), nullptr};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, 0, nullptr, nullptr);
    return pOpen(phProcess, DuplicateAccess, &attributes, &id);
}
} // namespace

NTSTATUS NTAPI OwnObReferenceObjectByHandle(HANDLE hObject, ACCESS_MASK access, POBJECT_TYPE pType,
                                            KPROCESSOR_MODE mode, PVOID* ppObject,
                                            POBJECT_HANDLE_INFORMATION pInformation)
{
    if (mode == KernelMode) {
        return ObReferenceObjectByHandle(hObject, access, pType, mode, ppObject, pInformation);
    }
    static auto pDuplicate =
        reinterpret_cast<DuplicateObject*>(FindExport(L"ntdll.dll", "NtDuplicateObject"));
    const HANDLE hSelf = reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1));
    HANDLE hProcess, hOwn;
    NTSTATUS status = OpenRequester(&hProcess);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = pDuplicate(hProcess, hObject, hSelf, &hOwn, access, 0, 0);
    if (NT_SUCCESS(status)) {
        status = ObReferenceObjectByHandle(hOwn, access, pType, KernelMode, ppObject, pInformation);
        ZwClose(hOwn);
    }
    ZwClose(hProcess);
    return status;
}
