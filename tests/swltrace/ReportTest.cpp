// The text, JSON and HTML reports: what support staff see first, colours,
// and escaping of whatever bytes the trace holds.
#include "Recorder.h"
#include "Reports.h"
#include "Text.h"
#include <gtest/gtest.h>
#include <cstdio>

using namespace swltrace;

namespace
{
// Runs files through the report made by make and returns what it wrote.
template <class Make>
std::string Report(Make make, const std::vector<std::string>& files, const std::string& msiLog = "")
{
    char* buffer = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buffer, &size);
    Warnings w(nullptr);
    MsiLog log;
    const MsiLog* logPtr = nullptr;
    if (!msiLog.empty() && ReadMsiLog(DataFile(msiLog), log, w))
        logPtr = &log;
    std::unique_ptr<ReportSink> sink = make(out);
    Header header;
    header.inputs = files;
    header.msiLog = logPtr;
    sink->Begin(header);
    Analyzer analyzer(Options(), logPtr, sink.get(), w);
    for (const auto& f : files)
        analyzer.AddFile(DataFile(f));
    analyzer.Finish();
    std::fclose(out);
    std::string text(buffer, size);
    std::free(buffer);
    return text;
}
} // namespace

TEST(TextReportTest, NamesTheFailingActionFirstAndTheFaultWithItsCalls)
{
    const std::string text =
        Report([](FILE* f) { return MakeTextReport(f, false, false); }, {"windows-trace.txt"}, "windows-verbose.log");
    const size_t failing = text.find("First failing action: InstallDrivers");
    const size_t tree = text.find("=== ");
    ASSERT_NE(failing, std::string::npos);
    ASSERT_NE(tree, std::string::npos);
    EXPECT_LT(failing, tree);
    EXPECT_NE(text.find("--- custom action InstallDrivers [Installer log: 14:02:11-14:02:11, failed (error code 31)"),
              std::string::npos);
    EXPECT_NE(text.find("14:02:11.496 UpdateDriverForDevices  24.000 ms  nReturn=31"), std::string::npos);
    EXPECT_NE(text.find("    [FAULT] KesSecure.cpp (57)"), std::string::npos);
    EXPECT_NE(text.find("open calls: UpdateDriverForDevices > KesSafeCopy"), std::string::npos);
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
}

// The main job's own files: a clean install and removal, the install that
// fails without a device, and the one a pending reboot refuses.
TEST(TextReportTest, ListsOnlyOurActionsAndNamesTheRealFailure)
{
    const auto text = [](FILE* f) { return MakeTextReport(f, false, false); };
    const std::string clean =
        Report(text, {"real/pf-7xxx-install-and-remove.trace.txt"}, "real/pf-7xxx-install.log");
    EXPECT_NE(clean.find("No action failed in the Installer log."), std::string::npos);
    const size_t list = clean.find("Custom actions in the Installer log");
    const std::string actions = clean.substr(list, clean.find("\n\n", list) - list);
    for (const char* ours : {"\n  InstallDrivers ", "\n  VerifyHardwareOrWarn ", "\n  RequestReboot "})
        EXPECT_NE(actions.find(ours), std::string::npos) << ours;
    for (const char* standard : {"MigrateFeatureStates", "InstallFiles", "INSTALL ", "CostFinalize"})
        EXPECT_EQ(actions.find(standard), std::string::npos) << standard;

    const std::string failed = Report(text, {"real/no-device.trace.txt"}, "real/no-device.install.log");
    const size_t first = failed.find("First failing action: VerifyHardwareOrWarn, 3:03:09-3:03:10, failed");
    ASSERT_NE(first, std::string::npos);
    EXPECT_LT(first, failed.find("=== "));
    const size_t action = failed.find("--- custom action VerifyHardwareOrWarn [Installer log: ");
    ASSERT_NE(action, std::string::npos);
    EXPECT_LT(failed.find("FAILED", action), failed.find("\n", action));
    EXPECT_NE(failed.find("    132 03:03:09.895 ReEnumeratePCIDevices  ", action), std::string::npos);
    EXPECT_NE(failed.find("[MSI] No Corvane(R) Swiftlane Technology compatible hardware found; cannot install", action),
              std::string::npos);

    const std::string reboot =
        Report(text, {"real/pending-reboot.trace.txt"}, "real/pending-reboot.install.log");
    const size_t named = reboot.find("First failing action: WarnRebootRequired_BeforeInstall, ");
    ASSERT_NE(named, std::string::npos);
    EXPECT_EQ(named, reboot.find("First failing action: "));
    const size_t fault = reboot.find("Faults and exceptions (1)\n");
    ASSERT_NE(fault, std::string::npos);
    EXPECT_NE(reboot.find(", in WarnRebootRequired_BeforeInstall\n"
                          "    RemnantCleanup.cpp (85): DeleteFile: Failed to delete firmware file : "
                          "'C:\\Windows\\System32\\Drivers\\CfSwl.sys'\n"
                          "    open calls: IsRebootRequired > DeleteFileW\n",
                          fault),
              std::string::npos);
}

TEST(TextReportTest, ColoursOnlyWhenAskedAndSummaryAlone)
{
    const std::string colour = Report([](FILE* f) { return MakeTextReport(f, true, false); }, {"calls.txt"});
    EXPECT_NE(colour.find("\x1b[31m"), std::string::npos);
    const std::string summary = Report([](FILE* f) { return MakeTextReport(f, false, true); }, {"calls.txt"});
    EXPECT_EQ(summary.find("=== calls.txt"), std::string::npos);
    EXPECT_NE(summary.find("Calls that never returned (2)"), std::string::npos);
    EXPECT_NE(summary.find("STARTService"), std::string::npos);
}

TEST(JsonReportTest, CarriesTreesSummaryAndWarningsAsValidUtf8)
{
    const std::string json = Report([](FILE* f) { return MakeJsonReport(f); }, {"ansi.txt", "calls.txt"});
    EXPECT_NE(DetectEncoding(json), TextEncoding::Ansi);
    EXPECT_NE(json.find("\"text\": \"(MSI LOG ENTRY) Opening Key: C:\\\\Users\\\\M\xC3\xBCller\\\\Temp\""),
              std::string::npos)
        << "the Installer-log text, read as Windows-1252";
    EXPECT_NE(json.find("control \\u0001 byte and \xEF\xBF\xBD undefined byte \\\"quoted\\\""), std::string::npos);
    EXPECT_NE(json.find("\"type\": \"call\", \"id\": "), std::string::npos);
    EXPECT_NE(json.find("\"status\": \"never_returned\""), std::string::npos);
    EXPECT_NE(json.find("\"open_calls\": [\"EnumerateDeviceMgrForSupportedDevices\", \"QueryWmi\"]"), std::string::npos);
    EXPECT_NE(json.find("\"kind\": \"ansi\""), std::string::npos);
    EXPECT_EQ(json.back(), '\n');
}

TEST(HtmlReportTest, EscapesTheTraceAndNeedsNoNetwork)
{
    const std::string html = Report([](FILE* f) { return MakeHtmlReport(f); }, {"ansi.txt"});
    EXPECT_NE(html.find("&quot;quoted&quot; &lt;tag&gt; &amp; done"), std::string::npos);
    EXPECT_EQ(html.find("<tag>"), std::string::npos);
    EXPECT_EQ(html.find("http://"), std::string::npos);
    EXPECT_EQ(html.find("https://"), std::string::npos);
    EXPECT_NE(html.find("<script>"), std::string::npos);
    EXPECT_NE(html.rfind("</html>"), std::string::npos);
}
