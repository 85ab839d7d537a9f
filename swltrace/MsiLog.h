#pragma once
// The Installer's verbose log (msiexec /l*v), read for its actions: each
// action's start, end and return value, and the text of the first line our
// library logged inside it (how the action is recognised in the trace).
// Reads both the log Windows writes ("MSI (s) (PID:TID) [hh:mm:ss:mmm]: ..."
// lines among the action lines) and the shorter one Wine writes.
#include <cstdint>
#include <string>
#include <vector>

namespace swltrace
{
class Warnings;

struct MsiAction
{
    std::string name;
    std::string opening;       // first INFO text inside the action (field 2 and 3), or empty
    uint64_t startLine = 0;
    uint64_t endLine = 0;      // 0 when the log has no end for it
    int32_t startSec = -1;     // seconds since midnight
    int32_t endSec = -1;
    int returnValue = -1;      // as logged ("Return value N."), -1 when not logged
    bool failed = false;
    bool standard = false;     // one of the Installer's own actions, not a custom action
    long errorCode = -1;       // "CustomAction X returned actual error code N"
    bool deferred = false;     // from the execution script ("Executing op: ActionStart")
    std::string entryPoint;    // "Invoking remote custom action. DLL: ..., Entrypoint: X"
    uint32_t serverPid = 0;    // the custom-action server the action ran in, when logged
    int infoLines = 0;
    uint64_t failLine = 0;     // where the log first shows the failure
};

struct MsiLog
{
    std::string path;
    bool windowsFormat = false;   // has "MSI (s)" / "MSI (c)" lines
    std::vector<MsiAction> actions;
    int firstFailing = -1;        // index into actions

    // What a logged return value means in this log's format.
    std::string Outcome(const MsiAction& action) const;
};

// True for the Installer's documented standard actions (InstallFiles,
// MigrateFeatureStates, the top-level INSTALL, ...); anything else that the
// log shows as an action is a custom action or a dialog.
bool IsStandardAction(const std::string& name);

// Reads path. Problems (missing file, lines that are not a log's) go to warnings.
bool ReadMsiLog(const std::string& path, MsiLog& log, Warnings& warnings);

// Splits "1: a 2: b 3: c " into the text our library logged: field 2 followed by
// field 3. False when the line is not such a record.
bool ParseInfoRecord(const std::string& line, std::string& field1, std::string& text);
} // namespace swltrace
