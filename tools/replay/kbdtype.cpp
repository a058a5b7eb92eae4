// kbdtype.cpp - looks into the record of a keyboard.
#include "kbdtype.h"

#include "driver/driver.h"

unsigned KbdTypeOf(PDEVICE_OBJECT pFilter)
{
    return ReadShared(FieldsOf<FrameFields>(pFilter).KbdType);
}
