// Where the running executable lives: the embedded HTTP server is told where to
// find the TLS libraries that ship beside it.
#ifndef HTTPWRAPPER_SESSION_SYSTEMTRAITS_H
#define HTTPWRAPPER_SESSION_SYSTEMTRAITS_H

#include <string>

namespace HttpWrapper {

class SystemTraits {
public:
    // Path of the running executable, normalised; empty when it cannot be read.
    static std::string GetExeFile();
    // GetExeFile() cut before its last "/"; empty when there is none.
    static std::string GetExeDir();
    // Lexical clean-up: removes runs of "/" and "." components ("//", "/./",
    // "./", "/."). ".." is left alone: resolving it needs the file system.
    static std::string GetNormalPath(const std::string& path);
};

// The executable's directory with its trailing "/", read through the runtime.
// Kept beside SystemTraits for hosts that use it; the plug-in itself does not.
std::string getCurDir();

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_SESSION_SYSTEMTRAITS_H
