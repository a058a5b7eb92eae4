// bench_context.h - the driver's records as tests look at them. A test that finds none cannot go on.
#pragma once

#include <stdexcept>

#include "driver/driver.h"
#include "emu/app/machine.h"

inline PDEVICE_OBJECT FilterOf(const EmuKeyboard* pKeyboard)
{
    if (pKeyboard->Filter() == nullptr) {
        throw std::logic_error("the driver has not taken this keyboard");
    }
    return pKeyboard->Filter();
}

inline DeviceContext* ContextOf(const EmuKeyboard* pKeyboard)
{
    return FilterContextOf(FilterOf(pKeyboard));
}

inline ControlContext* Control()
{
    if (Globals.pControlDevice == nullptr) {
        throw std::logic_error("there is no control device");
    }
    return ControlContextOf(Globals.pControlDevice);
}
