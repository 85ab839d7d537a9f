#include "PlantedFiles.h"
#include "TestRegistry.h"
#include <windows.h>

bool CreateFolders(const std::wstring& folder, std::vector<std::wstring>* created)
{
    if (folder.empty() || GetFileAttributesW(folder.c_str()) != INVALID_FILE_ATTRIBUTES)
        return true;
    const size_t slash = folder.find_last_of(L'\\');
    if (slash != std::wstring::npos && !CreateFolders(folder.substr(0, slash), created))
        return false;
    if (!CreateDirectoryW(folder.c_str(), nullptr))
        return false;
    if (created)
        created->push_back(folder);
    return true;
}

bool PlantedFiles::Add(const std::wstring& path, const std::string& bytes)
{
    if (!CreateFolders(path.substr(0, path.find_last_of(L'\\')), &m_folders))
        return false;
    m_files.push_back(path);
    return WriteFileBytes(path, bytes.empty() ? std::string("planted") : bytes);
}

bool PlantedFiles::AddReadOnly(const std::wstring& path)
{
    return Add(path) && SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY);
}

PlantedFiles::~PlantedFiles()
{
    for (const std::wstring& file : m_files)
    {
        SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
        DeleteFileW(file.c_str());
    }
    for (auto folder = m_folders.rbegin(); folder != m_folders.rend(); ++folder)
        RemoveTree(*folder);
}
