// guids.cpp - the platform's Plug and Play GUIDs, which its headers only declare, made once for the driver.
#include <guiddef.h>

#define INITGUID
#include <kernel.h>
