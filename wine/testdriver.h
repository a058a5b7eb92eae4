// testdriver.h - what drivers of this world have in common: the device that a test's program opens and talks to.
// Usable in a program and in a .sys alike.
#pragma once

#include <kernel.h>

enum : ULONG { TEST_CONTROL_TAG = 0x6C744376 };

// Makes \Device\<name> and its link \DosDevices\<name>; its extension is TEST_CONTROL_TAG alone.
// IRQL PASSIVE. Fails: with the status of the creation; nothing is left then.
NTSTATUS MakeTestControl(PDRIVER_OBJECT pDriver, const WCHAR* pszDevice, const WCHAR* pszLink);
bool IsTestControl(PDEVICE_OBJECT pDevice);

// One request of a scene, buffered: its input lies where its output goes. `*pulOutput` is the output's room on entry
// and its length on return; nothing is given back after a failure. IRQL PASSIVE.
typedef NTSTATUS TestRequest(ULONG ulCode, PVOID pBuffer, ULONG ulInput, PULONG pulOutput);
// Hands the request to the routine and completes it.
NTSTATUS AnswerTestRequest(PIRP pIrp, TestRequest* pRoutine);
// Completes a request with success: opening and closing.
NTSTATUS SucceedTestRequest(PIRP pIrp);
