// hotkey_listener.cpp - makes Ctrl+F1 a hotkey of the keyboard and tells when it goes down and up.
//
//     hotkey_listener [EVENTS [KEYBOARD]]
//
// Ends after so many events (4), or when none came for 10 seconds. Of several keyboards KEYBOARD is the index.
#include <stdio.h>
#include <stdlib.h>

#include "client/client.h"

static int Fail(const tvusb::Status& status)
{
    fprintf(stderr, "hotkey_listener: %s\n", status.Text().c_str());
    return 1;
}

// Tells of so many events.
static tvusb::Status Tell(const tvusb::NotifyListener& listener, unsigned long ulEvents)
{
    for (;;) {
        auto records = listener.Wait(10000);
        if (!records || records->empty()) {
            return records.Error();
        }
        for (const NotifyRecord& record : *records) {
            printf("hotkey %u %s\n", record.ulId, record.ulValue == 1 ? "down" : "up");
            if (--ulEvents == 0) {
                return tvusb::Status::Success;
            }
        }
    }
}

int main(int argc, char** argv)
{
    tvusb::Driver driver;
    tvusb::Status status = driver.Open();
    if (!status.Ok()) {
        return Fail(status);
    }
    auto keyboard = argc > 2 ? driver.FindByIndex(strtoul(argv[2], nullptr, 10)) : driver.FindOnly();
    if (!keyboard) {
        return Fail(keyboard.Error());
    }
    setvbuf(stdout, nullptr, _IONBF, 0); // each line when it is due, through a pipe too
    printf("keyboard %u\n", keyboard->Index());
    // F1 is scan code 3B. The system does not get to see it while Ctrl is held.
    status = keyboard->AddDefinition(tvusb::MakeHotkey(7, MODIFIER_ANY_CONTROL, {0x3B}, true));
    if (!status.Ok()) {
        return Fail(status);
    }
    auto listener = keyboard->Events().Listen();
    if (!listener) {
        return Fail(listener.Error());
    }
    status = keyboard->StartProcessing();
    if (!status.Ok()) {
        return Fail(status);
    }
    unsigned long ulEvents = argc > 1 ? strtoul(argv[1], nullptr, 10) : 4;
    status = Tell(*listener, ulEvents != 0 ? ulEvents : 1);
    return status == tvusb::Status::Success ? 0 : Fail(status);
}
