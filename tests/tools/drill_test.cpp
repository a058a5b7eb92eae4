// drill_test.cpp - what `drill` finds: drivers with a fault of their own, copies that stop or hang, what is lost.
#include "program.h"
#include "replayed.h"

#include "tests/macro_file.h"
#include "tools/drill/apart.h"
#include "tools/drill/drill.h"

#include <set>
#include <utility>

namespace
{

// The driver, with a fault that begins when a keyboard is pulled.
enum class Fault {
    None,
    LeavesMemory,
    Hangs,
    BreaksARule,
    ForgetsReads,
    HoldsARead,
    PressesAKey,
    FailsARead,
    TakesNoKeyboard
} g_fault;
bool g_bPulled;
PDRIVER_DISPATCH g_pPnp, g_pInternal;
PDRIVER_ADD_DEVICE g_pAdd;
PIRP g_pHeld;               // a read
PDEVICE_OBJECT g_pPhysical; // of the latest keyboard

bool IsAtFault(Fault fault)
{
    return g_bPulled && g_fault == fault;
}

NTSTATUS FaultyPnp(PDEVICE_OBJECT pDevice, PIRP Irp)
{
    const UCHAR ucMinor = IoGetCurrentIrpStackLocation(Irp)->MinorFunction;
    g_bPulled |= ucMinor == IRP_MN_SURPRISE_REMOVAL;
    if (ucMinor == IRP_MN_SURPRISE_REMOVAL &&
        (IsAtFault(Fault::LeavesMemory) || IsAtFault(Fault::BreaksARule))) {
        void* p = ExAllocatePoolWithTag(NonPagedPoolNx, 16, 'kaeL');
        if (g_fault == Fault::BreaksARule) {
            ExFreePoolWithTag(p, 'kaeL');
            ExFreePoolWithTag(p, 'kaeL');
        }
    }
    if (ucMinor == IRP_MN_SURPRISE_REMOVAL && IsAtFault(Fault::ForgetsReads)) { // those that it has parked
        IoSkipCurrentIrpStackLocation(Irp);
        return IoCallDriver(g_pPhysical, Irp);
    }
    while (IsAtFault(Fault::Hangs))
        (void)getpid();
    if (g_pHeld && ucMinor == IRP_MN_QUERY_REMOVE_DEVICE) {
        g_pHeld->IoStatus.Status = STATUS_CANCELLED;
        IoCompleteRequest(std::exchange(g_pHeld, nullptr), IO_NO_INCREMENT);
    }
    return g_pPnp(pDevice, Irp);
}

NTSTATUS FaultyInternal(PDEVICE_OBJECT pDevice, PIRP Irp)
{
    if (IsAtFault(Fault::FailsARead)) {
        g_bPulled = false;
        Irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_UNSUCCESSFUL;
    }
    if (IsAtFault(Fault::PressesAKey)) {
        g_bPulled = false;
        auto pUrb = static_cast<PURB>(IoGetCurrentIrpStackLocation(Irp)->Parameters.Others.Argument1);
        auto pReport = static_cast<UCHAR*>(pUrb->UrbBulkOrInterruptTransfer.TransferBuffer);
        memset(pReport, 0, pUrb->UrbBulkOrInterruptTransfer.TransferBufferLength);
        pReport[2] = 5;
        Irp->IoStatus.Status = STATUS_SUCCESS;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_SUCCESS;
    }
    if (!IsAtFault(Fault::HoldsARead) || g_pHeld)
        return g_pInternal(pDevice, Irp);
    IoMarkIrpPending(Irp);
    g_pHeld = Irp;
    return STATUS_PENDING;
}

NTSTATUS FaultyAdd(PDRIVER_OBJECT pDriver, PDEVICE_OBJECT pPhysical)
{
    g_pPhysical = pPhysical;
    return IsAtFault(Fault::TakesNoKeyboard) ? STATUS_UNSUCCESSFUL : g_pAdd(pDriver, pPhysical);
}

NTSTATUS FaultyEntry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pPath)
{
    NTSTATUS status = DriverEntry(pDriver, pPath);
    g_bPulled = false;
    g_pPnp = std::exchange(pDriver->MajorFunction[IRP_MJ_PNP], FaultyPnp);
    g_pInternal = std::exchange(pDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL], FaultyInternal);
    g_pAdd = std::exchange(pDriver->DriverExtension->AddDevice, FaultyAdd);
    return status;
}

Drill Drilled(const std::string& recording, const std::string& config, const DrillPlan& plan = {},
              const char* pKind = "normal")
{
    ReplayConfig parsed = ParseConfig("my.toml", config);
    return RunDrill(RecordingOf(recording), {FaultyEntry, {EmuMachine::FindKind(pKind)}, parsed}, plan);
}

const std::string F1 = "D: 0\nE: 1.0 8 00 00 3a 00 00 00 00 00\nE: 2.0 8 00 00 00 00 00 00 00 00\n"
                       "E: 3.0 8 00 00 04 00 00 00 00 00\nE: 4.0 8 00 00 00 00 00 00 00 00\n";
const std::string Hotkey = "[[definition]]\nid = 7\nkeys = [\"F1\"]\nswallow = 1\n";

// "tried/lost/wrong" of each trouble.
std::string Sums(const Drill& drill)
{
    std::string sums;
    for (const Drill::Kind& kind : drill.kinds)
        sums += std::to_string(kind.uTried) + "/" + std::to_string(kind.uLost) + "/" +
                std::to_string(kind.uWrong) + " ";
    return sums;
}

// The calls of which the failure keeps the driver from loading.
std::set<unsigned> UnloadedBy(unsigned uCalls)
{
    std::set<unsigned> numbers;
    for (unsigned uCall = 1; uCall <= uCalls; ++uCall) {
        EmuMachineOptions options;
        options.Entry = DriverEntry;
        options.BeforeLoad = [&] {
            HostFailOnlyIn(L"Tv64USB");
            HostFailNth(nullptr, uCall);
        };
        if (!NT_SUCCESS(EmuMachine(options).LoadStatus()))
            numbers.insert(uCall);
    }
    return numbers;
}

} // namespace

// Where a call of the start fails the driver, a keyboard or a definition is refused; then no hotkey can be told.
TEST(Drill, TriesEachMoment)
{
    g_fault = Fault::None;
    const Drill each = Drilled(F1, Hotkey);
    EXPECT_EQ(4u, each.uReports);
    EXPECT_EQ(2u, each.uEvents);
    const unsigned uCalls = each.kinds[3].uMoments;
    EXPECT_GT(uCalls, 50u);
    unsigned uRefused = 0, uUntold = 0;
    std::set<unsigned> unloaded;
    std::set<std::string> calls;
    for (const Harm& harm : each.harms) {
        if (harm.text.find("the driver does not load") == 0)
            unloaded.insert(harm.uNumber);
        EXPECT_EQ(harm.trouble == Trouble::Failed, !harm.call.empty()) << harm.text;
        calls.insert(harm.call);
        uRefused += harm.result == Result::Refused;
        uUntold += harm.result == Result::Lost && harm.text == "2 of 2 events were not told";
    }
    EXPECT_EQ("8/0/0 8/0/0 2/0/0 " + std::to_string(uCalls) + "/" + std::to_string(uUntold) + "/0 ",
              Sums(each));
    EXPECT_EQ(each.harms.size(), uRefused + uUntold);
    EXPECT_GT(uRefused, 3u);
    EXPECT_GT(uUntold, 1u);
    EXPECT_EQ(UnloadedBy(40), unloaded);
    for (const char* pCall : {"IoCallDriver, START_DEVICE to EmuKeyboard",
                              "ExAllocatePoolWithTag, 128 bytes of 'TvT6'", "IoCreateSymbolicLink"})
        EXPECT_EQ(1u, calls.count(pCall)) << pCall;
    DrillPlan plan;
    plan.uEvery = 3;
    const Drill third = Drilled(F1, Hotkey, plan);
    EXPECT_EQ(4u, third.kinds[0].uTried);
    EXPECT_EQ(1u, third.kinds[2].uTried);
    EXPECT_EQ((uCalls + 2) / 3, third.kinds[3].uTried);
}

TEST(Drill, FindsWhatADriverDoesWrong)
{
    const struct {
        Fault fault;
        Result result;
        const char* pText;
    } cases[] = {
        {Fault::LeavesMemory, Result::LeftBehind, "pool memory: 16 bytes"},
        {Fault::Hangs, Result::Hung, "it does not end within 0.3 s"},
        {Fault::BreaksARule, Result::Stopped, "BAD_POOL_CALLER: "},
        {Fault::HoldsARead, Result::Hung, "a read of keyboard 1 never comes back"},
        {Fault::PressesAKey, Result::Stuck, "B of keyboard 1 stays down"},
        {Fault::TakesNoKeyboard, Result::NoKeyboard,
         "a keyboard that is plugged in afterwards does not start"},
    };
    for (const auto& c : cases) {
        g_fault = c.fault;
        DrillPlan plan;
        plan.uEvery = 1000; // the first of each
        plan.uMostMs = 300;
        const Drill drill = Drilled(F1 + "D: 1\nE: 5.0 8 00 00 00 00 00 00 00 00\n", Hotkey, plan);
        EXPECT_EQ("2/0/2 2/0/0 1/0/0 1/0/0 ", Sums(drill));
        ASSERT_FALSE(drill.harms.empty());
        const Harm& harm = drill.harms[0];
        EXPECT_EQ(c.result, harm.result);
        EXPECT_EQ(0u, harm.text.find(c.pText)) << harm.text;
        EXPECT_EQ(Trouble::Pulled, harm.trouble);
        EXPECT_EQ(1u, harm.uNumber);
    }
    g_fault = Fault::None;
}

// As a system does: what the keyboard sends behind a read that failed arrives.
TEST(Drill, ReadsAgain)
{
    g_fault = Fault::FailsARead;
    DrillPlan plan;
    plan.uEvery = 1000;
    EXPECT_EQ("2/0/0 2/0/0 1/0/0 1/0/0 ",
              Sums(Drilled(F1 + "D: 1\nE: 5.0 8 00 00 06 00 00 00 00 00\nE: 6.0 8 00 00 07 00 00 00 00 00\n",
                           Hotkey, plan)));
    g_fault = Fault::None;
}

// A macro that leaves a key down does so without any trouble. While it is paced, reads wait in the driver, which has to let
// go of them when their keyboard is pulled: nobody calls them back.
TEST(Drill, KnowsWhatMacrosDo)
{
    DriveFolder folder;
    const std::string macros =
        "[[macro]]\nkey = \"F1\"\nplay = [{ text = \"no\" }, { report = \"0000050000000000\" }]\n";
    folder.Write("m.toml", FileBytes(macros.begin(), macros.end()));
    const std::string config = "[settings]\nKorvexHotkey = \"Scroll Lock\"\nKorvexLEDDisabled = 0\n"
                               "KorvexDelay = 20\nKorvexConfigFile = \"" +
                               folder.Path() + "/m.toml\"\n";
    const std::string recording = "D: 0\nE: 1.0 8 00 00 47 00 00 00 00 00\nE: 2.0 8 00 00 00 00 00 00 00 00\n"
                                  "E: 3.0 8 00 00 3a 00 00 00 00 00\n";
    DrillPlan plan;
    plan.uEvery = 1000;
    EXPECT_EQ("2/0/0 2/0/0 1/0/0 1/0/0 ", Sums(Drilled(recording, config, plan)));
    g_fault = Fault::ForgetsReads;
    const Drill drill = Drilled(recording, config);
    g_fault = Fault::None;
    EXPECT_GT(drill.kinds[0].uWrong, 2u) << Sums(drill);
    EXPECT_EQ(0u, drill.kinds[1].uWrong) << Sums(drill);
    for (const Harm& harm : drill.harms)
        if (IsWrong(harm)) {
            EXPECT_EQ("a read of keyboard 0 stays in the driver when it is pulled", harm.text);
            EXPECT_GT(harm.uNumber, 2u); // the macro plays
        }
}

// A copy ends in the middle of the session, with keys that the keyboard holds.
TEST(Drill, TellsNoHeldKey)
{
    std::string recording = "D: 0\nE: 1.0 8 00 00 04 00 00 00 00 00\n";
    for (unsigned i = 0; i <= StepsAfter; ++i)
        recording += "E: " + std::to_string(2 + i) + ".0 8 00 00 04 05 00 00 00 00\n";
    recording += "E: 900.0 8 00 00 00 00 00 00 00 00\n";
    DrillPlan plan;
    plan.uEvery = 1000;
    EXPECT_EQ("2/0/0 2/0/0 1/0/0 1/0/0 ",
              Sums(Drilled(recording, "[[definition]]\nid = 7\nkeys = [\"A\"]\n", plan)));
}

// A media key that waits for its hotkey's second one is given back with the next read: pulled before, it is lost.
TEST(Drill, TellsPressesThatAreLost)
{
    const Drill drill = Drilled("D: 0\nE: 1.0 2 e9 00\nE: 2.0 2 00 00\n",
                                "[[definition]]\nid = 7\nkeys = [\"Volume Up\", \"Mute\"]\n", {}, "power");
    ASSERT_EQ(1u, drill.kinds[0].uLost) << Sums(drill);
    for (const Harm& harm : drill.harms)
        if (harm.result == Result::Lost) {
            EXPECT_EQ("Volume Up of keyboard 0, pressed at 0.000000 s", harm.text);
            EXPECT_FALSE(IsWrong(harm));
        }
}

// A media key that waits for a hotkey's second one is lost with its keyboard, which nobody is to blame for.
TEST_F(Program, DrillsASession)
{
    Write("two.toml", "[[definition]]\nid = 7\nkeys = [\"Volume Up\", \"Mute\"]\n");
    Write("media.hid", "D: 0\nE: 1.0 2 e9 00\nE: 2.0 2 00 00\n");
    const std::string drill = "drill media.hid --keyboard power --config two.toml --every 1000 ";
    RunOutcome json = Run(drill + "--json");
    EXPECT_EQ(0, json.iStatus) << json.err;
    for (
        const char* pLine :
        {R"({"type":"drill","file":"media.hid","trouble":"pulled","moments":4,"every":1000,"tried":2,"lost":1,"wrong":0})",
         R"({"type":"drill","file":"media.hid","trouble":"removed","moments":4,"every":1000,"tried":2,"lost":1,"wrong":0})",
         R"({"type":"drill","file":"media.hid","trouble":"gone","moments":0,"every":1000,"tried":0,"lost":0,"wrong":0})",
         R"({"type":"harm","trouble":"pulled","number":1,"t_us":0,"kbd":0,"result":"lost","text":"Volume Up of keyboard 0, pressed at 0.000000 s","report":1,"call":""})"})
        EXPECT_NE(std::string::npos, json.out.find(pLine + std::string("\n"))) << pLine << json.out;
    const std::string page = Run(drill).out;
    for (const char* pPart :
         {"media.hid: 4 reports, 0 events\n", "one in 1000: 2 ", "something lost in 1, wrong in 0\n",
          "\n  to know\n    ", "pulled at report 1: lost: Volume Up of keyboard 0"})
        EXPECT_NE(std::string::npos, page.find(pPart)) << pPart << page;
    ExpectBadInput("drill missing.hid", "missing.hid: byte 0: cannot be read");
    EXPECT_EQ(2, Run("drill media.hid --every 0").iStatus);
    RunOutcome sample =
        Run("drill --every 9 --json " SAMPLE_FOLDER "/typing.pcap --config " SAMPLE_FOLDER "/hotkeys.toml");
    EXPECT_EQ(0, sample.iStatus);
    EXPECT_EQ(std::string::npos, sample.out.find("pressed at")) << sample.out;
}
