// The keyboard's memory, which an application reads and writes in three ways, and how large it is.
//
//     way          reads                                writes
//     EEPROM       GET_REPORT 3 of interface 1,         SET_REPORT 3 of interface 1,
//                  low address byte in wIndex           address before the data
//     descriptor   GET_DESCRIPTOR 1, index 0xFD,        SET_DESCRIPTOR 1, index 0xFD,
//                  address in wIndex                    address before the data
//     vendor       request 1, address in wIndex         request 9, address in wIndex
//
// Each way has a memory of its own, so that a request that took a wrong one is seen. The EEPROM's size stands
// in the report descriptor of interface 1. The keyboard's lock guards the memory.
#include "device.h"

enum : ULONG { EepromUnitAt = 71, EepromCountAt = 73 };

// Interface 1's report descriptor: power keys, consumer keys, and the EEPROM as an output report, whose size
// and count the memory tells.
static const UCHAR ucInterface1Report[77] = {
    0x05, 0x01, 0x09, 0x80, 0xA1, 0x01, 0x85, 0x01,       // system control application, power report
    0x19, 0x81, 0x29, 0x83, 0x15, 0x00, 0x25, 0x01,       // three bits
    0x75, 0x01, 0x95, 0x03, 0x81, 0x02,                   //
    0x75, 0x05, 0x95, 0x01, 0x81, 0x01, 0xC0,             // padding to the byte
    0x05, 0x0C, 0x09, 0x01, 0xA1, 0x01, 0x85, 0x02,       // consumer application
    0x15, 0x00, 0x26, 0x3C, 0x02, 0x19, 0x00,             // one key of 572
    0x2A, 0x3C, 0x02, 0x75, 0x10, 0x95, 0x01, 0x81, 0x00, //
    0xC0,                                                 //
    0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01, 0x85, 0x03, // vendor application, EEPROM report
    0x15, 0x00, 0x26, 0xFF, 0x00, 0x09, 0x01,             //
    0x75, 0x08, 0x95, 0x00, 0x91, 0x02, 0xC0,             // the count is filled in
};

VOID EmuClearMemory(EmuMemory* pMemory)
{
    pMemory->ucEepromUnit = 8;
    pMemory->ucEepromCount = 64;
    RtlFillMemory(pMemory->ucEeprom, sizeof pMemory->ucEeprom, 0xFF);
    RtlFillMemory(pMemory->ucByDescriptor, sizeof pMemory->ucByDescriptor, 0xFF);
    RtlFillMemory(pMemory->ucByVendor, sizeof pMemory->ucByVendor, 0xFF);
}

enum MemoryWay { ByReport, ByDescriptor, ByVendor };
enum MemoryAddress { AddressInIndex, AddressInIndexHigh, AddressBeforeData };

struct MemoryRow {
    UCHAR ucType, ucRequest;
    USHORT usValue;
    USHORT usIndexMask, usIndex; // what wIndex must hold besides an address
    MemoryAddress Address;
    MemoryWay Way;
};

static const MemoryRow Rows[] = {
    {0xA1, 1, 0x0203, 0x00FF, 1, AddressInIndexHigh, ByReport},
    {0x21, 9, 0x0203, 0xFFFF, 1, AddressBeforeData, ByReport},
    {0x80, 6, 0x01FD, 0, 0, AddressInIndex, ByDescriptor},
    {0x00, 7, 0x01FD, 0xFFFF, 0, AddressBeforeData, ByDescriptor},
    {0xC0, 1, 0x0200, 0, 0, AddressInIndex, ByVendor},
    {0x40, 9, 0x0200, 0, 0, AddressInIndex, ByVendor},
};

static const MemoryRow* FindRow(const UCHAR* pSetup)
{
    auto usValue = (USHORT)(pSetup[2] | pSetup[3] << 8);
    auto usIndex = (USHORT)(pSetup[4] | pSetup[5] << 8);
    for (const MemoryRow& row : Rows) {
        if (row.ucType == pSetup[0] && row.ucRequest == pSetup[1] && row.usValue == usValue &&
            row.usIndex == (usIndex & row.usIndexMask)) {
            return &row;
        }
    }
    return nullptr;
}

// The memory of a way and its size in bytes. IRQL any.
static PUCHAR MemoryOf(EmuMemory* pMemory, MemoryWay Way, PULONG pulBytes)
{
    *pulBytes = EmuMemoryBytes;
    switch (Way) {
    case ByDescriptor:
        return pMemory->ucByDescriptor;
    case ByVendor:
        return pMemory->ucByVendor;
    default:
        *pulBytes = (ULONG)(pMemory->ucEepromUnit * pMemory->ucEepromCount / 8);
        if (*pulBytes > EmuEepromBytes) {
            *pulBytes = EmuEepromBytes;
        }
        return pMemory->ucEeprom;
    }
}

// Moves bytes between the memory and the buffer, cut at the memory's end when reading. A write without its
// address, or beyond the end, stalls and writes nothing. IRQL DISPATCH. Lock: Lock held.
static NTSTATUS Move(EmuMemory* pMemory, const MemoryRow& row, const UCHAR* pSetup, PUCHAR pBuffer,
                     PULONG pulLength)
{
    ULONG ulBytes;
    PUCHAR pBytes = MemoryOf(pMemory, row.Way, &ulBytes);
    ULONG ulAddress = row.Address == AddressInIndexHigh ? pSetup[5] : (ULONG)(pSetup[4] | pSetup[5] << 8);
    ULONG ulHead = 0;
    if (row.Address == AddressBeforeData) {
        ulHead = 2;
        if (*pulLength < ulHead) {
            return Stall(pulLength);
        }
        ulAddress = (ULONG)(pBuffer[0] | pBuffer[1] << 8);
    }
    if (ulAddress > ulBytes) {
        return Stall(pulLength);
    }
    if (pSetup[0] & 0x80) {
        return Answer(pBytes + ulAddress, ulBytes - ulAddress, pBuffer, pulLength);
    }
    if (*pulLength - ulHead > ulBytes - ulAddress) {
        return Stall(pulLength);
    }
    if (*pulLength != ulHead) {
        RtlCopyMemory(pBytes + ulAddress, pBuffer + ulHead, *pulLength - ulHead);
    }
    return STATUS_SUCCESS;
}

// Interface 1's report descriptor, with the EEPROM's size in it. IRQL DISPATCH. Lock: Lock held.
static NTSTATUS AnswerReportDescriptor(const EmuMemory* pMemory, PUCHAR pBuffer, PULONG pulLength)
{
    UCHAR ucReport[sizeof ucInterface1Report];
    RtlCopyMemory(ucReport, ucInterface1Report, sizeof ucReport);
    ucReport[EepromUnitAt] = pMemory->ucEepromUnit;
    ucReport[EepromCountAt] = pMemory->ucEepromCount;
    return Answer(ucReport, sizeof ucReport, pBuffer, pulLength);
}

NTSTATUS AnswerMemory(KeyboardDevice* pKeyboard, const UCHAR* pSetup, PUCHAR pBuffer, PULONG pulLength)
{
    static const UCHAR ucGetReportDescriptor[6] = {0x81, 6, 0, 0x22, 1, 0};
    EmuMemory* pMemory = pKeyboard->Options.pMemory;
    const MemoryRow* pRow = FindRow(pSetup);
    bool bReportDescriptor = RtlEqualMemory(pSetup, ucGetReportDescriptor, sizeof ucGetReportDescriptor);
    if (!pRow && !bReportDescriptor) {
        return STATUS_NOT_SUPPORTED;
    }
    if (!pMemory) {
        return Stall(pulLength);
    }
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pKeyboard->Lock);
    NTSTATUS status = pRow ? Move(pMemory, *pRow, pSetup, pBuffer, pulLength)
                           : AnswerReportDescriptor(pMemory, pBuffer, pulLength);
    KeReleaseSpinLock(&pKeyboard->Lock, irql);
    return status;
}
