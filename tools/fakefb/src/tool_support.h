// Helpers shared by the launcher, the snapshot tool and the test-support library.
// Unlike panel_files.h these allocate freely, so the preload library has no part
// in them.
#pragma once

#include <string>
#include <vector>

#include "panel_files.h"

namespace fakefb {

// Reads the whole file at path into data; false when it cannot be opened or read
// (data then holds what was read, if anything).
[[nodiscard]] bool readWholeFile(const std::string& path, std::string& data);

// Copies a path into a description's fixed-size field; false when it does not fit.
[[nodiscard]] bool storePath(char (&field)[kPathMax], const std::string& path);

// Writes panelDesc as a geometry file at path; false when that fails.
[[nodiscard]] bool writeDescFile(const PanelDesc& panelDesc, const std::string& path);

// Where a value goes in a ':'-separated list held by an environment variable.
enum class Join { prepend, append };

// The variable's list with value added; just value when the variable is unset or
// empty.
std::string joinedWithVariable(const char* name, const std::string& value, Join where);
// Sets the variable to joinedWithVariable(name, value, where).
void joinIntoVariable(const char* name, const std::string& value, Join where);

// The words that start a program under a user-mode emulator such as
// "qemu-aarch64 -L SYSROOT" (DRAVIK_EMULATOR): the emulator's own words, then
// "-E NAME=VALUE" for each of variables. The emulator sets those in the emulated
// program's environment; in its own they would apply to the emulator itself.
std::vector<std::string> emulatorWords(const char* emulator,
                                       const std::vector<std::string>& variables);

// Pointers to words followed by rest, which ends with its null, as execvp takes
// them. The pointers stay valid while words is neither changed nor destroyed.
std::vector<char*> execArguments(std::vector<std::string>& words, const std::vector<char*>& rest);

}  // namespace fakefb
