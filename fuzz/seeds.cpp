// fuzz-seeds FOLDER - writes the first inputs of each fuzzer into FOLDER/NAME: the stories as deeds, the samples.
//
// What a story expects is left out; what it does becomes the deeds of scene.h.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <zlib.h>

#include "scene.h"
#include "story.h"
#include "tests/macro_file.h"
#include "words.h"

namespace fs = std::filesystem;

namespace
{
class Seed
{
public:
    void Byte(unsigned u) { Content.push_back(static_cast<uint8_t>(u)); }
    void Word(unsigned u) { Byte(u), Byte(u >> 8); }
    void Short(const EmuBytes& bytes)
    {
        Byte(static_cast<unsigned>(bytes.size()));
        Content.insert(Content.end(), bytes.begin(), bytes.end());
    }
    void Deed(FuzzDeed deed, std::initializer_list<unsigned> operands = {})
    {
        Byte(deed);
        for (unsigned u : operands) {
            Byte(u);
        }
    }
    std::vector<uint8_t> Content;
};

unsigned KindOf(const std::string& name)
{
    const std::vector<std::string> names = EmuMachine::KindNames();
    const auto at = std::find(names.begin(), names.end(), name);
    return at == names.end() ? 0 : static_cast<unsigned>(at - names.begin());
}

// hotkey ID MODIFIERS [SCAN...] [swallow], define ID TYPE [swallow]
void Define(Seed& seed, const Words& words)
{
    bool bHotkey = words[0] != "define", bSwallow = words.back() == "swallow";
    seed.Deed(DeedDefine, {Number32(words.at(1), 10), bHotkey ? 1 : Number32(words.at(2), 10), bSwallow});
    ULONG ulModifiers = bHotkey ? Modifiers(words.at(2)) : 0;
    seed.Word(ulModifiers);
    seed.Word(ulModifiers >> 16);
    Words scans(words.begin() + (bHotkey ? 3 : words.size()), words.end() - (bHotkey && bSwallow));
    seed.Short(Bytes(scans));
}

// One line of a story; what a fuzzer has no deed for is passed over.
void Tell(Seed& seed, const std::string& line)
{
    Parts parts = SplitParts(line);
    Words words = SplitWords(parts.Left);
    const std::string& verb = words.at(0);
    if (verb == "keyboard") {
        seed.Deed(DeedPlug, {KindOf(words.at(1))});
    } else if (verb == "hotkey" || verb == "define") {
        Define(seed, words);
    } else if (verb == "report" || verb == "scans" || verb == "packet") {
        seed.Deed(verb == "report" ? DeedReport : verb == "scans" ? DeedScans : DeedPacket);
        seed.Short(Bytes(words, 1));
    } else if (verb == "on") {
        seed.Deed(DeedOn, {Number32(words.at(1), 10)});
    } else if (verb == "remove") {
        seed.Deed(DeedUndefine, {Number32(words.at(1), 10)});
    } else if (verb == "processing" || verb == "capture") {
        seed.Deed(verb == "capture" ? DeedCapture : DeedProcessing, {words.at(1) == "on"});
    } else if (verb == "led") {
        seed.Deed(DeedLed, {Number32(words.at(1), 16), 0});
    } else if (verb == "wait") {
        seed.Deed(DeedWait);
        seed.Word(static_cast<unsigned>(std::stoul(words.at(1))));
    } else if (verb == "unplug" || verb == "pull") {
        seed.Deed(DeedUnplug, {verb == "pull"});
    } else if (verb == "reread") {
        seed.Deed(DeedReread);
    }
    if (!parts.Events.empty()) {
        seed.Deed(DeedTake);
    }
}

Seed SeedOf(const Story& story)
{
    Seed seed;
    unsigned uMask = 0;
    for (const StoryLine& line : story.Lines) {
        uMask |= FuzzSettingBits(line.Text);
    }
    seed.Byte(0); // the plain schedule
    seed.Word(uMask);
    for (const StoryLine& line : story.Lines) {
        Tell(seed, line.Text);
    }
    return seed;
}

void Save(const fs::path& folder, const std::string& name, const std::vector<uint8_t>& bytes)
{
    fs::create_directories(folder);
    std::ofstream file(folder / name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> ReadAll(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void SaveStories(const fs::path& folder)
{
    for (const auto& entry : fs::directory_iterator(STORY_FOLDER)) {
        if (entry.path().extension() != ".story") {
            continue;
        }
        unsigned uStory = 0;
        for (const Story& story : ReadStories(entry.path().string())) {
            std::string name = entry.path().stem().string() + "-" + std::to_string(++uStory);
            Seed seed = SeedOf(story);
            Save(folder / "reports", name, seed.Content);
            Save(folder / "control", name, seed.Content);
        }
    }
}

// A macro file with two macros behind the deeds of switching the mode and typing; a broken head comes from the
// fuzzer.
void SaveMacroFile(const fs::path& folder)
{
    std::vector<uint8_t> file = MacroFileHead();
    AppendMacro(file, 0x3A, {{2, 0, 0x0B, 0, 0, 0, 0, 0}, {0}});
    AppendMacro(file, 0x0102, {{0, 0, 4, 5, 0, 0, 0, 0}});
    Seed seed;
    Seed deeds;
    deeds.Deed(DeedReport);
    deeds.Short({0, 0, 0x3A, 0, 0, 0, 0, 0});
    deeds.Deed(DeedWait, {50, 0});
    seed.Short(deeds.Content);
    seed.Byte(0);
    seed.Content.insert(seed.Content.end(), file.begin() + 50, file.end());
    Save(folder / "macrofile", "two-macros", seed.Content);
    file.insert(file.begin(), 1);
    Save(folder / "macrotext", "two-macros", file);
}

std::vector<uint8_t> Packed(const std::vector<uint8_t>& content)
{
    std::vector<uint8_t> packed(content.size() + 100);
    z_stream stream = {};
    stream.next_in = const_cast<uint8_t*>(content.data());
    stream.avail_in = static_cast<uInt>(content.size());
    stream.next_out = packed.data();
    stream.avail_out = static_cast<uInt>(packed.size());
    deflateInit2(&stream, 9, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY); // with the head of a .gz
    deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return packed;
}

void PutLong(std::vector<uint8_t>& bytes, size_t c)
{
    for (unsigned i = 0; i < 4; i++) {
        bytes.push_back(static_cast<uint8_t>(c >> (8 * i)));
    }
}

void PutBlock(std::vector<uint8_t>& file, size_t cType, std::vector<uint8_t> body)
{
    body.resize((body.size() + 3) / 4 * 4);
    PutLong(file, cType);
    PutLong(file, body.size() + 12);
    file.insert(file.end(), body.begin(), body.end());
    PutLong(file, body.size() + 12);
}

// The first records of a pcap file as pcapng, on two interfaces in turn.
std::vector<uint8_t> BlocksOf(const std::vector<uint8_t>& pcap)
{
    std::vector<uint8_t> file;
    PutBlock(file, 0x0A0D0D0A, {0x4D, 0x3C, 0x2B, 0x1A, 1, 0, 0, 0, 255, 255, 255, 255, 255, 255, 255, 255});
    for (int i = 0; i < 2; i++) {
        PutBlock(file, 1, {pcap[20], 0, 0, 0, 0, 0, 1, 0});
    }
    size_t cAt = 24;
    for (uint8_t uc = 0; cAt + 16 <= pcap.size() && file.size() < 1900; uc ^= 1) {
        size_t cBytes = pcap[cAt + 8] | pcap[cAt + 9] << 8;
        std::vector<uint8_t> packet = {uc, 0, 0, 0, 0, 0, 0, 0};
        packet.insert(packet.end(), pcap.begin() + static_cast<ptrdiff_t>(cAt + 4),
                      pcap.begin() + static_cast<ptrdiff_t>(std::min(cAt + 16 + cBytes, pcap.size())));
        PutBlock(file, 6, packet);
        cAt += 16 + cBytes;
    }
    return file;
}

void SaveSamples(const fs::path& folder)
{
    const fs::path samples = SAMPLE_FOLDER;
    std::vector<uint8_t> capture = ReadAll(samples / "typing.pcap");
    capture.insert(capture.begin(), 0);
    Save(folder / "capture", "typing", capture);
    capture.front() = 4; // and what is whole of a cut one
    Save(folder / "capture", "typing-cut", {capture.begin(), capture.begin() + 4000});
    std::vector<uint8_t> packed = Packed({capture.begin() + 1, capture.end()});
    packed.insert(packed.begin(), 0);
    Save(folder / "capture", "typing-packed", packed);
    std::vector<uint8_t> blocks = BlocksOf({capture.begin() + 1, capture.end()});
    blocks.insert(blocks.begin(), 2);
    Save(folder / "capture", "typing-umockdev", blocks);
    blocks.front() = 8;
    Save(folder / "capture", "typing-blocks", blocks);
    for (const char* pName : {"cashier", "macromode"}) {
        std::vector<uint8_t> typed = ReadAll(samples / (std::string(pName) + ".hid"));
        typed.insert(typed.begin(), 1);
        Save(folder / "capture", pName, typed);
    }
    std::string recording =
        "\1D: 0\nR: 3 05 01 C0\nN: Boot\nI: 3 7a3c 0101\nE: 0.10 8 01 00 3a 00 00 00 00 00\n";
    Save(folder / "capture", "recording", {recording.begin(), recording.end()});
    for (const char* pName : {"hotkeys", "cashier", "macromode"}) {
        Save(folder / "config", pName, ReadAll(samples / (std::string(pName) + ".toml")));
    }
    std::vector<uint8_t> text = ReadAll(samples / "macros.toml");
    text.insert(text.begin(), 0);
    Save(folder / "macrotext", "macros", text);
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: fuzz-seeds FOLDER\n");
        return 2;
    }
    SaveStories(argv[1]);
    SaveMacroFile(argv[1]);
    SaveSamples(argv[1]);
    return 0;
}
