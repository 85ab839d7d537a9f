// The crypto-provider actions and their process runner, with the test stand-in as the registration tool.
#include "Services/CryptoProvider.h"
#include "Services/ProcessRunner.h"
#include "TestRegistry.h"
#include "TestSession.h"
#include "ToolStandIn.h"
#include "TraceCapture.h"
#include <gtest/gtest.h>

namespace
{
using Lines = std::vector<std::wstring>;
const wchar_t* const kProduct = L"SOFTWARE\\CORVANE\\SWL";

// The system text keeps its own line break, and the runner adds one.
const std::wstring kNotFound = L"CreateProcess() result was: " + SystemErrorText(ERROR_FILE_NOT_FOUND) + L"\r\n\n";

// The product folder's name has a blank, so only a quoted tool path starts the tool.
struct CryptoProviderTest : ::testing::Test
{
    void SetUp() override
    {
        ASSERT_TRUE(CreateDirectoryW(m_dir.File(L"Product Dir").c_str(), nullptr) &&
                    CreateDirectoryW(m_dir.File(L"Product Dir\\Crypto").c_str(), nullptr) &&
                    InstallToolStandIn(m_tool) &&
                    testreg::SetString(kProduct, L"InstallDir", m_dir.File(L"Product Dir")));
        m_session.ClearRecords();
    }
    std::wstring Command(const wchar_t* options) const { return L"\"" + m_tool + L"\" " + options; }
    std::vector<CapturedRecord> Progress() const { return m_session.RecordsOfType(INSTALLMESSAGE_PROGRESS); }

    ProductKeyGuard m_key;
    TempDir m_dir;
    const std::wstring m_tool = m_dir.File(L"Product Dir\\Crypto\\TpxCNGInstaller.exe");
    TestSession m_session;
};
} // namespace

// The stand-in rejects every call (exit code 1), which is never read.
TEST_F(CryptoProviderTest, ToolGetsTopOnlyForTopProviderExactlyOneAndUnregisterRunsItTwice)
{
    ToolStandInBehaviour rejects(0, 1);
    for (const wchar_t* top : {L"0", L"1 ", L"1"})
    {
        EXPECT_EQ(RegisterPlugInProvider(m_session.handle()), 0u);
        testreg::SetString(kProduct, L"TopProvider", top);
    }
    EXPECT_EQ(RegisterPlugInProvider(m_session.handle()), 0u);
    EXPECT_EQ(UnRegisterPlugInProvider(m_session.handle()), 0u);
    const std::wstring plain = Command(L"-register -all"), unregister = Command(L"-unregister -all");
    EXPECT_EQ(ToolStandInRuns(m_tool), Lines({plain, plain, plain, plain + L" -top", unregister, unregister}));
    Lines log;
    for (int i = 0; i < 4; ++i)
        log.insert(log.end(), {L"RegisterPlugInProvider()", L"RegisterPlugInProvider() - Exit"});
    log.insert(log.end(), {L"UnRegisterPlugInProvider()", L"UnRegisterPlugInProvider() - Exit"});
    EXPECT_EQ(m_session.LogLines(), log);
}

TEST_F(CryptoProviderTest, MissingInstallDirOrProductKeyFailsBothActionsBeforeTheToolRuns)
{
    const std::wstring missing = L"Cannot locate required registry keys for plugin provider";
    testreg::DeleteValue(kProduct, L"InstallDir");
    EXPECT_EQ(RegisterPlugInProvider(m_session.handle()), 31u);
    testreg::DeleteTree(kProduct);
    EXPECT_EQ(UnRegisterPlugInProvider(m_session.handle()), 31u);
    EXPECT_EQ(m_session.LogLines(),
              Lines({L"RegisterPlugInProvider()", missing, L"UnRegisterPlugInProvider()", missing}));
    EXPECT_TRUE(ToolStandInRuns(m_tool).empty() && Progress().empty());
}

// The stand-in renames itself in the first unregister run, so the second one, and the registration
// after it, cannot start. A failed registration deliberately logs no exit line.
TEST_F(CryptoProviderTest, ToolThatCannotStartFailsTheActionWithTheSystemReason)
{
    ToolStandInBehaviour movesAway(0, 0, true);
    EXPECT_EQ(UnRegisterPlugInProvider(m_session.handle()), 31u);
    EXPECT_EQ(RegisterPlugInProvider(m_session.handle()), 31u);
    EXPECT_EQ(ToolStandInRuns(m_tool), Lines({Command(L"-unregister -all")}));
    EXPECT_EQ(m_session.LogLines(),
              Lines({L"UnRegisterPlugInProvider()", kNotFound,
                     L"Cmd execution failed for - " + Command(L"-unregister -all"), L"RegisterPlugInProvider()",
                     kNotFound, L"TpxCNGInstaller.exe registration failed"}));
}

// No wait ends early, so no more waits fit into the run than its length allows (with slack for the
// clock); a loaded machine may stretch the waits, hence the low floor. With a wait longer than the
// run there is exactly one record: the one after the wait that saw the process end.
TEST_F(CryptoProviderTest, ProgressMovesAfterEveryWaitIncludingTheLast)
{
    {
        ToolStandInBehaviour oneSecond(1000);
        const ULONGLONG start = GetTickCount64();
        EXPECT_EQ(RegisterPlugInProvider(m_session.handle()), 0u);
        const ULONGLONG elapsed = GetTickCount64() - start;
        EXPECT_GE(Progress().size(), 10u);
        EXPECT_LE(Progress().size(), elapsed / 45 + 2) << elapsed << " ms";
    }
    std::wstring command = Command(L"-quick");
    EXPECT_TRUE(MSIExec_ExecWithPBUpdate(m_session.handle(), &command[0], 7, 0, 60000));
    const auto records = Progress();
    for (const auto& record : records)
        EXPECT_EQ(Lines(record.fields.begin() + 1, record.fields.end()),
                  &record == &records.back() ? Lines({L"2", L"7", L"0"}) : Lines({L"2", L"250", L"0"}));
    EXPECT_EQ(ToolStandInRuns(m_tool).back(), command);
}
