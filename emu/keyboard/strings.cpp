// String descriptors: what the keyboards say of themselves, in three languages.
//
// Maker and product in English come from the keyboard's own tables; the other strings are the same for all.
// A string that is asked for in a language that it does not have stalls, as does a number that there is not.
#include "device.h"

enum : USHORT { EveryLanguage = 0, German = 0x0407, English = 0x0409, French = 0x040C };

static const UCHAR ucLanguages[] = {8, USB_STRING_DESCRIPTOR_TYPE, 0x09, 0x04, 0x07, 0x04, 0x0C, 0x04};

struct StringRow {
    UCHAR ucIndex;
    USHORT usLanguage;
    const WCHAR* pText;
    UCHAR ucLength; // bLength; 0 = as long as the text, above that filled up with the text's beginning
};

static const StringRow Strings[] = {
    {2, German, L"Nachgebildete Tastatur", 0},
    {2, French, L"Clavier \u00E9mul\u00E9", 0},
    {3, EveryLanguage, L"0001", 0}, // serial number
    {4, EveryLanguage, L"", 0},     // nothing but the descriptor's head
    {5, EveryLanguage, L"The longest string that a length byte can tell. ", 254},
    {6, EveryLanguage, L"A length byte that no whole number of letters has. ", 255},
};

static const StringRow* FindString(UCHAR ucIndex, USHORT usLanguage)
{
    for (const StringRow& row : Strings) {
        if (row.ucIndex == ucIndex && (row.usLanguage == EveryLanguage || row.usLanguage == usLanguage)) {
            return &row;
        }
    }
    return nullptr;
}

static bool IsLanguage(USHORT usLanguage)
{
    return usLanguage == English || usLanguage == German || usLanguage == French;
}

// Builds the descriptor of a text. IRQL any.
static NTSTATUS AnswerText(const WCHAR* pText, UCHAR ucLength, PUCHAR pBuffer, PULONG pulLength)
{
    UCHAR ucString[255] = {0, USB_STRING_DESCRIPTOR_TYPE};
    ULONG ulRoom = ucLength != 0 ? ucLength : 254;
    ULONG ulBytes = 2;
    for (const WCHAR* pNext = pText; ulBytes < ulRoom; pNext++) {
        if (!*pNext) {
            if (ucLength == 0) {
                break;
            }
            pNext = pText;
        }
        ucString[ulBytes++] = (UCHAR)*pNext;
        if (ulBytes < ulRoom) {
            ucString[ulBytes++] = (UCHAR)(*pNext >> 8);
        }
    }
    ucString[0] = (UCHAR)ulBytes;
    return Answer(ucString, ulBytes, pBuffer, pulLength);
}

NTSTATUS AnswerString(const EmuDescriptors* pDescriptors, UCHAR ucIndex, USHORT usLanguage, PUCHAR pBuffer,
                      PULONG pulLength)
{
    if (ucIndex == 0) {
        return Answer(ucLanguages, sizeof ucLanguages, pBuffer, pulLength);
    }
    if (!IsLanguage(usLanguage)) {
        return Stall(pulLength);
    }
    if (ucIndex == 1) {
        return AnswerText(pDescriptors->pMaker, 0, pBuffer, pulLength);
    }
    if (ucIndex == 2 && usLanguage == English) {
        return AnswerText(pDescriptors->pProduct, 0, pBuffer, pulLength);
    }
    const StringRow* pRow = FindString(ucIndex, usLanguage);
    return pRow ? AnswerText(pRow->pText, pRow->ucLength, pBuffer, pulLength) : Stall(pulLength);
}
