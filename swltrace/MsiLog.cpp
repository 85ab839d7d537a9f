#include "MsiLog.h"
#include "LineReader.h"
#include "Warnings.h"
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <set>

namespace swltrace
{
namespace
{
bool StartsWith(const std::string& s, const char* prefix)
{
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

// "h:mm:ss" or "hh:mm:ss" at s[pos]; seconds since midnight, -1 when absent.
int32_t ReadClock(const std::string& s, size_t& pos)
{
    int parts[3] = {0, 0, 0};
    for (int i = 0; i < 3; ++i)
    {
        size_t digits = 0;
        while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9' && digits < 2)
        {
            parts[i] = parts[i] * 10 + (s[pos] - '0');
            ++pos;
            ++digits;
        }
        if (digits == 0)
            return -1;
        if (i < 2)
        {
            if (pos >= s.size() || s[pos] != ':')
                return -1;
            ++pos;
        }
    }
    return (parts[0] * 60 + parts[1]) * 60 + parts[2];
}

// The Installer's standard actions, as its reference lists them.
const char* const kStandardActions[] = {
    "ADMIN", "ADVERTISE", "AllocateRegistrySpace", "AppSearch", "BindImage", "CCPSearch", "CostFinalize",
    "CostInitialize", "CreateFolders", "CreateShortcuts", "DeleteServices", "DisableRollback", "DuplicateFiles",
    "ExecuteAction", "FileCost", "FindRelatedProducts", "ForceReboot", "INSTALL", "InstallAdminPackage",
    "InstallExecute", "InstallExecuteAgain", "InstallFiles", "InstallFinalize", "InstallInitialize", "InstallODBC",
    "InstallSFPCatalogFile", "InstallServices", "InstallValidate", "IsolateComponents", "LaunchConditions",
    "MigrateFeatureStates", "MoveFiles", "MsiConfigureServices", "MsiPublishAssemblies", "MsiUnpublishAssemblies",
    "PatchFiles", "ProcessComponents", "PublishComponents", "PublishFeatures", "PublishProduct", "RMCCPSearch",
    "RegisterClassInfo", "RegisterComPlus", "RegisterExtensionInfo", "RegisterFonts", "RegisterMIMEInfo",
    "RegisterProduct", "RegisterProgIdInfo", "RegisterTypeLibraries", "RegisterUser", "RemoveDuplicateFiles",
    "RemoveEnvironmentStrings", "RemoveExistingProducts", "RemoveFiles", "RemoveFolders", "RemoveIniValues",
    "RemoveODBC", "RemoveRegistryValues", "RemoveShortcuts", "ResolveSource", "SEQUENCE", "ScheduleReboot",
    "SelfRegModules", "SelfUnregModules", "SetODBCFolders", "StartServices", "StopServices", "UnpublishComponents",
    "UnpublishFeatures", "UnregisterClassInfo", "UnregisterComPlus", "UnregisterExtensionInfo", "UnregisterFonts",
    "UnregisterMIMEInfo", "UnregisterProgIdInfo", "UnregisterTypeLibraries", "ValidateProductID",
    "WriteEnvironmentStrings", "WriteIniValues", "WriteRegistryValues"};

// Whether a logged return value says the action failed. 3 always does. Wine
// logs 0 both for a custom action that failed and for a standard action that
// did nothing (MigrateFeatureStates without an earlier version); Windows logs
// 0 for an action it did not run.
bool Failed(const MsiAction& a, bool windowsFormat)
{
    return a.returnValue == 3 || (a.returnValue == 0 && !windowsFormat && !a.standard);
}

// "MSI (s) (2C:48) [12:34:56:789]: rest": strips the prefix, returns the
// clock in seconds and the process id of the first pair, or -1.
int32_t StripWindowsPrefix(std::string& line)
{
    if (!(StartsWith(line, "MSI (s)") || StartsWith(line, "MSI (c)") || StartsWith(line, "MSI (a)")))
        return -1;
    size_t bracket = line.find('[');
    size_t close = line.find("]: ");
    if (bracket == std::string::npos || close == std::string::npos || close < bracket)
        return -1;
    size_t pos = bracket + 1;
    int32_t sec = ReadClock(line, pos);
    line.erase(0, close + 3);
    return sec;
}

// "Action start 1:49:34: Name." / "Action ended 1:49:34: Name. Return value 1."
bool ParseActionLine(const std::string& line, const char* prefix, int32_t& sec, std::string& name, int& returnValue)
{
    if (!StartsWith(line, prefix))
        return false;
    size_t pos = std::strlen(prefix);
    sec = ReadClock(line, pos);
    if (sec < 0 || line.compare(pos, 2, ": ") != 0)
        return false;
    pos += 2;
    // Names may hold dots ("SetRegistryKeyForEnableSriov.Data"): the name ends
    // at the dot before " Return value" or at the line's last dot.
    returnValue = -1;
    size_t dot = line.find(". Return value ", pos);
    if (dot != std::string::npos)
        returnValue = std::atoi(line.c_str() + dot + 15);
    else
    {
        dot = line.find_last_not_of(' ');
        if (dot == std::string::npos || dot < pos || line[dot] != '.')
            return false;
    }
    name = line.substr(pos, dot - pos);
    return !name.empty();
}
} // namespace

bool IsStandardAction(const std::string& name)
{
    static const std::set<std::string> names(std::begin(kStandardActions), std::end(kStandardActions));
    return names.count(name) > 0;
}

std::string MsiLog::Outcome(const MsiAction& a) const
{
    if (a.errorCode >= 0 && a.errorCode != 0)
        return "failed (error code " + std::to_string(a.errorCode) + ")";
    switch (a.returnValue)
    {
    case -1: return a.endLine == 0 ? "no end in the log" : "ended";
    case 1: return "success";
    case 0:
        if (windowsFormat)
            return "not run";
        return a.standard ? "return value 0 (a standard action: not a failure)" : "failed";
    case 2: return "cancelled by the user";
    case 3: return "failed";
    case 4: return "suspended";
    default: return "return value " + std::to_string(a.returnValue);
    }
}

bool ParseInfoRecord(const std::string& line, std::string& field1, std::string& text)
{
    if (!StartsWith(line, "1: "))
        return false;
    size_t f2 = line.find(" 2: ", 2);
    if (f2 == std::string::npos)
        return false;
    field1 = line.substr(3, f2 - 3);
    while (!field1.empty() && field1.back() == ' ')
        field1.pop_back();
    std::string rest = line.substr(f2 + 4);
    if (!rest.empty() && rest.back() == ' ')
        rest.pop_back();
    size_t f3 = rest.find(" 3: ");
    if (f3 != std::string::npos)
        text = rest.substr(0, f3) + rest.substr(f3 + 4);
    else
        text = rest;
    return true;
}

bool ReadMsiLog(const std::string& path, MsiLog& log, Warnings& warnings)
{
    log = MsiLog();
    log.path = path;
    LineReader reader(path);
    if (!reader.IsOpen())
    {
        warnings.Add(path, 0, "file", "cannot open the Installer log");
        return false;
    }
    std::string_view view;
    std::string line;
    std::string name;
    std::string field1;
    std::string text;
    std::vector<int> open;     // actions started and not yet ended, innermost last
    int deferredOpen = -1;     // the running action of the execution script
    uint32_t serverPid = 0;
    int lastInvoked = -1;
    bool any = false;

    while (reader.Next(view))
    {
        line.assign(view.data(), view.size());
        const uint64_t n = reader.LineNumber();
        if (!line.empty() && static_cast<unsigned char>(line[0]) == 0xEF)
            line.erase(0, line.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0);
        const int32_t prefixSec = StripWindowsPrefix(line);
        if (prefixSec >= 0)
        {
            log.windowsFormat = true;
            any = true;
        }
        int32_t sec;
        int rv;
        if (ParseActionLine(line, "Action start ", sec, name, rv))
        {
            any = true;
            MsiAction a;
            a.name = name;
            a.standard = IsStandardAction(name);
            a.startLine = n;
            a.startSec = sec;
            a.serverPid = 0;
            log.actions.push_back(a);
            open.push_back(static_cast<int>(log.actions.size()) - 1);
            continue;
        }
        if (ParseActionLine(line, "Action ended ", sec, name, rv))
        {
            any = true;
            // The innermost open action of that name.
            for (size_t i = open.size(); i-- > 0;)
            {
                MsiAction& a = log.actions[static_cast<size_t>(open[i])];
                if (a.name != name)
                    continue;
                a.endLine = n;
                a.endSec = sec;
                a.returnValue = rv;
                if (!a.failed && Failed(a, log.windowsFormat))
                {
                    a.failed = true;
                    a.failLine = n;
                }
                open.erase(open.begin() + static_cast<std::ptrdiff_t>(i));
                break;
            }
            continue;
        }
        if (prefixSec >= 0)
        {
            const char* op = "Executing op: ActionStart(Name=";
            size_t at;
            if (StartsWith(line, op))
            {
                size_t from = std::strlen(op);
                size_t comma = line.find_first_of(",)", from);
                MsiAction a;
                a.name = line.substr(from, comma == std::string::npos ? std::string::npos : comma - from);
                a.standard = IsStandardAction(a.name);
                a.startLine = n;
                a.startSec = prefixSec;
                a.deferred = true;
                if (deferredOpen >= 0 && log.actions[static_cast<size_t>(deferredOpen)].endLine == 0)
                {
                    log.actions[static_cast<size_t>(deferredOpen)].endLine = n;
                    log.actions[static_cast<size_t>(deferredOpen)].endSec = prefixSec;
                }
                log.actions.push_back(a);
                deferredOpen = static_cast<int>(log.actions.size()) - 1;
            }
            else if ((at = line.find("Created Custom Action Server with PID ")) != std::string::npos)
            {
                // Logged right after the first action that needs the server.
                serverPid = static_cast<uint32_t>(std::strtoul(line.c_str() + at + 38, nullptr, 10));
                if (lastInvoked >= 0 && log.actions[static_cast<size_t>(lastInvoked)].serverPid == 0)
                    log.actions[static_cast<size_t>(lastInvoked)].serverPid = serverPid;
            }
            else if ((at = line.find("Entrypoint: ")) != std::string::npos && StartsWith(line, "Invoking remote custom action."))
            {
                int current = deferredOpen >= 0 ? deferredOpen : (open.empty() ? -1 : open.back());
                if (!open.empty() && (deferredOpen < 0 || open.back() > deferredOpen))
                    current = open.back();
                if (current >= 0)
                {
                    log.actions[static_cast<size_t>(current)].entryPoint = line.substr(at + 12);
                    log.actions[static_cast<size_t>(current)].serverPid = serverPid;
                    lastInvoked = current;
                }
            }
            continue;
        }
        const char* ca = "CustomAction ";
        size_t code;
        if (StartsWith(line, ca) && (code = line.find(" returned actual error code ")) != std::string::npos)
        {
            std::string caName = line.substr(std::strlen(ca), code - std::strlen(ca));
            for (size_t i = log.actions.size(); i-- > 0;)
            {
                if (log.actions[i].name != caName)
                    continue;
                log.actions[i].errorCode = std::strtol(line.c_str() + code + 28, nullptr, 10);
                if (!log.actions[i].failed && log.actions[i].errorCode != 0)
                {
                    log.actions[i].failed = true;
                    log.actions[i].failLine = n;
                }
                break;
            }
            continue;
        }
        if (ParseInfoRecord(line, field1, text))
        {
            any = true;
            // Our records have an empty first field (Wine) or the time "[hh:mm:ss]".
            int current = open.empty() ? -1 : open.back();
            if (deferredOpen > current && log.actions[static_cast<size_t>(deferredOpen)].endLine == 0)
                current = deferredOpen;
            if (current >= 0 && (field1.empty() || field1.front() == '['))
            {
                MsiAction& a = log.actions[static_cast<size_t>(current)];
                if (a.infoLines++ == 0)
                    a.opening = text;
            }
        }
    }
    if (!any)
        warnings.Add(path, 0, "msilog", "no action lines: this does not look like a verbose Installer log (/l*v)");
    // The first failure the log shows; the actions around it fail after it.
    for (size_t i = 0; i < log.actions.size(); ++i)
    {
        const MsiAction& a = log.actions[i];
        if (a.failed && (log.firstFailing < 0 || a.failLine < log.actions[static_cast<size_t>(log.firstFailing)].failLine))
            log.firstFailing = static_cast<int>(i);
    }
    return true;
}
} // namespace swltrace
