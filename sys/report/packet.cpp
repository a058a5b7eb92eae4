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

#include "hotkeys/bufferfields.h"
#include "hotkeys/hotkeys.h"
#include "log/events.h"
#include "log/log.h"
#include "report/fields.h"
#include "report/report.h"

// Every byte is 0x01, the modifier byte too: stricter than what the road of a read holds back (usb/intercept.cpp).
// IRQL any.
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

namespace
{
// A Jaalaa report is told by its ID; ucHandled stays 0 for an ID that nobody knows.
NTSTATUS DiagJaalaaReport(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf, PUCHAR pucHandled)
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
NTSTATUS DiagChicReport(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf, PUCHAR pucHandled)
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

bool HasReportIds(const DeviceContext* pContext)
{
    const ULONG ulKbdType = ReadShared(FieldsOf<FrameFields>(pContext).KbdType);
    return ulKbdType == JaalaaEXTENDEDKbdType || ulKbdType == ChicEXTENDEDKbdType;
}

NTSTATUS DiagByLength(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    switch (ulLen) {
    case 8:
        if (IsAllRollover(ulLen, pBuf)) {
            Trace(Rollover, IndexOf(device), {pBuf, ulLen});
            return STATUS_UNSUCCESSFUL;
        }
        return FieldsOf<ReportFields>(device).ucRunDiagNormalPacket02
                   ? DiagNormalPacket02(device, ulLen, pBuf)
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
void PlaceQueuedKeys(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
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
NOINLINE NTSTATUS DiagMeaningfulPacket(PDEVICE_OBJECT device, ULONG ulLen, PUCHAR pBuf)
{
    IRQL_AT_MOST(DISPATCH_LEVEL);
    if (ulLen == 0 || pBuf == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    FrameFields& frame = FieldsOf<FrameFields>(device);
    BufferFields& buffers = FieldsOf<BufferFields>(device);
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    UCHAR ucHandled = 1;
    switch (ReadShared(frame.KbdType)) {
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
    if (ReadShared(buffers.usInsertCount) != 0 && (ulLen == 8 || ulLen == 3)) {
        PlaceQueuedKeys(device, ulLen, pBuf);
    }
    LogHexDump("(DiagUSBPacket) leaving with packet: ", ulLen, pBuf);
    if (ulLen == 8) {
        UpdateModifierFlags(device, pBuf, 8, 0);
    }
    return status;
}
} // namespace

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
