// reload.cpp - tvctl reload: whoever serves the driver at a control socket reads its configuration anew.
#include "tvctl.h"

namespace
{

ExitStatus Reload(Session& session)
{
    std::string words;
    tvusb::Status status(session.Way()->Reload(&words));
    if (status.Value() == tvusb::Status::InvalidParameter)
        throw Failure(Refused, words);
    if (status.Value() == tvusb::Status::InvalidDeviceRequest)
        throw Failure(Refused, "nobody serves this driver: there is no configuration to read anew");
    Must(status);
    session.Tell(Line("reload").Text("what", words), words);
    return Done;
}

} // namespace

void AddReloadVerb(CLI::App& app, ControlVerbs& verbs)
{
    verbs.push_back({app.add_subcommand("reload", "Have tvusb live read its configuration anew"), Reload});
}
