#pragma once
// Files planted at fixed machine paths (C:\Windows\System32\Drivers\..., C:\Program Files\...),
// for the actions that work on literal paths. Missing parent folders are created; at the end the
// files (read-only or not) and the folders this object created are removed again, whether or not
// the code under test deleted them already.
#include <string>
#include <vector>

class PlantedFiles
{
public:
    PlantedFiles() = default;
    ~PlantedFiles();
    PlantedFiles(const PlantedFiles&) = delete;
    PlantedFiles& operator=(const PlantedFiles&) = delete;

    // Writes path with bytes ("planted" when empty); false when it cannot be written.
    bool Add(const std::wstring& path, const std::string& bytes = "");
    // Adds the file and marks it read-only: DeleteFileW then fails with ERROR_ACCESS_DENIED.
    bool AddReadOnly(const std::wstring& path);

private:
    std::vector<std::wstring> m_files;
    std::vector<std::wstring> m_folders; // in creation order
};

// Creates the folder and its missing parents; the ones it created are appended to created.
bool CreateFolders(const std::wstring& folder, std::vector<std::wstring>* created = nullptr);
