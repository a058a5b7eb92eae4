// The smallest application: tells the driver's version and its keyboards, and ends with 0 when there is one.
#include <stdio.h>
#ifdef _WIN32
#include <windows.h> // whose macros must not be in the way
#endif

#include <client/client.h>

int main()
{
    tvusb::Driver driver;
    tvusb::Status status = driver.Open();
    if (!status.Ok()) {
        printf("%s\n", status.Text().c_str());
        return 1;
    }
    auto version = driver.GetVersion();
    auto keyboards = driver.GetKeyboards();
    for (const KeyboardInfo& info : *keyboards) {
        printf("%X: %s\n", *version, tvusb::ToUtf8(tvusb::TextOf(info.Description)).c_str());
    }
    return keyboards->empty() ? 1 : 0;
}
