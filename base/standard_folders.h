// Where the desktop's base directory convention has a user's folders.
#pragma once

#include <string>
#include <vector>

namespace sd {

// Any thread, while none changes the environment.

// What names the folders: variables of this process, or of another one. An absent variable is as an empty one. What is
// no absolute path counts for nothing.
struct FolderVariables {
    std::string home;      // HOME
    std::string dataHome;  // XDG_DATA_HOME
    std::string dataDirs;  // XDG_DATA_DIRS, with colons between them
};
FolderVariables ownFolderVariables();

// The running program as it was called, without its folder.
std::string programName();

// HOME, else what the system's list of users has for this user; "" where that has none either.
std::string homeFolder(const FolderVariables& variables);

// An application's data folder of the user: in XDG_DATA_HOME, else in ~/.local/share. "" where there is no home folder
// either.
std::string userDataFolder(const FolderVariables& variables, const std::string& application);

// The application's data folders, the user's first and then the system's: in each of XDG_DATA_DIRS, or in
// /usr/local/share and /usr/share where that is empty. None is there twice, none need exist.
std::vector<std::string> dataFolders(const FolderVariables& variables, const std::string& application);

// Makes the folder, and those above it that are missing, for nobody else than the user, so that a power cut leaves
// them. Returns "", or why it could not: a line for a person.
std::string makeFolder(const std::string& folder);

}  // namespace sd
