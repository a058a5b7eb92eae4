// devices.h - what a capture tells of each device in it: descriptors, strings, endpoints that deliver reports.
#pragma once

#include "configuration.h"
#include "packet.h"

#include <map>
#include <string>
#include <utility>

using DeviceKey = std::pair<uint16_t, uint16_t>; // bus, address

struct ReportEndpoint {
    unsigned uFirstReport = 0;
    size_t cFirstReport = 0;  // its bytes
    unsigned uCutReport = 0;  // packet of the first one that a snap length cut
    uint32_t ulReadBytes = 0; // what the stack asked for, or the longest report
    uint32_t ulLongest = 0;   // report
};

struct Device {
    size_t cOrder = 0; // in which the devices are first seen
    bool bHub = false;
    bool bCut = false; // a snap length cut one of its descriptors
    uint16_t usVendor = 0, usProduct = 0;
    uint8_t ucProductString = 0;
    std::map<uint8_t, std::string> strings;
    std::map<uint8_t, Bytes> configurations; // by index, the whole ones
    std::map<uint8_t, InterfaceEndpoint> endpoints;
    std::map<uint8_t, ReportEndpoint> reporting;
};

using Devices = std::map<DeviceKey, Device>;

constexpr uint8_t DescriptorDevice = 1, DescriptorConfiguration = 2, DescriptorString = 3;

DeviceKey KeyOf(const Packet& packet);

// True for what an interrupt-IN endpoint delivered.
bool IsReport(const Packet& packet);

// True for the setup packet that asks the device for that descriptor.
bool IsGetDescriptor(const std::array<uint8_t, 8>& setup, uint8_t ucType);

// Learns from one packet.
void Survey(const Packet& packet, Devices& devices);
