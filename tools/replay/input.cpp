// input.cpp - tells captures and recordings apart and reads the input as what it is.
#include "input.h"
#include "blocks.h"
#include "keyboards.h"
#include "recording.h"
#include "tools/common/failure.h"

#include <fmt/format.h>

#include <filesystem>
#include <string_view>

namespace
{

// A recording that umockdev made: text of devices or of ioctls, with the packets in a capture of its own.
bool IsUmockdev(std::string_view text)
{
    return text.substr(0, 11) == "P: /devices" || text.substr(0, 5) == "@DEV ";
}

// The capture that lies beside such a text.
std::string CaptureBeside(const std::string& file)
{
    namespace fs = std::filesystem;
    fs::path path = file;
    for (std::string name : {path.string() + ".pcapng", path.replace_extension(".pcapng").string()})
        if (name != file && fs::exists(name))
            return name;
    throw InputError(fmt::format("{}:1: a umockdev recording without a capture beside it ({})", file,
                                 path.filename().string()));
}

} // namespace

Script ReadInput(const std::string& file, const ScriptChoice& choice)
{
    auto pInput = std::make_shared<InputFile>(file);
    InputReader reader(pInput, choice.bFollow ? Reading::Following : Reading::Whole);
    Bytes start(16); // enough to tell
    start.resize(reader.Read(start.data(), start.size()));
    if (LooksLikeCapture(start))
        return ScriptOfCapture(pInput, choice);
    if (IsUmockdev({reinterpret_cast<const char*>(start.data()), start.size()}))
        return ReadInput(CaptureBeside(file), choice);
    return ScriptOfRecording(pInput, choice);
}
