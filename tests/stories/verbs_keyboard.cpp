// verbs_keyboard.cpp - a story's keyboards and the system behind them: plugging, reports, LEDs, time.
#include "driver/context.h"
#include "driver/driver.h"
#include "player.h"

// setting NAME VALUE; the value "-" takes it away
void Player::Setting(const Words& words, const Parts&)
{
    if (m_Machine) {
        return ChangeSetting(words.at(1), words.at(2));
    }
    m_Options.Settings[words.at(1)] = Number32(words.at(2), 0);
}

void Player::StartMachine()
{
    m_Options.Entry = DriverEntry;
    m_Machine = std::make_unique<EmuMachine>(m_Options);
    ASSERT_EQ(STATUS_SUCCESS, m_Machine->LoadStatus());
}

// Plugs one interface of a keyboard in; report processing is switched on for it.
void Player::PlugInterface(const EmuDescriptors& descriptors, EmuPlugOptions options)
{
    m_Received.push_back(std::make_unique<std::deque<EmuBytes>>());
    options.OnReceived = [pQueue = m_Received.back().get()](const EmuReceived& received) {
        if (NT_SUCCESS(received.Status)) {
            pQueue->push_back(received.Bytes);
        }
    };
    m_Leds.push_back(std::make_unique<EmuBytes>());
    options.OnLed = [pLeds = m_Leds.back().get()](const EmuBytes& report) {
        pLeds->insert(pLeds->end(), report.begin(), report.end());
    };
    m_Current = m_Keyboards.size();
    m_Keyboards.push_back(m_Machine->Plug(descriptors, options));
    m_Kinds.push_back(&descriptors);
    m_Reads.push_back(options.Reads);
    ASSERT_EQ(STATUS_SUCCESS, Current().StartStatus());
    if (!m_Application) {
        m_Application = std::make_unique<EmuApplication>(m_b32);
        ASSERT_EQ(STATUS_SUCCESS, m_Application->OpenStatus());
        EXPECT_EQ(STATUS_SUCCESS, m_Application->RegisterMacroEvent());
    }
    EXPECT_EQ(STATUS_SUCCESS, m_Application->RegisterNotifyEvent(Index()));
    EXPECT_EQ(STATUS_SUCCESS, m_Application->StartReportProcessing(Index()));
}

// How a keyboard is plugged in: the words behind its kind.
static EmuPlugOptions HowPlugged(const Words& words)
{
    EmuPlugOptions options;
    options.UsedBuffers = true;
    for (size_t i = 2; i < words.size(); i++) {
        if (words[i] == "passive") {
            options.Passive = true;
        } else if (words[i].rfind("reads=", 0) == 0) {
            options.Reads = Number(words[i].substr(6), 10);
        } else {
            throw BadLine("a keyboard how? " + words[i]);
        }
    }
    return options;
}

// keyboard KIND [HOW…], or keyboard KIND+KIND: one keyboard with several interfaces, the first of which is meant
void Player::Keyboard(const Words& words, const Parts&)
{
    if (!m_Machine) {
        ASSERT_NO_FATAL_FAILURE(StartMachine());
    }
    auto interfaces = EmuMachine::FindInterfaces(words.at(1));
    if (interfaces.empty()) {
        throw BadLine("unknown keyboard: " + words[1]);
    }
    size_t first = m_Keyboards.size();
    for (const EmuDescriptors* pInterface : interfaces) {
        ASSERT_NO_FATAL_FAILURE(PlugInterface(*pInterface, HowPlugged(words)));
    }
    m_Current = first;
}

// replug
void Player::Replug(const Words&, const Parts&)
{
    ASSERT_FALSE(Current().Plugged());
    EmuPlugOptions options = HowPlugged({});
    options.Memory = Current().SharedMemory();
    PlugInterface(*m_Kinds.at(m_Current), options);
}

// on N
void Player::On(const Words& words, const Parts&)
{
    m_Current = Number(words.at(1), 10);
}

// report BYTES -> BYTES
void Player::Report(const Words& words, const Parts& parts)
{
    EXPECT_TRUE(Current().Report(Bytes(words, 1)));
    HostSettle();
    if (!parts.Right.empty()) { // otherwise it is kept by the keyboard: no read is there
        ExpectReceived(parts.Right);
    }
}

// answer -> BYTES
void Player::Answer(const Words&, const Parts& parts)
{
    ExpectReceived(parts.Right);
}

// led BYTE -> BYTE
void Player::Led(const Words& words, const Parts& parts)
{
    EXPECT_EQ(STATUS_SUCCESS, Current().SendLed(Bytes(words, 1).at(0), EmuHidRouteControl));
    std::vector<UCHAR> out;
    EXPECT_EQ(STATUS_SUCCESS,
              m_Application->RequestRecord(IOCTL_TVUSB_GET_LEDS, Index(), nullptr, 0, 2, &out));
    EXPECT_EQ(Text({out.at(0)}), Text(Bytes(parts.Right)));
}

// wait 250ms
void Player::Wait(const Words& words, const Parts&)
{
    HostAdvanceToUs(HostNowUs() + 1000ull * Milliseconds(words.at(1)));
}

// unplug, or pull: without asking first
void Player::Unplug(const Words& words, const Parts&)
{
    EXPECT_EQ(STATUS_SUCCESS, Current().Unplug(words[0] == "pull"));
}

// quiet
void Player::Quiet(const Words&, const Parts&)
{
    for (size_t i = 0; i < m_Keyboards.size(); i++) {
        EXPECT_EQ(m_Keyboards[i]->PendingReads(), m_Keyboards[i]->Plugged() ? m_Reads[i] : 0);
    }
}
