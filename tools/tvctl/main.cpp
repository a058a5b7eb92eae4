// main.cpp - tvctl at the driver of this system: on Windows the installed one, elsewhere that of the stand.
#include "tvctl.h"

int main(int argc, char** argv)
{
    return RunTvctl(argc, argv, [](const Options&) { return tvusb::SystemTransport(); });
}
