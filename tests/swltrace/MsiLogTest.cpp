// The verbose Installer log in Wine's and Windows' formats, and the trace
// merged with it: actions matched on process, clock and name.
#include "Recorder.h"
#include "Reports.h"
#include <gtest/gtest.h>
#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>

using namespace swltrace;

namespace
{
const MsiAction* Find(const MsiLog& log, const std::string& name)
{
    for (const MsiAction& a : log.actions)
        if (a.name == name)
            return &a;
    return nullptr;
}
} // namespace

TEST(MsiLogTest, ReadsWinesLogWhereAFailedActionEndsWithZero)
{
    MsiLog log;
    Warnings w(nullptr);
    ASSERT_TRUE(ReadMsiLog(DataFile("real/win7-os-check-fails.install.log"), log, w));
    EXPECT_FALSE(log.windowsFormat);
    const MsiAction* os = Find(log, "VerifyOSOrWarn");
    const MsiAction* admin = Find(log, "VerifyAdminOrWarn");
    ASSERT_TRUE(os && admin);
    EXPECT_EQ(os->opening, "VerifyOSOrWarn()");
    EXPECT_EQ(os->returnValue, 0);
    EXPECT_TRUE(os->failed);
    EXPECT_EQ(log.Outcome(*os), "failed");
    EXPECT_EQ(log.Outcome(*admin), "success");
    EXPECT_EQ(admin->infoLines, 3);
    // INSTALL fails after it, so VerifyOSOrWarn is the first failure.
    ASSERT_GE(log.firstFailing, 0);
    EXPECT_EQ(log.actions[static_cast<size_t>(log.firstFailing)].name, "VerifyOSOrWarn");
    EXPECT_EQ(w.Total(), 0u);
}

// Wine ends a failed custom action with 0, but also a standard action that
// had nothing to do; 3 is a failure whoever logs it.
TEST(MsiLogTest, ZeroFailsOnlyACustomActionAndThreeAlwaysFails)
{
    MsiLog log;
    Warnings w(nullptr);
    ASSERT_TRUE(ReadMsiLog(DataFile("real/pf-7xxx-install.log"), log, w));
    const MsiAction* migrate = Find(log, "MigrateFeatureStates");
    ASSERT_TRUE(migrate);
    EXPECT_EQ(migrate->returnValue, 0);
    EXPECT_TRUE(migrate->standard);
    EXPECT_FALSE(migrate->failed);
    EXPECT_EQ(log.firstFailing, -1);

    ASSERT_TRUE(ReadMsiLog(DataFile("wine-return-values.log"), log, w));
    std::vector<std::string> failed;
    for (const MsiAction& a : log.actions)
        if (a.failed)
            failed.push_back(a.name);
    // CostInitialize and INSTALL end with 0 and are the Installer's own.
    EXPECT_EQ(failed, (std::vector<std::string>{"InstallFiles", "AddServices"}));
    EXPECT_EQ(log.actions[static_cast<size_t>(log.firstFailing)].name, "InstallFiles");
    EXPECT_FALSE(Find(log, "InstallDrivers")->standard) << "ours, though it sounds like the Installer's";
    ASSERT_TRUE(Find(log, "SetRegistryKeyForEnableSriov.Data")) << "a name with a dot";
    EXPECT_EQ(Find(log, "SetRegistryKeyForEnableSriov.Data")->returnValue, 1);
    EXPECT_EQ(log.Outcome(*Find(log, "AddServices")), "failed");

    for (const char* name : {"ADMIN", "INSTALL", "InstallExecute", "WriteRegistryValues", "SEQUENCE"})
        EXPECT_TRUE(IsStandardAction(name)) << name;
    for (const char* name : {"install", "VerifyHardwareOrWarn", "RemoveDrivers", "WriteARPEntries", ""})
        EXPECT_FALSE(IsStandardAction(name)) << name;
}

TEST(MsiLogTest, ReadsWindowsLogWithServerEntryPointAndErrorCode)
{
    MsiLog log;
    Warnings w(nullptr);
    ASSERT_TRUE(ReadMsiLog(DataFile("windows-verbose.log"), log, w));
    EXPECT_TRUE(log.windowsFormat);
    const MsiAction* admin = Find(log, "VerifyAdminOrWarn");
    const MsiAction* services = Find(log, "AddServices");
    const MsiAction* drivers = Find(log, "InstallDrivers");
    ASSERT_TRUE(admin && services && drivers);
    EXPECT_EQ(admin->entryPoint, "VerifyAdminOrWarn");
    EXPECT_EQ(admin->serverPid, 6700u);
    EXPECT_EQ(admin->opening, "VerifyAdminOrWarn()");
    EXPECT_TRUE(services->deferred);
    EXPECT_EQ(services->opening, "AddServices()");
    EXPECT_EQ(services->endLine, 21u);  // where the script's next action starts
    EXPECT_EQ(drivers->errorCode, 31);
    EXPECT_EQ(drivers->returnValue, 3);
    EXPECT_EQ(log.Outcome(*drivers), "failed (error code 31)");
    EXPECT_EQ(log.actions[static_cast<size_t>(log.firstFailing)].name, "InstallDrivers");
}

TEST(MsiLogTest, JoinsTheTwoTextFieldsOfARecordAsTheTraceDoes)
{
    std::string field1;
    std::string text;
    ASSERT_TRUE(ParseInfoRecord("1:  2: Request to update driver failed for  3: PCI\\VEN_1 ", field1, text));
    EXPECT_EQ(field1, "");
    EXPECT_EQ(text, "Request to update driver failed for PCI\\VEN_1");
    ASSERT_TRUE(ParseInfoRecord("1: [14:02:11] 2: InstallDrivers() ", field1, text));
    EXPECT_EQ(field1, "[14:02:11]");
    EXPECT_EQ(text, "InstallDrivers()");
    EXPECT_FALSE(ParseInfoRecord("Property(S): ALLUSERS = 1", field1, text));
}

TEST(MsiLogTest, ALogThatIsNoneIsNamedAsSuch)
{
    MsiLog log;
    Warnings w(nullptr);
    EXPECT_TRUE(ReadMsiLog(DataFile("calls.txt"), log, w));
    EXPECT_EQ(WarnedLines(w, "msilog"), std::vector<uint64_t>{0});
    EXPECT_FALSE(ReadMsiLog(DataFile("no-such.log"), log, w));
}

TEST(MergeTest, TraceLinesRunInsideTheActionsOfTheLog)
{
    MsiLog log;
    Warnings w(nullptr);
    ASSERT_TRUE(ReadMsiLog(DataFile("windows-verbose.log"), log, w));
    Recorder r;
    Analyse(r, w, {"windows-trace.txt"}, &log);
    std::vector<std::string> matched;
    for (const ActionRun& a : r.summary.actions)
    {
        ASSERT_GE(a.msiIndex, 0) << a.name;
        EXPECT_EQ(log.actions[static_cast<size_t>(a.msiIndex)].name, a.name);
        matched.push_back(a.name);
    }
    EXPECT_EQ(matched, (std::vector<std::string>{"VerifyAdminOrWarn", "AddServices", "InstallDrivers"}));
    ASSERT_EQ(r.summary.faults.size(), 1u);
    EXPECT_EQ(r.summary.faults[0].action, "InstallDrivers");
}

TEST(MergeTest, ATraceFromAnotherTimeIsNotMatched)
{
    MsiLog log;
    Warnings w(nullptr);
    ASSERT_TRUE(ReadMsiLog(DataFile("windows-verbose.log"), log, w));
    // VerifyAdminOrWarn runs at the log's time, then an hour earlier on
    // another day, then VerifyOSOrWarn a minute later: only the first is the log's.
    Recorder r;
    Analyse(r, w, {"appended-days.txt"}, &log);
    ASSERT_EQ(r.summary.actions.size(), 3u);
    EXPECT_EQ(r.summary.actions[0].firstLine, 1u);
    EXPECT_GE(r.summary.actions[0].msiIndex, 0);
    EXPECT_EQ(r.summary.actions[1].firstLine, 5u);
    EXPECT_EQ(r.summary.actions[1].msiIndex, -1);
    EXPECT_EQ(r.summary.actions[2].name, "VerifyOSOrWarn");
    EXPECT_EQ(r.summary.actions[2].msiIndex, -1);
}

// Every real scenario: the whole install is a tree under its custom actions,
// the failing action is the one the scenario expects, and so is the fault
// line inside it, with the calls open at that moment.
TEST(MergeTest, RealScenariosShowTheInstallUnderItsActions)
{
    std::ifstream list(DataFile("real/scenarios.txt"));
    std::string row;
    int scenarios = 0;
    while (std::getline(list, row))
    {
        std::istringstream fields(row);
        std::string trace, logName, failing, faultAt, openCalls;
        if (!(fields >> trace >> logName >> failing) || trace[0] == '#')
            continue;
        fields >> faultAt >> openCalls;
        std::replace(faultAt.begin(), faultAt.end(), '_', ' ');
        ++scenarios;
        SCOPED_TRACE(trace + " with " + logName);
        MsiLog log;
        Warnings w(nullptr);
        ASSERT_TRUE(ReadMsiLog(DataFile("real/" + logName), log, w));
        if (failing == "-")
            EXPECT_LT(log.firstFailing, 0);
        else
        {
            ASSERT_GE(log.firstFailing, 0);
            EXPECT_EQ(log.actions[static_cast<size_t>(log.firstFailing)].name, failing);
        }
        Recorder r;
        Analyse(r, w, {"real/" + trace}, &log);
        // The failing action ran in the trace, as a tree of its own.
        if (log.firstFailing >= 0)
        {
            auto run = std::find_if(r.summary.actions.begin(), r.summary.actions.end(),
                                    [&](const ActionRun& a) { return a.msiIndex == log.firstFailing; });
            ASSERT_NE(run, r.summary.actions.end());
            EXPECT_GT(run->calls, 0u);
        }
        if (!faultAt.empty())
        {
            ASSERT_GE(log.firstFailing, 0);
            auto fault = std::find_if(r.summary.faults.begin(), r.summary.faults.end(), [&](const FaultRef& f) {
                return f.fault && f.message.compare(0, faultAt.size() + 1, faultAt + ":") == 0;
            });
            ASSERT_NE(fault, r.summary.faults.end()) << faultAt;
            EXPECT_EQ(fault->action, failing);
            std::string stack;
            for (const std::string& call : fault->stack)
                stack += (stack.empty() ? "" : ">") + call;
            EXPECT_EQ(stack, openCalls);
        }
        // Every fault line of the file is reported, with the action it ran in.
        std::ifstream raw(DataFile("real/" + trace));
        const std::regex faultLine(R"(^SWL\t.*\t\([0-9A-F]+\)\t[A-Za-z]+\.(cpp|h) \([0-9]+\): )");
        uint64_t faultLines = 0;
        for (std::string line; std::getline(raw, line);)
            faultLines += std::regex_search(line, faultLine) ? 1 : 0;
        uint64_t faults = 0;
        for (const FaultRef& f : r.summary.faults)
        {
            faults += f.fault ? 1 : 0;
            EXPECT_FALSE(f.action.empty()) << f.message;
        }
        EXPECT_EQ(faults, faultLines);
        // Every custom action the log shows our lines for is found in the trace.
        std::vector<bool> found(log.actions.size(), false);
        for (const ActionRun& a : r.summary.actions)
            if (a.msiIndex >= 0)
                found[static_cast<size_t>(a.msiIndex)] = true;
        for (size_t i = 0; i < log.actions.size(); ++i)
            if (log.actions[i].infoLines > 0 && !log.actions[i].opening.empty() &&
                log.actions[i].opening.find('(') != std::string::npos && log.actions[i].name != "INSTALL")
                EXPECT_TRUE(found[i]) << log.actions[i].name;
        // Every line of ours ran inside some custom action.
        uint64_t inActions = 0;
        for (const ActionRun& a : r.summary.actions)
            inActions += a.lines;
        EXPECT_EQ(inActions, r.summary.traceLines);
        EXPECT_EQ(r.summary.neverReturnedCount, 0u);
    }
    EXPECT_GE(scenarios, 5);
}
