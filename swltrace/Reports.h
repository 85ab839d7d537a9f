#pragma once
// The three report formats.
#include "Report.h"
#include <cstdio>
#include <memory>
#include <string>

namespace swltrace
{
// Plain text for a terminal or a file; colours with ANSI escapes when asked.
std::unique_ptr<ReportSink> MakeTextReport(std::FILE* out, bool color, bool summaryOnly);
// One JSON document, for other tools. Always valid UTF-8.
std::unique_ptr<ReportSink> MakeJsonReport(std::FILE* out);
// A self-contained HTML page: no network access, opens in any browser.
std::unique_ptr<ReportSink> MakeHtmlReport(std::FILE* out);

// Shared by the reports: "process 1a2c, thread 3b4" (with the run after a restart).
std::string DescribeThread(const ThreadId& thread);
// The Installer log's view of an action: "2:38:43-2:38:44, failed (line 29)".
std::string DescribeMsiAction(const MsiLog& log, const MsiAction& action);
// Functions ordered by total time, largest first.
std::vector<std::pair<std::string, FunctionStats>> FunctionsByTotal(const Summary& summary);
std::string FormatSeconds(int32_t sec);
// The text of an "(MSI LOG ENTRY) text" message.
std::string_view MsiText(std::string_view message);
} // namespace swltrace
