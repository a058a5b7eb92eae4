// kbdtype.h - what kind of keyboard the driver takes one for. No request tells it, so its own record is asked.
#pragma once

#include <kernel.h>

// Of a filter device: 0 not known yet, 1 normal, 2 power, 3 Jaalaa, 4 Chic, 5 other.
unsigned KbdTypeOf(PDEVICE_OBJECT pFilter);
