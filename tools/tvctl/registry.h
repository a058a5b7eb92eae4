// registry.h - the driver's settings as they lie in the registry of this system.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The registry's own numbers.
enum RegistryType : uint32_t { TypeText = 1, TypeBinary = 3, TypeNumber = 4 };

struct RegistryValue {
    std::string name;
    uint32_t ulType;
    std::vector<uint8_t> data; // text is UTF-16 with its end
};

struct DriverRegistry {
    bool bThere = false;     // this system has a registry at all
    bool bInstalled = false; // the driver's service is in it
    bool bReadable = false;  // its parameters could be read, or there are none
    std::vector<RegistryValue> values;
};

DriverRegistry ReadDriverRegistry();
