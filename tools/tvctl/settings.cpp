// settings.cpp - tvctl leds, typematic: told, or set when something is given.
#include "tools/common/failure.h"
#include "tools/common/text.h"
#include "tvctl.h"

#include <fmt/format.h>

#include <algorithm>

namespace
{

struct LedName {
    const char* pName;
    uint16_t usFlag;
};
const LedName Leds[] = {{"num", LED_FLAG_NUM}, {"caps", LED_FLAG_CAPS}, {"scroll", LED_FLAG_SCROLL}};

// "num=on" sets or clears its flag. Fails (InputError).
void ReadLed(const std::string& word, uint16_t* pusSet, uint16_t* pusClear)
{
    size_t cEqual = word.find('=');
    std::string name = LowerCase(word.substr(0, cEqual));
    std::string state = cEqual == word.npos ? "" : LowerCase(word.substr(cEqual + 1));
    auto led =
        std::find_if(std::begin(Leds), std::end(Leds), [&](const LedName& row) { return row.pName == name; });
    if (led == std::end(Leds) || (state != "on" && state != "off"))
        throw InputError(fmt::format("'{}' is none of num=on, num=off, caps=…, scroll=…", word));
    *(state == "on" ? pusSet : pusClear) |= led->usFlag;
}

ExitStatus DoLeds(Session& session, const std::vector<std::string>& words)
{
    uint16_t usSet = 0, usClear = 0;
    for (const std::string& word : words)
        ReadLed(word, &usSet, &usClear);
    if (usSet & usClear)
        throw InputError("an LED is to be on and off");
    tvusb::Keyboard keyboard = session.Keyboard();
    if (!words.empty())
        Must(keyboard.SetLeds(static_cast<uint16_t>((Must(keyboard.GetLeds()) | usSet) & ~usClear)));
    uint16_t usLeds = Must(keyboard.GetLeds());
    Line line("leds");
    line.Number("index", keyboard.Index());
    std::string text;
    for (const LedName& led : Leds) {
        line.Truth(led.pName, (usLeds & led.usFlag) != 0);
        text +=
            fmt::format("{}{} {}", text.empty() ? "" : "  ", led.pName, usLeds & led.usFlag ? "on" : "off");
    }
    session.Tell(line, text);
    return Done;
}

constexpr unsigned DelayStepMs = 250, MostDelayMs = 1000;

// A value that is not given stays.
ExitStatus DoTypematic(Session& session, unsigned uRate, unsigned uDelayMs)
{
    if (uDelayMs % DelayStepMs != 0)
        throw InputError(fmt::format("the delay is 250, 500, 750 or 1000 milliseconds, not {}", uDelayMs));
    tvusb::Keyboard keyboard = session.Keyboard();
    tvusb::Typematic typematic = Must(keyboard.GetTypematic());
    if (uRate != 0 || uDelayMs != 0) {
        unsigned uDelay =
            std::clamp(uDelayMs != 0 ? uDelayMs : typematic.usDelayMs, DelayStepMs, MostDelayMs);
        Must(keyboard.SetTypematic(static_cast<uint16_t>(uRate != 0 ? uRate : typematic.usRate),
                                   static_cast<uint16_t>(uDelay / DelayStepMs - 1)));
        typematic = Must(keyboard.GetTypematic());
    }
    session.Tell(Line("typematic").Number("rate", typematic.usRate).Number("delay_ms", typematic.usDelayMs),
                 fmt::format("{} characters a second after {} ms", typematic.usRate, typematic.usDelayMs));
    return Done;
}

} // namespace

void AddSettingVerbs(CLI::App& app, ControlVerbs& verbs)
{
    struct Arguments {
        std::vector<std::string> leds;
        unsigned uRate = 0, uDelayMs = 0;
    };
    auto arguments = std::make_shared<Arguments>();
    CLI::App* pLeds = app.add_subcommand("leds", "Tell which LEDs are on, or switch them");
    pLeds->add_option("LED", arguments->leds, "num=on, caps=off, scroll=on, …");
    verbs.push_back({pLeds, [arguments](Session& session) { return DoLeds(session, arguments->leds); }});

    CLI::App* pTypematic = app.add_subcommand("typematic", "Tell the system's key repeat, or set it");
    pTypematic->add_option("--rate", arguments->uRate, "characters a second, 2 to 30")
        ->check(CLI::Range(2, 30));
    pTypematic
        ->add_option("--delay", arguments->uDelayMs, "milliseconds before the first: 250, 500, 750 or 1000")
        ->check(CLI::Range(250, 1000));
    verbs.push_back({pTypematic, [arguments](Session& session) {
                         return DoTypematic(session, arguments->uRate, arguments->uDelayMs);
                     }});
}
