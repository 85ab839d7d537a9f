#include "Warnings.h"
#include "Text.h"

namespace swltrace
{
void Warnings::Add(const std::string& file, uint64_t line, const std::string& kind, const std::string& text)
{
    ++m_total;
    ++m_counts[kind];
    uint64_t seen = ++m_perFile[{file, kind}];
    if (seen > static_cast<uint64_t>(kShownPerKind))
        return;
    Warning w{file, line, kind, ToUtf8(text)};
    if (m_stream != nullptr)
    {
        if (line > 0)
            std::fprintf(m_stream, "swltrace: warning: %s:%llu: %s\n", file.c_str(),
                         static_cast<unsigned long long>(line), w.text.c_str());
        else
            std::fprintf(m_stream, "swltrace: warning: %s: %s\n", file.c_str(), w.text.c_str());
    }
    if (m_kept.size() < kKept)
        m_kept.push_back(std::move(w));
}

void Warnings::FinishFile(const std::string& file)
{
    for (const auto& entry : m_perFile)
    {
        if (entry.first.first != file || entry.second <= static_cast<uint64_t>(kShownPerKind))
            continue;
        const uint64_t more = entry.second - kShownPerKind;
        std::string text = std::to_string(more) + " more line(s) with the warning \"" + entry.first.second +
                           "\" (only the first " + std::to_string(kShownPerKind) + " are named)";
        if (m_stream != nullptr)
            std::fprintf(m_stream, "swltrace: warning: %s: %s\n", file.c_str(), text.c_str());
        if (m_kept.size() < kKept)
            m_kept.push_back(Warning{file, 0, entry.first.second, text});
    }
}
} // namespace swltrace
