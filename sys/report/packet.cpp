// packet.cpp - the entry of the report engine: which handler does a report belong to?
//
//   DiagUSBPacket ── 8 bytes that mean nothing to anybody ── calm.h, and that is all
//        └─ DiagMeaningfulPacket ── Jaalaa, Chic ── by report ID ── extended.cpp
//              │                 └─ any other ───── by length ───── normal.cpp, normal02.cpp, extended.cpp
//              ├─ place queued keys into the report's key positions
//              └─ let the modifier word follow the rewritten report
//
// In: a completed report of one keyboard. Out: the report as the system shall see it.
#include "report/calm.h"
#include "report/report.h"

#include "hotkeys/hotkeys.h"
#include "log/events.h"
#include "log/log.h"

// Every byte is 0x01, the modifier byte too: stricter than what the road of a read holds back (usb/intercept.cpp).
bool IsAllRollover(ULONG ulLen, const UCHAR* pBuf)
{
    if (ulLen != 8) {
        return false;
    }
    for (ULONG i = 0; i < ulLen; i++) {
        if (pBuf[i] != 0x01) {
            return false;
        }
    }
    return true;
}

// A Jaalaa report is told by its ID; ucHandled stays 0 for an ID that nobody knows.
static NTSTATUS DiagJaalaaReport(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf, PUCHAR pucHandled)
{
    LogPrintf(LOG_TRAFFIC, 1, "(DiagUSBPacket) JaalaaEXTENDEDKbdType, ReportId=0x%02X", pBuf[0]);
    *pucHandled = 1;
    switch (pBuf[0]) {
    case 2:
        return DiagJaalaaPacket(device, ulLen - 1, pBuf + 1);
    case 1:
        return DiagJaalaaPacketPower(device, ulLen, pBuf);
    default:
        *pucHandled = 0;
        return STATUS_UNSUCCESSFUL;
    }
}

// A Chic key report has three key bytes: they are analysed as a Jaalaa key area whose fourth byte is empty.
static NTSTATUS DiagChicReport(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf, PUCHAR pucHandled)
{
    LogPrintf(LOG_TRAFFIC, 1, "(DiagUSBPacket) ChicEXTENDEDKbdType, ReportId=0x%02X", pBuf[0]);
    *pucHandled = 1;
    if (pBuf[0] == 3 && ulLen >= 4) {
        UCHAR ucWork[5] = {pBuf[0], pBuf[1], pBuf[2], pBuf[3], 0};
        NTSTATUS status = DiagJaalaaPacket(device, 4, ucWork + 1);
        RtlCopyMemory(pBuf, ucWork, 4);
        return status;
    }
    if (pBuf[0] == 2) {
        return DiagJaalaaPacketPower(device, ulLen, pBuf);
    }
    *pucHandled = 0;
    return STATUS_UNSUCCESSFUL;
}

static bool HasReportIds(const DeviceContext* pContext)
{
    const ULONG ulKbdType = ReadShared(pContext->KbdType);
    return ulKbdType == JaalaaEXTENDEDKbdType || ulKbdType == ChicEXTENDEDKbdType;
}

static NTSTATUS DiagByLength(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    switch (ulLen) {
    case 8:
        if (IsAllRollover(ulLen, pBuf)) {
            Trace(Rollover, IndexOf(device), {pBuf, ulLen});
            return STATUS_UNSUCCESSFUL;
        }
        return FilterContextOf(device)->ucRunDiagNormalPacket02 ? DiagNormalPacket02(device, ulLen, pBuf)
                                                                : DiagNormalPacket(device, ulLen, pBuf);
    case 3:
        return DiagNormalPacket(device, ulLen, pBuf);
    case 2:
        return DiagPowerPacket(device, ulLen, pBuf);
    default:
        return STATUS_UNSUCCESSFUL;
    }
}

// The keys the keyboard reports now queue behind the keys already waiting; the oldest take their places.
static void PlaceQueuedKeys(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    for (ULONG i = FirstKeyPosition(ulLen); i < ulLen && pBuf[i] != 0; i++) {
        (void)AddDataToInsertBuffer(device, &pBuf[i]); // a full buffer loses the key
        pBuf[i] = 0;
    }
    for (ULONG i = FirstKeyPosition(ulLen); i < ulLen; i++) {
        if (!GetDataFromInsertBuffer(device, &pBuf[i])) {
            break;
        }
    }
}

// The long way of a report. An extended report with an unknown ID leaves everything untouched; a report without a
// handler still gets queued keys and feeds the modifier word.
// Fails: no handler, or an empty report.
static NOINLINE NTSTATUS DiagMeaningfulPacket(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    if (ulLen == 0 || pBuf == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    DeviceContext* pContext = FilterContextOf(device);
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    UCHAR ucHandled = 1;
    switch (ReadShared(pContext->KbdType)) {
    case JaalaaEXTENDEDKbdType:
        status = DiagJaalaaReport(device, ulLen, pBuf, &ucHandled);
        break;
    case ChicEXTENDEDKbdType:
        status = DiagChicReport(device, ulLen, pBuf, &ucHandled);
        break;
    default:
        status = DiagByLength(device, ulLen, pBuf);
        break;
    }
    if (!ucHandled) {
        return status;
    }
    if (ReadShared(pContext->usInsertCount) != 0 && (ulLen == 8 || ulLen == 3)) {
        PlaceQueuedKeys(device, ulLen, pBuf);
    }
    LogHexDump("(DiagUSBPacket) leaving with packet: ", ulLen, pBuf);
    if (ulLen == 8) {
        UpdateModifierFlags(device, pBuf, 8, 0);
    }
    return status;
}

// Analyses one completed report and rewrites it in place.
// IRQL <= DISPATCH. Owns: nothing. Fails: no handler, or an empty report.
NTSTATUS DiagUSBPacket(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    DeviceContext* pContext = FilterContextOf(device);
    if (ulLen == 8 && pBuf != nullptr && !HasReportIds(pContext) && PassCalmReport(pContext, pBuf)) {
        return STATUS_SUCCESS;
    }
    return DiagMeaningfulPacket(device, ulLen, pBuf);
}

// IRQL = PASSIVE, nobody else knows the record yet.
void InitializeReports(DeviceContext* pContext)
{
    FieldsOf<ReportFields>(pContext).ucRunDiagNormalPacket02 = SettingsOfReports.ulRunDiagNormalPacket02 != 0;
}
