// kbdtype.cpp - the class triple of the first interface decides the type of a keyboard.
#include "kbdtype.h"

#include <algorithm>

namespace
{

constexpr uint8_t DescriptorDevice = 1, DescriptorConfiguration = 2, DescriptorInterface = 4;
constexpr uint8_t ReportDescriptor = 0x22;
constexpr uint8_t GetDescriptor = 6, SetDescriptor = 7, GetInterface = 10;
constexpr uint16_t MakerVendor = 0x7A3C, ChicProduct = 0x0065;

struct TypeOfTriple {
    uint8_t triple[3]; // class, subclass, protocol
    unsigned uType;
};
const TypeOfTriple Types[] = {{{3, 1, 1}, 1}, {{3, 0, 0}, 2}};
const uint8_t ControllerTriple[3] = {3, 1, 2};

} // namespace

// The two controllers with reports of their own are known by a configuration only, and told apart by the
// device's numbers.
void KeyboardType::Decide(const uint8_t* pClassTriple, bool bWithControllers)
{
    auto is = [&](const uint8_t(&triple)[3]) { return std::equal(triple, triple + 3, pClassTriple); };
    m_uType = 5;
    for (const TypeOfTriple& known : Types)
        if (is(known.triple))
            m_uType = known.uType;
    if (bWithControllers && is(ControllerTriple))
        m_uType = m_usVendor == MakerVendor && m_usProduct == ChicProduct ? 4 : 3;
}

bool IsDescriptorRequest(const std::array<uint8_t, 8>& setup)
{
    return (setup[0] == 0x80 || setup[0] == 0x81) && setup[1] == GetDescriptor;
}

// Of the plain control transfers, those that get or set descriptors and interfaces are looked into, but for
// report descriptors.
void KeyboardType::Learn(const std::array<uint8_t, 8>& setup, const Bytes& data)
{
    bool bReportDescriptor = setup[2] == 0 && setup[3] == ReportDescriptor;
    bool bLooked = setup[1] == GetDescriptor || setup[1] == SetDescriptor || setup[1] == GetInterface;
    if (IsDescriptorRequest(setup) || (bLooked && !bReportDescriptor))
        LearnDescriptor(data);
}

void KeyboardType::LearnDescriptor(const Bytes& data)
{
    if (data.size() < 2)
        return;
    if (data[0] == 18 && data[1] == DescriptorDevice && data.size() >= 12) {
        m_usVendor = static_cast<uint16_t>(data[8] | data[9] << 8);
        m_usProduct = static_cast<uint16_t>(data[10] | data[11] << 8);
    }
    if (m_uType != 0)
        return;
    bool bConfiguration = data[0] == 9 && data[1] == DescriptorConfiguration && data.size() >= 17;
    if (bConfiguration && (data[2] | data[3] << 8) > 9 && data[9] == 9 && data[10] == DescriptorInterface)
        Decide(&data[14], true);
    else if (data[0] == 9 && data[1] == DescriptorInterface && data.size() >= 8)
        Decide(&data[5], false);
}
