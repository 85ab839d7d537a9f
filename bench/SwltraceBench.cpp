// swltrace against wc -l on generated trace files: throughput in MB/s, their
// ratio, and swltrace's peak memory at each size, which should stay flat as
// the file grows. Native (Linux) only; figures are printed, never asserted.
//   swltrace_bench [--sizes MB,MB,...] [--dir DIR] [--keep]
// Default sizes: 100 and 1024 MB. The files are written to DIR (default: the
// current folder) and removed afterwards unless --keep.
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace
{
double Now()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A trace as an install writes it: custom actions with nested calls, messages,
// Installer-log lines, now and then a fault, several threads.
void Generate(const std::string& path, unsigned long long bytes)
{
    static const char* const kActions[] = {"SetupFiles", "InstallDrivers", "AddServices", "VerifyHardwareOrWarn"};
    static const char* const kFunctions[] = {"GetMSIProperty", "CKesRegKey::GetValue", "ExtractBinary",
                                             "EnumerateDeviceMgrForSupportedDevices", "UpdateDriverForDevices",
                                             "STARTService", "GetServiceStatus", "CreateTempFolder"};
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
    {
        std::perror(path.c_str());
        std::exit(1);
    }
    std::vector<char> buffer(1 << 20);
    size_t used = 0;
    unsigned long long written = 0;
    unsigned long long counter = 0x16B4F9F6D2ULL;
    unsigned tid = 0x100;
    unsigned long long n = 0;
    auto line = [&](const char* format, const char* a) {
        if (used + 1400 > buffer.size())
        {
            std::fwrite(buffer.data(), 1, used, f);
            used = 0;
        }
        counter += 3000 + (n * 7919) % 20000;
        ++n;
        const unsigned long long ms = (counter / 10000) % 86400000ULL;
        int k = std::snprintf(buffer.data() + used, 1400, "SWL\tPID:1a2c\tTID:%x\t%02llu:%02llu:%02llu.%03llu\t(%llX)\t",
                              tid, ms / 3600000, ms / 60000 % 60, ms / 1000 % 60, ms % 1000, counter);
        k += std::snprintf(buffer.data() + used + k, 1400 - static_cast<size_t>(k), format, a);
        buffer[used + static_cast<size_t>(k)] = '\r';
        buffer[used + static_cast<size_t>(k) + 1] = '\n';
        used += static_cast<size_t>(k) + 2;
        written += static_cast<unsigned long long>(k) + 2;
    };
    for (unsigned long long round = 0; written < bytes; ++round)
    {
        const char* action = kActions[round % 4];
        ++tid;
        line("(MSI LOG ENTRY) %s()", action);
        for (int call = 0; call < 40; ++call)
        {
            const char* outer = kFunctions[(round + call) % 8];
            const char* inner = kFunctions[(round + call + 3) % 8];
            line("ENTRY:  %s", outer);
            line("ENTRY:  %s", inner);
            line("%s m_bIsOpened = true", inner);
            line("EXIT:  %s, bReturn=true", inner);
            line("Temp folder created 'C:\\Users\\admin\\AppData\\Local\\Temp\\%s'", action);
            if ((round + call) % 97 == 0)
                line("SupportFiles.cpp (123): %s: cannot extract the file", outer);
            line("EXIT:  %s, nReturn=0", outer);
        }
        line("(MSI LOG ENTRY) %s() - Exit", action);
    }
    std::fwrite(buffer.data(), 1, used, f);
    std::fclose(f);
}

struct Run
{
    double seconds = 0;
    double cpuSeconds = 0;   // user and system, all threads
    long maxRssKb = 0;
    int status = 0;
};

// Runs argv with stdout to /dev/null; wall time and the child's peak memory.
Run Measure(const std::vector<std::string>& argv)
{
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    Run run;
    const double start = Now();
    pid_t pid = fork();
    if (pid == 0)
    {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    struct rusage usage;
    wait4(pid, &status, 0, &usage);
    run.seconds = Now() - start;
    run.maxRssKb = usage.ru_maxrss;
    run.cpuSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                     static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

Run Best(const std::vector<std::string>& argv, int rounds)
{
    Run best;
    for (int i = 0; i < rounds; ++i)
    {
        Run r = Measure(argv);
        if (i == 0 || r.seconds < best.seconds)
            best = r;
    }
    return best;
}
} // namespace

int main(int argc, char** argv)
{
    std::vector<unsigned long long> sizes = {100, 1024};
    std::string dir = ".";
    bool keep = false;
    for (int i = 1; i < argc; ++i)
    {
        if (std::strcmp(argv[i], "--sizes") == 0 && i + 1 < argc)
        {
            sizes.clear();
            for (char* p = argv[++i]; *p != '\0';)
            {
                sizes.push_back(std::strtoull(p, &p, 10));
                if (*p == ',')
                    ++p;
            }
        }
        else if (std::strcmp(argv[i], "--dir") == 0 && i + 1 < argc)
            dir = argv[++i];
        else if (std::strcmp(argv[i], "--keep") == 0)
            keep = true;
        else
        {
            std::fprintf(stderr, "usage: %s [--sizes MB,MB,...] [--dir DIR] [--keep]\n", argv[0]);
            return 2;
        }
    }

    std::printf("swltrace_bench: %s against wc -l\n", SWLTRACE_EXE);
    std::printf("%8s %12s %12s %13s %7s %8s %12s %15s %7s %8s %13s\n", "size MB", "lines", "wc -l MB/s",
                "summary MB/s", "ratio", "CPU s", "summary RSS", "full text MB/s", "ratio", "CPU s", "full text RSS");
    for (unsigned long long mb : sizes)
    {
        const std::string path = dir + "/swltrace-bench-" + std::to_string(mb) + "MB.txt";
        Generate(path, mb << 20);
        struct stat st;
        stat(path.c_str(), &st);
        const double fileMb = static_cast<double>(st.st_size) / (1 << 20);
        Measure({"cat", path});  // into the page cache, so both read from memory
        const Run wc = Best({"wc", "-l", path}, 2);
        const Run summary = Best({SWLTRACE_EXE, "--summary", "--no-color", path}, 3);
        const Run full = Measure({SWLTRACE_EXE, "--no-color", path});
        // Lines, for the record.
        unsigned long long lines = 0;
        if (FILE* p = popen(("wc -l < '" + path + "'").c_str(), "r"))
        {
            if (std::fscanf(p, "%llu", &lines) != 1)
                lines = 0;
            pclose(p);
        }
        const double wcRate = fileMb / wc.seconds;
        const double summaryRate = fileMb / summary.seconds;
        const double fullRate = fileMb / full.seconds;
        std::printf("%8.0f %12llu %12.0f %13.0f %7.2f %8.2f %9.1f MB %15.0f %7.2f %8.2f %10.1f MB%s\n", fileMb, lines,
                    wcRate, summaryRate, summaryRate / wcRate, summary.cpuSeconds, summary.maxRssKb / 1024.0, fullRate,
                    fullRate / wcRate, full.cpuSeconds, full.maxRssKb / 1024.0,
                    summary.status != 0 || full.status != 0 ? "  (swltrace failed!)" : "");
        std::fflush(stdout);
        if (!keep)
            std::remove(path.c_str());
    }
    std::printf("ratio: swltrace throughput / wc -l throughput (target: at least 0.33); CPU s: swltrace's user and\n"
                "system time over both its threads. swltrace reads with two threads, so a second core busy with\n"
                "something else lowers its throughput (then it tends to its CPU time)\n");
    return 0;
}
